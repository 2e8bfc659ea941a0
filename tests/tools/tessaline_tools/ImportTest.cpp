// import and its COLMAP readers: conventions proved on the real model in both
// formats, a round trip through COLMAP's text and binary forms, the neighbour
// ranking, and each refusal, with nothing written.
#include "SfmScene.h"
#include "ToolsTestSupport.h"

using namespace tools_test;

namespace {

// Mean distance in pixels between the model's keypoints and its 3D points
// projected through the imported cameras, principal point moved by `shift`.
double meanReprojectionError(const ColmapModel& model, double shift) {
    std::map<int64_t, const ColmapPoint3D*> points;
    for (const ColmapPoint3D& p : model.points) points[int64_t(p.id)] = &p;
    double sum = 0;
    size_t n = 0;
    for (const ColmapImage& image : model.images) {
        mycamera cam = cameraFromColmap(model.cameras.at(image.cameraId), image);
        cam.cx += shift, cam.cy += shift;
        updateIntrinsicMatrices(cam);
        updateProjectionMatrix(cam);
        for (const ColmapObservation& ob : image.points2D) {
            double u, v;
            if (ob.point3DId == kNoPoint3D || !projectPoint(cam, points.at(ob.point3DId)->xyz, u, v)) continue;
            sum += std::hypot(u - (ob.x - 0.5), v - (ob.y - 0.5)), ++n;  // keypoints use COLMAP's pixel centres
        }
    }
    return sum / double(n);
}

void rewrite(ImportFixture& f, const char* file, const std::function<void(std::string&)>& change) {
    if (!fs::exists(f.dir / "model")) f.writeModel(std::string(file).find(".bin") != std::string::npos);
    std::string s = readFile(f.dir / "model" / file);
    change(s);
    writeFile(f.dir / "model" / file, s);
}

void patch64(std::string& s, size_t at, uint64_t v) { std::memcpy(&s[at], &v, 8); }

}  // namespace

TEST(ImportConventions, RealModelReprojectsAsColmapSaysInBothFormats) {
    const fs::path real = fs::path(TESSALINE_SOURCE_DIR) / ".." / "shared" / "data" / "templeSparseRing" / "colmap";
    if (!fs::exists(real / "sparse" / "0" / "images.bin")) GTEST_SKIP() << "real data not found under " << real;
    for (const char* sub : {"sparse/0", "sparse_text"}) {
        SCOPED_TRACE(sub);
        const ColmapModel model = readColmapModel((real / sub).string());
        EXPECT_EQ(model.format, std::string(sub) == "sparse/0" ? ColmapFormat::Binary : ColmapFormat::Text);
        ASSERT_EQ(model.images.size(), 13u);
        double modelMean = 0;
        for (const ColmapPoint3D& p : model.points) modelMean += p.error / double(model.points.size());
        const double ours = meanReprojectionError(model, 0.0);
        EXPECT_NEAR(ours, modelMean, 0.03);
        EXPECT_LT(ours, 0.3);
        EXPECT_GT(meanReprojectionError(model, 1.0), 1.0);  // the half pixel the other way
    }
}

class ImportRoundTrip : public ::testing::TestWithParam<bool> {};

// Camera 0 of the ring is a SIMPLE_PINHOLE, the others PINHOLE; camera 4 has
// no keypoints, which leaves an empty line in images.txt. Photographs the model
// did not register are named on one line.
TEST_P(ImportRoundTrip, SceneLoadsFromTheOutputFolderWithTheSameCameras) {
    ImportFixture f;
    f.model = ringToColmap(f.ring, 4);
    f.writeModel(GetParam());
    writeGreyImage(f.dir / "images" / "extra.png", 160, 120);
    writeGreyImage(f.dir / "images" / "sub" / "later.png", 160, 120);
    std::string error;
    const std::string out = printedBy([&] { error = f.import(); });
    ASSERT_EQ(error, "");
    EXPECT_NE(out.find("left out 2 images the model did not register: extra.png sub/later.png\n"), std::string::npos)
        << out;
    SfmScene scene;
    bool loaded = false;
    scene_test::inFolder(f.options.outDir, [&] { loaded = loadSfmScene(scene, "scene.sfm"); });
    ASSERT_TRUE(loaded);
    ASSERT_EQ(scene.cameras.size(), f.ring.cameras.size());
    for (size_t i = 0; i < scene.cameras.size(); ++i) {
        SCOPED_TRACE(i);
        const mycamera &got = scene.cameras[i], &want = f.ring.cameras[i];
        EXPECT_EQ(fs::path(scene.imagePaths[i]).filename(), f.ring.names[i]);
        double diff = std::max({std::abs(got.fx - want.fx), std::abs(got.fy - want.fy), std::abs(got.cx - want.cx),
                                std::abs(got.cy - want.cy)});
        for (int k = 0; k < 9; ++k) diff = std::max(diff, std::abs(got.R[k] - want.R[k]));
        for (int k = 0; k < 3; ++k) diff = std::max(diff, std::abs(got.t[k] - want.t[k]));
        EXPECT_LT(diff, 1e-6);
        EXPECT_EQ(scene.neighbourLists[i].empty(), i == 4);
    }
    EXPECT_FLOAT_EQ(scene.boundingBox[0], -0.55f);  // the cube, padded by 5% of its side
    EXPECT_FLOAT_EQ(scene.boundingBox[5], 0.55f);
    const std::string mesh = readFile(fs::path(f.options.outDir) / "mesh.ply");
    EXPECT_NE(mesh.find("element vertex 8\n"), std::string::npos);
    EXPECT_NE(mesh.find("element face 12\n"), std::string::npos);  // six quads split in two
}

