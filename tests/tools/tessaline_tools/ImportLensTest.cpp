// Lens distortion, photographs of mixed sizes and far models in the import:
// the models' parameters distort as OpenCV does with them in OpenCV's order,
// the resampled photographs are OpenCV's undistortion with no empty pixel,
// the offset rule, and what an import writes and refuses.
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "ImportPhotographs.h"
#include "SceneOffset.h"
#include "SfmScene.h"
#include "ToolsTestSupport.h"

using namespace tools_test;

namespace {

struct ModelCase {
    const char* name;
    std::vector<double> params;           // COLMAP's order
    std::vector<double> opencvCoefficients;  // the same, in OpenCV's distCoeffs
};

const std::vector<ModelCase>& modelCases() {
    static const std::vector<ModelCase> cases = {
        {"SIMPLE_PINHOLE", {300, 81, 62}, {0, 0, 0, 0}},
        {"PINHOLE", {300, 310, 81, 62}, {0, 0, 0, 0}},
        {"SIMPLE_RADIAL", {300, 81, 62, -0.2}, {-0.2, 0, 0, 0}},
        {"RADIAL", {300, 81, 62, -0.2, 0.05}, {-0.2, 0.05, 0, 0}},
        {"OPENCV", {300, 310, 81, 62, -0.2, 0.05, 0.003, -0.002}, {-0.2, 0.05, 0.003, -0.002}},
        {"FULL_OPENCV",
         {300, 310, 81, 62, -0.2, 0.05, 0.003, -0.002, 0.01, 0.1, -0.02, 0.005},
         {-0.2, 0.05, 0.003, -0.002, 0.01, 0.1, -0.02, 0.005}},
    };
    return cases;
}

cv::Mat cameraMatrix(double fx, double fy, double cx, double cy) {
    return (cv::Mat_<double>(3, 3) << fx, 0, cx, 0, fy, cy, 0, 0, 1);
}

TEST(LensModels, EachModelDistortsAsOpenCvDoesWithItsCoefficientsInOpenCvsOrder) {
    for (const ModelCase& c : modelCases()) {
        SCOPED_TRACE(c.name);
        LensCamera lens;
        std::string error;
        ASSERT_TRUE(lensFromParameters(c.name, c.params, lens, error)) << error;
        EXPECT_EQ(lensParameters(c.name, lens), c.params);
        std::vector<cv::Point3d> points;
        for (int i = 0; i < 25; ++i) points.push_back({0.12 * (i % 5 - 2), 0.1 * (i / 5 - 2) + 0.01, 1.0});
        std::vector<cv::Point2d> expected;
        const cv::Mat K = cameraMatrix(lens.fx, lens.fy, lens.cx, lens.cy);
        cv::projectPoints(points, cv::Vec3d(0, 0, 0), cv::Vec3d(0, 0, 0), K, c.opencvCoefficients, expected);
        for (size_t i = 0; i < points.size(); ++i) {
            double xd, yd, x, y;
            distortNormalised(lens.distortion, points[i].x, points[i].y, xd, yd);
            EXPECT_NEAR(lens.fx * xd + lens.cx, expected[i].x, 1e-9);
            EXPECT_NEAR(lens.fy * yd + lens.cy, expected[i].y, 1e-9);
            ASSERT_TRUE(undistortNormalised(lens.distortion, xd, yd, x, y));
            EXPECT_NEAR(x, points[i].x, 1e-12);
            EXPECT_NEAR(y, points[i].y, 1e-12);
        }
    }
    LensCamera lens;
    std::string error;
    EXPECT_FALSE(lensFromParameters("RADIAL", {300, 81, 62, 0.1}, lens, error));
    EXPECT_EQ(error, "the camera model RADIAL takes 5 parameters, not 4");
    EXPECT_FALSE(lensFromParameters("FOV", {300, 81, 62, 0.1, 0.2}, lens, error));
}

// A smooth texture, so that bilinear resampling is compared on its values
// and not on aliasing.
cv::Mat texture(cv::Size size) {
    cv::Mat noise(size, CV_8U), smooth;
    cv::randu(noise, 0, 255);
    cv::GaussianBlur(noise, smooth, cv::Size(0, 0), 2.0);
    cv::normalize(smooth, smooth, 0, 255, cv::NORM_MINMAX);
    return smooth;
}

// The map OpenCV makes for the pinhole camera of `lens` with its focal
// lengths times `zoom`.
void opencvMaps(const LensCamera& lens, double zoom, cv::Size size, cv::Mat& mapU, cv::Mat& mapV) {
    const auto k = lens.distortion.opencvCoefficients();
    cv::initUndistortRectifyMap(cameraMatrix(lens.fx, lens.fy, lens.cx, lens.cy),
                                std::vector<double>(k.begin(), k.end()), cv::Mat(),
                                cameraMatrix(lens.fx * zoom, lens.fy * zoom, lens.cx, lens.cy), size, CV_32FC1, mapU,
                                mapV);
}

bool mapInside(const cv::Mat& mapU, const cv::Mat& mapV, cv::Size size) {
    double loU, hiU, loV, hiV;
    cv::minMaxLoc(mapU, &loU, &hiU), cv::minMaxLoc(mapV, &loV, &hiV);
    return loU > -1e-3 && loV > -1e-3 && hiU < size.width - 1 + 1e-3 && hiV < size.height - 1 + 1e-3;
}

// Barrel and pincushion distortion, with the principal point off centre.
TEST(ImportUndistortion, PhotographsAreOpenCvsUndistortionOverTheWidestViewWithoutEmptyPixels) {
    const cv::Size size(160, 120);
    const cv::Mat photo = texture(size);
    for (const ModelCase& c : modelCases()) {
        for (const double sign : {1.0, -1.0}) {
            SCOPED_TRACE(std::string(c.name) + (sign > 0 ? " as given" : " with the radial terms negated"));
            std::vector<double> params = c.params;
            const size_t pinholeParams = c.params[1] == 310 ? 4 : 3;  // fx fy cx cy, or f cx cy
            for (size_t i = pinholeParams; i < params.size(); ++i) params[i] *= sign;
            LensCamera lens;
            std::string error;
            ASSERT_TRUE(lensFromParameters(c.name, params, lens, error)) << error;
            const double zoom = undistortedZoom(lens, size);
            cv::Mat mapU, mapV, theirs;
            opencvMaps(lens, zoom, size, mapU, mapV);
            EXPECT_TRUE(mapInside(mapU, mapV, size));
            if (!lens.distortion.isZero()) {
                opencvMaps(lens, zoom * 0.995, size, mapU, mapV);
                EXPECT_FALSE(mapInside(mapU, mapV, size)) << "a wider view would have stayed inside";
            }
            opencvMaps(lens, zoom, size, mapU, mapV);
            cv::remap(photo, theirs, mapU, mapV, cv::INTER_LINEAR, cv::BORDER_REPLICATE);
            mycamera target;
            target.fx = lens.fx * zoom, target.fy = lens.fy * zoom, target.cx = lens.cx, target.cy = lens.cy;
            const cv::Mat ours = resamplePhotograph(photo, lens, target, size);
            EXPECT_LE(cv::norm(ours, theirs, cv::NORM_INF), 1.0);
        }
    }
}

MeshData boxMesh(double cx, double cy, double cz, double side) {
    MeshData mesh;
    for (int i = 0; i < 8; ++i)
        mesh.vertices.insert(mesh.vertices.end(), {cx + side * ((i & 1) - 0.5), cy + side * ((i >> 1 & 1) - 0.5),
                                                   cz + side * ((i >> 2 & 1) - 0.5)});
    mesh.facets = {0, 1, 2};
    return mesh;
}

TEST(ImportOffset, ModelsFarFromTheOriginMoveByTheirCentreRoundedToAPowerOfTenBelowTheirSize) {
    struct Case {
        MeshData mesh;
        bool applied;
        std::string text;
    };
    const std::vector<Case> cases = {
        {boxMesh(0.2, -0.1, 0.3, 2), false, "0 0 0\n"},
        {boxMesh(350000.3, 5600000.6, 250.2, 2), true, "350000 5600001 250\n"},  // whole units
        {boxMesh(350000.3, 5600000.6, 250.2, 200), true, "350000 5600000 300\n"},  // hundreds
        {boxMesh(20.004, 0, 0, 0.01), true, "20 0 0\n"},  // 1000 diagonals away
        {boxMesh(1.2345, 0, 0, 0.01), false, "0 0 0\n"},  // nearer than 1000 diagonals
        {boxMesh(15004, 0, 0, 20), true, "15000 0 0\n"},  // more than 10^4 units away
        {boxMesh(12000.5, 0, 0, 1e5), false, "0 0 0\n"},  // so is its centre, but inside it
    };
    for (const Case& c : cases) {
        const SceneOffset offset = chooseOffset(c.mesh);
        EXPECT_EQ(offset.applied, c.applied) << c.text;
        EXPECT_EQ(offsetText(offset), c.text);
    }
    SceneOffset tenth;
    tenth.applied = true, tenth.xyz[0] = 0.1, tenth.xyz[1] = -2.0 / 3.0, tenth.xyz[2] = 1e-20;
    EXPECT_EQ(offsetText(tenth), "0.10000000000000001 -0.66666666666666663 9.9999999999999995e-21\n");
    // The cameras move with the mesh: a camera centre C becomes C - offset.
    const RingScene ring = makeRingScene(2);
    mycamera moved = ring.cameras[1];
    const SceneOffset offset{true, {3, -4, 5}};
    shiftTranslation(moved.R, moved.t, offset);
    double before[3], after[3];
    cameraCentre(ring.cameras[1], before), cameraCentre(moved, after);
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(after[k], before[k] - offset.xyz[k], 1e-12);
}

// A horizontal ramp: pixel (x, y) holds 2x.
void writeRamp(const fs::path& path, cv::Size size) {
    cv::Mat ramp(size, CV_8U);
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x) ramp.at<uint8_t>(y, x) = uint8_t(2 * x);
    cv::imwrite(path.string(), ramp);
}

