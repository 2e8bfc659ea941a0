// import: conventions proved on the real model, a round trip through COLMAP's
// text and binary forms, each camera model and each refusal, and nothing
// written when anything is wrong.
#include <functional>

#include "SfmScene.h"
#include "ToolsTestSupport.h"

using namespace tools_test;

namespace {

// Mean distance in pixels between the model's keypoints and its 3D points
// projected through the imported cameras, with the principal point moved by
// `cxShift` beyond the import's own conversion.
double meanReprojectionError(const ColmapModel& model, double cxShift) {
    double sum = 0;
    size_t n = 0;
    for (const ColmapImage& image : model.images) {
        mycamera cam = cameraFromColmap(model.cameras.at(image.cameraId), image);
        cam.cx += cxShift;
        cam.cy += cxShift;
        updateIntrinsicMatrices(cam);
        updateProjectionMatrix(cam);
        for (const ColmapObservation& ob : image.points2D) {
            if (ob.point3DId == kNoPoint3D) continue;
            const auto p = std::find_if(model.points.begin(), model.points.end(),
                                        [&](const ColmapPoint3D& q) { return int64_t(q.id) == ob.point3DId; });
            double u, v;
            EXPECT_TRUE(projectPoint(cam, p->xyz, u, v));
            // The keypoints share COLMAP's pixel convention with its intrinsics.
            sum += std::hypot(u - (ob.x - 0.5), v - (ob.y - 0.5));
            ++n;
        }
    }
    return sum / double(n);
}

}  // namespace

TEST(ImportConventions, RealModelReprojectsAsColmapSays) {
    SKIP_WITHOUT_REAL_DATA();
    const ColmapModel model = readColmapModel((realDataDir() / "colmap" / "sparse" / "0").string());
    double modelMean = 0;
    for (const ColmapPoint3D& p : model.points) modelMean += p.error;
    modelMean /= double(model.points.size());

    const double ours = meanReprojectionError(model, 0.0);
    EXPECT_NEAR(ours, modelMean, 0.03);
    EXPECT_LT(ours, 0.3);
    // The half pixel the other way lands a whole pixel off in both directions.
    EXPECT_GT(meanReprojectionError(model, 1.0), 1.0);
}

TEST(ImportConventions, PrincipalPointMatchesTheIndependentCalibration) {
    SKIP_WITHOUT_REAL_DATA();
    // The model was made with the calibration's principal point plus 0.5; the
    // calibration file itself puts pixel centres at integers, as the tool does.
    const ColmapModel model = readColmapModel((realDataDir() / "colmap" / "sparse" / "0").string());
    std::ifstream par(realDataDir() / "templeSR_par.txt");
    int count;
    std::string name;
    double K[9];
    par >> count >> name;
    for (double& k : K) par >> k;
    const mycamera cam = cameraFromColmap(model.cameras.begin()->second, model.images[0]);
    EXPECT_NEAR(cam.cx, K[2], 1e-9);
    EXPECT_NEAR(cam.cy, K[5], 1e-9);
    EXPECT_DOUBLE_EQ(cam.fx, K[0]);
    EXPECT_DOUBLE_EQ(cam.fy, K[4]);
}

class ImportRoundTrip : public ::testing::TestWithParam<bool> {};

// Camera 0 of the ring is a SIMPLE_PINHOLE, the others PINHOLE.
TEST_P(ImportRoundTrip, SceneLoadsFromTheOutputFolderWithTheSameCameras) {
    ImportFixture f;
    f.writeModel(GetParam());
    ASSERT_EQ(f.import(), "");

    SfmScene scene;
    {
        ScopedCwd inOut(f.options.outDir);
        ASSERT_TRUE(loadSfmScene(scene, "scene.sfm"));
    }
    ASSERT_EQ(scene.cameras.size(), f.ring.cameras.size());
    for (size_t i = 0; i < scene.cameras.size(); ++i) {
        SCOPED_TRACE(i);
        const mycamera &got = scene.cameras[i], &want = f.ring.cameras[i];
        EXPECT_EQ(fs::path(scene.imagePaths[i]).filename(), f.ring.names[i]);
        for (int k = 0; k < 9; ++k) EXPECT_NEAR(got.R[k], want.R[k], 1e-6);
        for (int k = 0; k < 3; ++k) EXPECT_NEAR(got.t[k], want.t[k], 1e-6);
        EXPECT_NEAR(got.fx, want.fx, 1e-6);
        EXPECT_NEAR(got.fy, want.fy, 1e-6);
        EXPECT_NEAR(got.cx, want.cx, 1e-6);
        EXPECT_NEAR(got.cy, want.cy, 1e-6);
        EXPECT_FALSE(scene.neighbourLists[i].empty());
    }
    // The cube, padded by 5% of its side.
    EXPECT_FLOAT_EQ(scene.boundingBox[0], -0.55f);
    EXPECT_FLOAT_EQ(scene.boundingBox[5], 0.55f);
    const std::string mesh = readText(fs::path(f.options.outDir) / "mesh.ply");
    EXPECT_NE(mesh.find("element vertex 8\n"), std::string::npos);
    EXPECT_NE(mesh.find("element face 12\n"), std::string::npos);  // six quads split in two
}

