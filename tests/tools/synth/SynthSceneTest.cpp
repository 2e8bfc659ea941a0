// The synthetic scene generator and its command line: the written scene reads
// back exactly through the tool's own readers, cameras, meshes and
// photographs agree with each other, the photographs carry texture, the
// meshes have the shape the tool needs, and unusable options are refused.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "../../scene/SceneTestSupport.h"
#include "MeshCompare.h"
#include "MeshRayCaster.h"
#include "SfmScene.h"
#include "SynthScene.h"
#include "mycamera.h"
#include "plyIO.h"

namespace fs = std::filesystem;
using namespace tessaline::synth;

namespace {

int runSynth(const std::vector<std::string>& args, std::string& out) {
    return scene_test::runMain(runSynthCommand, "tessaline_synth", args, out);
}

// Six views of 200 x 150 on one ring, truth level 5; built once.
class SynthSceneTest : public testing::Test {
   protected:
    static void SetUpTestSuite() {
        SynthOptions o;
        o.views = 6, o.width = 200, o.height = 150, o.truthLevel = 5;
        scene_ = new SynthScene;
        std::string error;
        ASSERT_TRUE(makeSynthScene(o, *scene_, error)) << error;
    }
    static void TearDownTestSuite() { delete scene_; }
    static SynthScene* scene_;
};
SynthScene* SynthSceneTest::scene_ = nullptr;

// Each undirected edge must be used exactly once in each direction: then the
// mesh is closed, manifold at its edges, and consistently wound; a positive
// signed volume then means outward winding.
void expectClosedAndOutward(const TriMesh& mesh) {
    std::map<std::pair<int32_t, int32_t>, int> directed;
    double volume = 0.0;
    for (int32_t f = 0; f < mesh.num_f; ++f) {
        const int32_t* idx = &mesh.facets[3 * size_t(f)];
        for (int k = 0; k < 3; ++k) ++directed[{idx[k], idx[(k + 1) % 3]}];
        const float *a = &mesh.vertices[3 * size_t(idx[0])], *b = &mesh.vertices[3 * size_t(idx[1])],
                    *c = &mesh.vertices[3 * size_t(idx[2])];
        volume += (double(a[0]) * (double(b[1]) * c[2] - double(b[2]) * c[1]) +
                   double(a[1]) * (double(b[2]) * c[0] - double(b[0]) * c[2]) +
                   double(a[2]) * (double(b[0]) * c[1] - double(b[1]) * c[0])) / 6.0;
    }
    for (const auto& [edge, count] : directed) {
        ASSERT_EQ(count, 1) << "edge " << edge.first << "-" << edge.second << " used twice in one direction";
        ASSERT_TRUE(directed.count({edge.second, edge.first})) << "edge " << edge.first << "-" << edge.second
                                                               << " is open";
    }
    EXPECT_GT(volume, 0.0);
}

TEST_F(SynthSceneTest, CommandWritesTheSameSceneAndItReadsBackExactly) {
    const scene_test::TempFolder folder;
    const fs::path dir = folder / "nested";
    std::string out;  // with the fixture's options
    ASSERT_EQ(runSynth({dir.string(), "--views", "6", "--width", "200", "--height", "150", "--truth-level", "5"}, out),
              0) << out;
    EXPECT_NE(out.find("Synthetic scene written to " + dir.string()), std::string::npos) << out;
    // Image names are relative to the scene folder, and the reader takes them
    // relative to the working directory, as the tool is run from there.
    SfmScene loaded;
    TriMesh truth, initial;
    bool ok = false;
    scene_test::inFolder(dir, [&] {
        scene_test::printedBy([&] {
            ok = loadSfmScene(loaded, "scene.sfm") && loadPly(truth, "truth.ply") && loadPly(initial, "initial.ply");
        });
    });
    ASSERT_TRUE(ok);
    ASSERT_EQ(loaded.cameras.size(), scene_->cameras.size());
    for (size_t i = 0; i < loaded.cameras.size(); ++i) {
        const mycamera &a = loaded.cameras[i], &b = scene_->cameras[i];
        EXPECT_TRUE(std::equal(a.R, a.R + 9, b.R) && std::equal(a.t, a.t + 3, b.t)) << "camera " << i;
        EXPECT_TRUE(a.fx == b.fx && a.fy == b.fy && a.cx == b.cx && a.cy == b.cy) << "camera " << i;
        EXPECT_EQ(cv::norm(loaded.images[i], scene_->images[i], cv::NORM_INF), 0.0) << "image " << i;
    }
    EXPECT_EQ(loaded.neighbourLists, scene_->neighbourLists);
    EXPECT_TRUE(std::equal(loaded.boundingBox, loaded.boundingBox + 6, scene_->boundingBox));
    // The meshes in memory are the meshes in the files.
    EXPECT_TRUE(truth.vertices == scene_->truth.vertices && truth.facets == scene_->truth.facets);
    EXPECT_TRUE(initial.vertices == scene_->initial.vertices && initial.facets == scene_->initial.facets);
    // Nothing but the scene: no temporary files left behind.
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 6 + 3);
}