SfmScene loadScene(const std::string& outDir) {
    SfmScene scene;
    printedBy([&] { scene_test::inFolder(outDir, [&] { EXPECT_TRUE(loadSfmScene(scene, "scene.sfm")); }); });
    return scene;
}

// Camera 1 has an OPENCV lens, camera 2 a photograph of 100x120 while the
// others are 160x120: both are resampled into OUT_DIR/images, the same bytes
// on every run; the others stay where they are.
TEST(ImportPhotographs, DistortedAndOddSizedPhotographsAreResampledIntoTheOutputFolder) {
    ImportFixture f;
    f.model.cameras[11].modelId = 4;  // OPENCV
    f.model.cameras[11].params = {201, 202, 80, 60, -0.2, 0.05, 0.001, 0.002};
    f.model.cameras[12].width = 100, f.model.cameras[12].params = {202, 203, 50.25, 60};
    writeRamp(f.dir / "images" / f.ring.names[2], cv::Size(100, 120));
    f.writeModel(false);
    std::string error;
    const std::string out = printedBy([&] { error = f.import(); });
    ASSERT_EQ(error, "");
    EXPECT_NE(out.find("the photographs differ in size: all are resampled to 160x120 (the size of 5 of 6), their "
                       "intrinsics scaled with them\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("undistorted 1 photograph into pinhole cameras of the same size, focal lengths times "),
              std::string::npos);
    const SfmScene scene = loadScene(f.options.outDir);
    ASSERT_EQ(scene.cameras.size(), 6u);
    EXPECT_EQ(scene.imagePaths[1], "images/view01.png");
    EXPECT_EQ(scene.imagePaths[2], "images/view02.png");
    EXPECT_EQ(fs::path(scene.imagePaths[0]).filename(), "view00.png");
    EXPECT_NE(scene.imagePaths[0].find("images/view00.png"), 0u);  // the original, outside OUT_DIR
    // Scaled by 1.6 along x: the ramp's value at u is 2 ((u + 0.5) / 1.6 - 0.5).
    const mycamera& scaled = scene.cameras[2];
    EXPECT_DOUBLE_EQ(scaled.fx, 202 * 1.6);
    EXPECT_DOUBLE_EQ(scaled.fy, 203);
    EXPECT_DOUBLE_EQ(scaled.cx, 50.25 * 1.6 - 0.5);
    const fs::path resizedPath = fs::path(f.options.outDir) / "images" / "view02.png";
    const cv::Mat resized = cv::imread(resizedPath.string(), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(resized.size(), cv::Size(160, 120));
    for (int u = 2; u < 157; u += 7) EXPECT_NEAR(resized.at<uint8_t>(60, u), 2 * ((u + 0.5) / 1.6 - 0.5), 1.0) << u;

    const std::string firstScene = readFile(fs::path(f.options.outDir) / "scene.sfm");
    const std::string firstPhoto = readFile(fs::path(f.options.outDir) / "images" / "view01.png");
    fs::remove_all(f.options.outDir);
    printedBy([&] { error = f.import(); });
    EXPECT_EQ(readFile(fs::path(f.options.outDir) / "scene.sfm"), firstScene);
    EXPECT_EQ(readFile(fs::path(f.options.outDir) / "images" / "view01.png"), firstPhoto);
}

TEST(ImportPhotographs, AnOffsetLeftByAnEarlierImportGoesWhenTheModelIsNearTheOrigin) {
    ImportFixture f;
    f.writeModel(true);
    writeFile(fs::path(f.options.outDir) / "offset.txt", "350000 5600000 250\n");
    ASSERT_EQ(f.import(), "");
    EXPECT_FALSE(fs::exists(fs::path(f.options.outDir) / "offset.txt"));
}

TEST(ImportRefusals, UnusableLensParametersAreNamedOnOneLineAndNothingIsWritten) {
    const std::vector<std::pair<std::vector<double>, const char*>> cases = {
        {{-200, 80, 60, 0.01}, "camera 11 (SIMPLE_RADIAL): the focal length is not positive"},
        {{200, 180, 60, 0.01},
         "camera 11 (SIMPLE_RADIAL): the principal point (180, 60) lies outside the 160x120 photograph"},
        {{200, 80, 60, -3.0}, "camera 11 (SIMPLE_RADIAL): its distortion folds over inside the photograph"},
    };
    for (const auto& [params, message] : cases) {
        SCOPED_TRACE(message);
        ImportFixture f;
        f.model.cameras[11].modelId = 2, f.model.cameras[11].params = params;
        f.writeModel(false);
        const std::string error = f.import();
        EXPECT_EQ(error.find(message), 0u) << error;
        EXPECT_EQ(error.find('\n'), std::string::npos);
        EXPECT_FALSE(fs::exists(f.options.outDir));
    }
    // Into the folder above the photographs: the undistorted view01.png
    // would replace its original.
    ImportFixture f;
    f.model.cameras[11].modelId = 2, f.model.cameras[11].params = {200, 80, 60, 0.1};
    f.writeModel(false);
    f.options.outDir = f.dir.dir().string();
    const std::string original = readFile(f.dir / "images" / "view01.png");
    EXPECT_NE(f.import().find("/images/view01.png would replace a photograph of the model; choose another OUT_DIR"),
              std::string::npos);
    EXPECT_EQ(readFile(f.dir / "images" / "view01.png"), original);
    EXPECT_FALSE(fs::exists(f.dir / "scene.sfm"));
}

}  // namespace