INSTANTIATE_TEST_SUITE_P(BothFormats, ImportRoundTrip, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Binary" : "Text"; });

TEST(ImportNeighbours, UsefulAnglesOutrankManyPointsSeenFromOnePlace) {
    // Images 0 and 1 stand side by side (0.1 apart at distance 4: under 2
    // degrees); image 2 sees the points from 30 degrees away.
    ColmapModel m;
    const double centres[3][3] = {{0, 0, -4}, {0.1, 0, -4}, {2, 0, -3.46}};
    for (uint32_t i = 0; i < 4; ++i) {
        ColmapImage im;
        im.id = i + 1;
        im.t[0] = -centres[std::min(i, 2u)][0], im.t[1] = 0, im.t[2] = -centres[std::min(i, 2u)][2];
        m.images.push_back(im);
        m.imageIndex[im.id] = int(i);
    }
    for (int j = 0; j < 50; ++j) {
        ColmapPoint3D p;
        p.track = {{1, 0}, {2, 0}};
        if (j < 20) p.track.push_back({3, 0});
        m.points.push_back(p);
    }
    const auto lists = rankNeighbours(m, {0, 1, 2, 3}, 8);
    EXPECT_EQ(lists[0], (std::vector<int>{2, 1}));
    EXPECT_EQ(lists[2], (std::vector<int>{0, 1}));
    EXPECT_TRUE(lists[3].empty());  // shares nothing
    EXPECT_EQ(rankNeighbours(m, {0, 1, 2, 3}, 1)[0], (std::vector<int>{2}));
}

TEST(ImportRefusals, EachProblemIsNamedAndNothingIsWritten) {
    struct Case {
        const char* name;
        std::function<void(ImportFixture&)> spoil;
        const char* message;
    };
    const std::vector<Case> cases = {
        {"distortion",
         [](ImportFixture& f) {
             f.model.cameras[11].modelId = 2;  // SIMPLE_RADIAL
             f.model.cameras[11].params = {200, 80, 60, 0.01};
         },
         "image_undistorter"},
        {"sizes differ",
         [](ImportFixture& f) {
             f.model.cameras[12].width = 100;
             writeGreyImage(f.dir / "images" / f.ring.names[2], 100, 120);
         },
         "the photographs differ in size"},
        {"photo not the camera's size",
         [](ImportFixture& f) { writeGreyImage(f.dir / "images" / f.ring.names[1], 80, 60); },
         "but its camera in the model is 160x120"},
        {"photo missing", [](ImportFixture& f) { fs::remove(f.dir / "images" / f.ring.names[3]); },
         "is not in"},
        {"blank in the path",
         [](ImportFixture& f) {
             fs::rename(f.dir / "images", f.dir / "my images");
             f.options.imageDir = (f.dir / "my images").string();
         },
         "holds a blank"},
        {"path too long",
         [](ImportFixture& f) {
             fs::path deep = f.dir / "images";
             for (int i = 0; i < 5; ++i) deep /= std::string(220, 'd');
             for (const auto& n : f.ring.names) writeGreyImage(deep / n, 160, 120);
             f.options.imageDir = deep.string();
         },
         "the tool takes at most 1023"},
        {"one image",
         [](ImportFixture& f) {
             f.model.images.resize(1);
             f.model.images[0].points2D.clear();
             f.model.points.clear();
         },
         "the tool needs at least two"},
        {"mesh counts exceed its data",
         [](ImportFixture& f) {
             std::string ply = cubePly();
             ply.replace(ply.find("element face 6"), 14, "element face 9");
             writeText(f.dir / "cube.ply", ply);
         },
         "the file ends before the entry is complete"},
        {"damaged model",
         [](ImportFixture& f) {
             f.writeModel(true);
             std::string pts = readText(f.dir / "model" / "points3D.bin");
             writeText(f.dir / "model" / "points3D.bin", pts.substr(0, 100));
         },
         "points3D.bin: the count of points at byte 0 is 60, more than"},
        {"no neighbours option", [](ImportFixture& f) { f.options.neighbours = 0; }, "--neighbours"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ImportFixture f;
        c.spoil(f);
        if (!fs::exists(f.dir / "model")) f.writeModel(false);
        const std::string error = f.import();
        EXPECT_NE(error.find(c.message), std::string::npos) << error;
        EXPECT_FALSE(f.outputWritten());
    }
}

TEST(ImportReport, UnregisteredPhotographsAreNamedOnOneLine) {
    ImportFixture f;
    f.writeModel(false);
    writeGreyImage(f.dir / "images" / "extra.png", 160, 120);
    writeGreyImage(f.dir / "images" / "sub" / "later.png", 160, 120);
    testing::internal::CaptureStdout();
    const std::string error = f.import();
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(error, "");
    EXPECT_NE(out.find("left out 2 images the model did not register: extra.png sub/later.png\n"),
              std::string::npos)
        << out;
}