TEST_F(SynthSceneTest, PixelRaysMeetTheirPixelsAndThePhotographShowsWhatTheyHit) {
    // The ray of pixel (x, y) and the projection of the point it hits meet at
    // (x, y) exactly: no half-pixel offset, same axes as P = K[R|t]. Where the
    // ray hits the truth the photograph shows the object (any of the
    // supersamples on it gives a grey above 0); where it misses, only pixels
    // at the silhouette may.
    MeshRayCaster caster;
    buildRayCaster(caster, scene_->truth);
    for (size_t i = 0; i < scene_->cameras.size(); ++i) {
        const mycamera& cam = scene_->cameras[i];
        double C[3];
        cameraCentre(cam, C);
        int hits = 0, dark = 0, misses = 0, lit = 0;
        for (int y = 0; y < scene_->options.height; ++y)
            for (int x = 0; x < scene_->options.width; ++x) {
                double dir[3], u, v;
                pixelRay(cam, x, y, dir);
                const RayHit hit = castRay(caster, C, dir);
                const bool object = scene_->images[i].at<uint8_t>(y, x) > 0;
                if (!hit.hit) {
                    ++misses, lit += object;
                    continue;
                }
                ++hits, dark += !object;
                const double X[3] = {C[0] + hit.distance * dir[0], C[1] + hit.distance * dir[1],
                                     C[2] + hit.distance * dir[2]};
                ASSERT_TRUE(projectPoint(cam, X, u, v));
                ASSERT_LT(std::max(std::abs(u - x), std::abs(v - y)), 1e-6) << "view " << i << ", " << x << " " << y;
            }
        EXPECT_EQ(dark, 0) << "view " << i;
        EXPECT_LT(lit, misses / 100) << "view " << i;
        EXPECT_GT(hits, 200 * 150 / 10) << "view " << i;
    }
}

TEST_F(SynthSceneTest, PhotographsAreTexturedAcrossTheObjectWhichStaysClearOfTheBorder) {
    const int margin = scene_->options.marginPixels;
    ASSERT_GE(margin, 20);
    for (size_t i = 0; i < scene_->images.size(); ++i) {
        const cv::Mat& image = scene_->images[i];
        cv::Mat object, inner, f, localMean, localSquare;
        cv::compare(image, 0, object, cv::CMP_GT);
        const cv::Rect box = cv::boundingRect(object);
        EXPECT_TRUE(box.x >= margin && box.y >= margin && box.br().x <= image.cols - margin &&
                    box.br().y <= image.rows - margin) << "view " << i;
        // ... and fills a good part of the frame.
        EXPECT_GT(box.height, (image.rows - 2 * margin) * 3 / 4) << "view " << i;
        // The initial mesh keeps the margin too.
        for (size_t k = 0; k < scene_->initial.vertices.size(); k += 3) {
            const double X[3] = {scene_->initial.vertices[k], scene_->initial.vertices[k + 1],
                                 scene_->initial.vertices[k + 2]};
            double u, v;
            ASSERT_TRUE(projectPoint(scene_->cameras[i], X, u, v));
            ASSERT_TRUE(u >= margin - 1e-6 && u <= image.cols - 1 - margin + 1e-6) << "view " << i;
            ASSERT_TRUE(v >= margin - 1e-6 && v <= image.rows - 1 - margin + 1e-6) << "view " << i;
        }
        cv::Scalar mean, deviation;
        cv::meanStdDev(image, mean, deviation, object);
        EXPECT_GT(deviation[0], 20.0) << "view " << i;
        // No flat patches: the grey values in a 7x7 window vary around every
        // inner object pixel, which windowed correlation needs.
        cv::erode(object, inner, cv::Mat::ones(9, 9, CV_8UC1));
        image.convertTo(f, CV_64F);
        cv::blur(f, localMean, cv::Size(7, 7));
        cv::blur(f.mul(f), localSquare, cv::Size(7, 7));
        const cv::Mat flat = (localSquare - localMean.mul(localMean) < 2.0 * 2.0) & inner;
        EXPECT_LT(cv::countNonZero(flat), cv::countNonZero(inner) / 50) << "view " << i;
    }
}