INSTANTIATE_TEST_SUITE_P(BothFormats, ImportRoundTrip, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Binary" : "Text"; });

TEST(ImportNeighbours, UsefulAnglesOutrankManyPointsSeenFromOnePlace) {
    // Images 0 and 1 stand side by side (under 2 degrees apart seen from the
    // points); image 2 sees them from 30 degrees away; image 3 shares nothing.
    ColmapModel m;
    const double centres[3][2] = {{0, -4}, {0.1, -4}, {2, -3.46}};
    for (uint32_t i = 0; i < 4; ++i) {
        ColmapImage im;
        im.id = i + 1;
        im.t[0] = -centres[std::min(i, 2u)][0], im.t[2] = -centres[std::min(i, 2u)][1];
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
    EXPECT_TRUE(lists[3].empty());
    EXPECT_EQ(rankNeighbours(m, {0, 1, 2, 3}, 1)[0], (std::vector<int>{2}));
}

TEST(ImportRefusals, EachProblemIsNamedAndNothingIsWritten) {
    using F = ImportFixture&;
    const std::vector<std::pair<std::function<void(F)>, const char*>> cases = {
        // The photographs and the cameras.
        {[](F f) { f.model.cameras[11].modelId = 5, f.model.cameras[11].params = {200, 200, 80, 60, 0, 0, 0, 0}; },
         "camera 11 (OPENCV_FISHEYE): the camera model OPENCV_FISHEYE is not one the import accepts"},
        {[](F f) { writeGreyImage(f.dir / "images" / f.ring.names[1], 80, 60); },
         "but its camera in the model is 160x120"},
        {[](F f) { fs::remove(f.dir / "images" / f.ring.names[3]); }, "is not in"},
        {[](F f) {
             fs::rename(f.dir / "images", f.dir / "my images");
             f.options.imageDir = (f.dir / "my images").string();
         },
         "holds a blank"},
        {[](F f) {
             fs::path deep = f.dir / "images";
             for (int i = 0; i < 5; ++i) deep /= std::string(220, 'd');
             for (const auto& n : f.ring.names) writeGreyImage(deep / n, 160, 120);
             f.options.imageDir = deep.string();
         },
         "the tool takes at most 1023"},
        {[](F f) { f.model.images.resize(1), f.model.images[0].points2D.clear(), f.model.points.clear(); },
         "the tool needs at least two"},
        {[](F f) { f.options.neighbours = 0; }, "--neighbours"},
        // Broken references, in both formats.
        {[](F f) { f.model.images[1].cameraId = 77; }, "refers to camera 77"},
        {[](F f) { f.model.points[3].track.push_back({999, 0}); }, "refers to image 999"},
        {[](F f) { f.model.points[3].track[0].point2DIdx = 5000; }, "refers to keypoint 5000"},
        {[](F f) { f.model.images[0].points2D[0].point3DId = 123456; }, "refers to point 123456"},
        {[](F f) { f.model.images[2].name = f.model.images[1].name; }, "given to two images"},
        // Damaged binary files: counts larger than the file are refused before
        // anything is sized by them.
        {[](F f) { rewrite(f, "points3D.bin", [](std::string& s) { patch64(s, 0, 1ull << 60); }); },
         "points3D.bin: the count of points at byte 0 is 1152921504606846976, more than"},
        {[](F f) {
             const size_t at = 8 + 4 + 56 + 4 + f.model.images[0].name.size() + 1;
             rewrite(f, "images.bin", [&](std::string& s) { patch64(s, at, 1ull << 40); });
         },
         "count of keypoints"},
        {[](F f) { rewrite(f, "images.bin", [](std::string& s) { s.resize(s.rfind("view05.png") + 11 + 4); }); },
         "images.bin is truncated: it ends at byte"},  // inside the last image's count of keypoints
        {[](F f) { f.model.cameras[10].modelId = 42, f.writeModel(true); }, "unknown model id 42"},
        // Damaged text files and misplaced models.
        {[](F f) { rewrite(f, "cameras.txt", [](std::string& s) { s = "10 PINHOLE 160 120 200 201 80\n"; }); },
         "takes 4 parameters, the line has 3"},
        {[](F f) { rewrite(f, "cameras.txt", [](std::string& s) { s = "10 PINHOLE 160 120 200 201 80 abc\n"; }); },
         "\"abc\" is not a finite number"},
        {[](F f) { rewrite(f, "cameras.txt", [](std::string& s) { s = "10 BROWN 160 120 200\n"; }); },
         "unknown camera model BROWN"},
        {[](F f) { rewrite(f, "points3D.txt", [](std::string& s) { s.insert(s.find('\n'), " 100"); }); },
         "one value is left over"},
        {[](F f) { f.options.modelDir = (f.dir / "missing").string(); }, "does not exist"},
        {[](F f) { writeColmapText(f.model, f.dir / "model" / "0"); }, "the model is in"},
        {[](F f) { f.writeModel(false), fs::remove(f.dir / "model" / "points3D.txt"); },
         "all three as .bin or all three as .txt"},
    };
    for (const auto& [spoil, message] : cases) {
        for (const bool binary : {false, true}) {
            SCOPED_TRACE(std::string(message) + (binary ? " (binary)" : " (text)"));
            ImportFixture f;
            spoil(f);
            if (fs::exists(f.dir / "model") && binary) break;  // the case wrote its own model
            if (!fs::exists(f.dir / "model")) f.writeModel(binary);
            const std::string error = f.import();
            EXPECT_NE(error.find(message), std::string::npos) << error;
            EXPECT_FALSE(fs::exists(f.options.outDir));
        }
    }
}