TEST_F(SynthSceneTest, MeshesAreClosedAndOutwardAndTheInitialOneLiesNearTheTruth) {
    expectClosedAndOutward(scene_->truth);
    expectClosedAndOutward(scene_->initial);
    EXPECT_EQ(scene_->truth.num_f, 20 << 10);   // level 5
    EXPECT_EQ(scene_->initial.num_f, 20 << 6);  // level 3
    EXPECT_EQ(scene_->initial.vertex_records.size(), size_t(scene_->initial.num_v));
    tessaline::compare::MeshComparison result;
    std::string error;
    ASSERT_TRUE(tessaline::compare::compareMeshes(scene_->truth, scene_->initial, 20000, result, error)) << error;
    const double d = result.diagonal;
    EXPECT_NEAR(d, scene_->truthDiagonal, 1e-6 * d);
    // Within a few percent of the diagonal, as a coarse reconstruction ...
    EXPECT_LT(result.accuracy.p90, 0.04 * d);
    EXPECT_LT(result.completeness.p90, 0.04 * d);
    // ... but far enough off for refinement to have work to do.
    EXPECT_GT(result.accuracy.mean, 0.005 * d);
}

TEST_F(SynthSceneTest, NeighboursAreTheNearestViewsAroundTheRing) {
    // Six views evenly around one ring: the two beside a view come first, then
    // the two after those, then the one opposite.
    for (int i = 0; i < 6; ++i) {
        SCOPED_TRACE("view " + std::to_string(i));
        const std::vector<int>& l = scene_->neighbourLists[size_t(i)];
        ASSERT_EQ(l.size(), 5u);
        EXPECT_EQ(std::set<int>(l.begin(), l.begin() + 2), (std::set<int>{(i + 1) % 6, (i + 5) % 6}));
        EXPECT_EQ(std::set<int>(l.begin() + 2, l.begin() + 4), (std::set<int>{(i + 2) % 6, (i + 4) % 6}));
        EXPECT_EQ(l[4], (i + 3) % 6);
    }
}

TEST(SynthSceneGeneration, AnotherSeedGivesAnotherObjectOnTwoRings) {
    SynthOptions o;
    o.views = 3, o.width = 96, o.height = 72, o.truthLevel = 3, o.rings = 2;
    SynthScene a, b;
    std::string error;
    ASSERT_TRUE(makeSynthScene(o, a, error)) << error;
    o.seed += 1;
    ASSERT_TRUE(makeSynthScene(o, b, error)) << error;
    EXPECT_NE(a.truth.vertices, b.truth.vertices);
    EXPECT_GT(cv::norm(a.images[0], b.images[0], cv::NORM_INF), 0.0);
    // The rings alternate: above the object's centre, then below it.
    double C0[3], C1[3];
    cameraCentre(a.cameras[0], C0), cameraCentre(a.cameras[1], C1);
    EXPECT_TRUE(C0[2] > a.centre[2] && C1[2] < a.centre[2]);
}

// A folder that cannot be made fails the run with status 1: the command line
// tests run that through the program itself.
TEST(SynthCommand, RefusesUnusableOptionsWithStatusTwoAndAnErrorLine) {
    const scene_test::TempFolder dir;
    const std::string out = dir.path("out");
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{out, "--views", "1"}, "--views must be between 2 and 1000"},
        {{out, "--width", "20000"}, "--width and --height must be between 32 and 16384"},
        {{out, "--width", "40", "--height", "40"}, "--margin 20 leaves less than 16 pixels for the object"},
        {{out, "--margin", "120"}, "--margin 120 leaves less than 16 pixels for the object"},
        {{out, "--detail", "-1"}, "--detail must be between 0 and 5"},
        {{out, "--detail", "nan"}, "--detail must be between 0 and 5"},
        {{out, "--rings", "3"}, "--rings must be 1 or 2"},
        {{out, "--distance", "1"}, "--distance must be between 1.5 and 100"},
        {{out, "--truth-level", "9"}, "--truth-level must be between 1 and 8"},
        {{out, "--initial-offset", "0.3"}, "--initial-offset must be between 0 and 0.2"},
        {{out, "--supersample", "9"}, "--supersample must be between 1 and 8"}};
    for (const auto& [args, message] : cases) {
        std::string printed;
        EXPECT_EQ(runSynth(args, printed), 2) << message;
        EXPECT_EQ(printed.rfind("Error: ", 0), 0u) << printed;
        EXPECT_NE(printed.find(message), std::string::npos) << printed;
    }
    EXPECT_FALSE(fs::exists(out));
}

}  // namespace
