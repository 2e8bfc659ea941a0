// The synthetic scene generator: the written scene reads back through the
// tool's own reader, cameras, meshes and photographs agree with each other,
// the photographs carry texture, and the meshes have the shape the tool needs.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "MeshCompare.h"
#include "MeshRayCaster.h"
#include "SfmScene.h"
#include "SynthScene.h"
#include "mycamera.h"

namespace fs = std::filesystem;
using namespace tessaline::synth;

namespace {

fs::path freshFolder(const std::string& name) {
    const fs::path dir = fs::temp_directory_path() / ("tessaline_synth_" + std::to_string(::getpid()) + "_" + name);
    fs::remove_all(dir);
    fs::create_directories(dir);
    return dir;
}

SynthOptions smallOptions() {
    SynthOptions o;
    o.views = 6;
    o.width = 200;
    o.height = 150;
    o.truthLevel = 5;
    return o;
}

class SynthSceneTest : public testing::Test {
   protected:
    static void SetUpTestSuite() {
        scene_ = new SynthScene;
        std::string error;
        ASSERT_TRUE(makeSynthScene(smallOptions(), *scene_, error)) << error;
    }
    static void TearDownTestSuite() {
        delete scene_;
        scene_ = nullptr;
    }
    static SynthScene* scene_;
};
SynthScene* SynthSceneTest::scene_ = nullptr;

// Pixels covered by the facets, projected with the project's camera
// operation and filled with a sixteenth of a pixel precision.
cv::Mat projectedCoverage(const TriMesh& mesh, const mycamera& cam, int width, int height) {
    cv::Mat covered(height, width, CV_8UC1, cv::Scalar(0));
    for (int32_t f = 0; f < mesh.num_f; ++f) {
        cv::Point corners[3];
        for (int k = 0; k < 3; ++k) {
            const float* p = &mesh.vertices[3 * size_t(mesh.facets[3 * f + k])];
            const double X[3] = {p[0], p[1], p[2]};
            double u, v;
            if (!projectPoint(cam, X, u, v)) return cv::Mat();
            corners[k] = cv::Point(int(std::lround(u * 16)), int(std::lround(v * 16)));
        }
        cv::fillConvexPoly(covered, corners, 3, cv::Scalar(255), cv::LINE_8, 4);
    }
    return covered;
}

// Each undirected edge must be used exactly once in each direction: then the
// mesh is closed, manifold at its edges, and consistently wound.
void expectClosedAndConsistent(const TriMesh& mesh) {
    std::map<std::pair<int32_t, int32_t>, int> directed;
    for (int32_t f = 0; f < mesh.num_f; ++f)
        for (int k = 0; k < 3; ++k) ++directed[{mesh.facets[3 * f + k], mesh.facets[3 * f + (k + 1) % 3]}];
    for (const auto& [edge, count] : directed) {
        ASSERT_EQ(count, 1) << "edge " << edge.first << "-" << edge.second << " used twice in one direction";
        const auto opposite = directed.find({edge.second, edge.first});
        ASSERT_TRUE(opposite != directed.end()) << "edge " << edge.first << "-" << edge.second << " is open";
    }
    // Outward winding: the signed volume is positive.
    double volume = 0.0;
    for (int32_t f = 0; f < mesh.num_f; ++f) {
        const float* a = &mesh.vertices[3 * size_t(mesh.facets[3 * f])];
        const float* b = &mesh.vertices[3 * size_t(mesh.facets[3 * f + 1])];
        const float* c = &mesh.vertices[3 * size_t(mesh.facets[3 * f + 2])];
        volume += (double(a[0]) * (double(b[1]) * c[2] - double(b[2]) * c[1]) +
                   double(a[1]) * (double(b[2]) * c[0] - double(b[0]) * c[2]) +
                   double(a[2]) * (double(b[0]) * c[1] - double(b[1]) * c[0])) / 6.0;
    }
    EXPECT_GT(volume, 0.0);
}

TEST_F(SynthSceneTest, WrittenSceneReadsBackExactlyThroughTheSceneReader) {
    const fs::path dir = freshFolder("readback");
    std::string error;
    ASSERT_TRUE(writeSynthScene(*scene_, dir.string(), error)) << error;
    // Image names are relative to the scene folder, and the reader takes them
    // relative to the working directory, as the tool is run from there.
    const fs::path before = fs::current_path();
    fs::current_path(dir);
    SfmScene loaded;
    testing::internal::CaptureStdout();
    const bool ok = loadSfmScene(loaded, "scene.sfm");
    testing::internal::GetCapturedStdout();
    fs::current_path(before);
    ASSERT_TRUE(ok);

    ASSERT_EQ(loaded.cameras.size(), scene_->cameras.size());
    for (size_t i = 0; i < loaded.cameras.size(); ++i) {
        const mycamera &a = loaded.cameras[i], &b = scene_->cameras[i];
        EXPECT_TRUE(std::equal(a.R, a.R + 9, b.R) && std::equal(a.t, a.t + 3, b.t)) << "camera " << i;
        EXPECT_TRUE(a.fx == b.fx && a.fy == b.fy && a.cx == b.cx && a.cy == b.cy) << "camera " << i;
        EXPECT_EQ(cv::norm(loaded.images[i], scene_->images[i], cv::NORM_INF), 0.0) << "image " << i;
    }
    EXPECT_EQ(loaded.neighbourLists, scene_->neighbourLists);
    for (int k = 0; k < 6; ++k) EXPECT_EQ(loaded.boundingBox[k], scene_->boundingBox[k]);
    for (const char* name : {"truth.ply", "initial.ply"}) EXPECT_TRUE(fs::is_regular_file(dir / name));
    // Nothing but the scene: no temporary files left behind.
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 6 + 3);
    fs::remove_all(dir);
}

TEST_F(SynthSceneTest, RayHitsProjectBackOntoTheirPixelCentres) {
    // The ray of pixel (x, y) and the projection of the point it hits must
    // meet at (x, y) exactly: no half-pixel offset, same axes as P = K[R|t].
    MeshRayCaster caster;
    buildRayCaster(caster, scene_->truth);
    int hits = 0;
    for (const mycamera& cam : scene_->cameras) {
        double C[3];
        cameraCentre(cam, C);
        for (int y = 0; y < scene_->options.height; y += 7)
            for (int x = 0; x < scene_->options.width; x += 5) {
                double dir[3];
                pixelRay(cam, x, y, dir);
                const RayHit hit = castRay(caster, C, dir);
                if (!hit.hit) continue;
                ++hits;
                const double X[3] = {C[0] + hit.distance * dir[0], C[1] + hit.distance * dir[1],
                                     C[2] + hit.distance * dir[2]};
                double u, v;
                ASSERT_TRUE(projectPoint(cam, X, u, v));
                EXPECT_NEAR(u, x, 1e-6);
                EXPECT_NEAR(v, y, 1e-6);
            }
    }
    EXPECT_GT(hits, 1000);
}

TEST_F(SynthSceneTest, ObjectPixelsAreWhereTheTruthProjects) {
    const int W = scene_->options.width, H = scene_->options.height;
    for (size_t i = 0; i < scene_->cameras.size(); ++i) {
        const cv::Mat covered = projectedCoverage(scene_->truth, scene_->cameras[i], W, H);
        ASSERT_FALSE(covered.empty());
        // Away from the silhouette (a 3x3 neighbourhood all in or all out) the
        // photograph must agree with the projected facets; at the silhouette
        // the supersampled edge may go either way.
        cv::Mat inside, outside;
        cv::erode(covered, inside, cv::Mat::ones(3, 3, CV_8UC1));
        cv::dilate(covered, outside, cv::Mat::ones(3, 3, CV_8UC1));
        const cv::Mat& image = scene_->images[i];
        int wrong = 0, interior = 0;
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x) {
                const bool object = image.at<uint8_t>(y, x) > 0;
                if (inside.at<uint8_t>(y, x)) {
                    ++interior;
                    wrong += !object;
                } else if (!outside.at<uint8_t>(y, x)) {
                    wrong += object;
                }
            }
        EXPECT_EQ(wrong, 0) << "view " << i;
        EXPECT_GT(interior, W * H / 10) << "view " << i;
    }
}

TEST_F(SynthSceneTest, PhotographsAreTexturedAcrossTheObject) {
    for (size_t i = 0; i < scene_->images.size(); ++i) {
        const cv::Mat& image = scene_->images[i];
        cv::Mat object, inner;
        cv::compare(image, 0, object, cv::CMP_GT);
        cv::erode(object, inner, cv::Mat::ones(9, 9, CV_8UC1));
        cv::Scalar mean, deviation;
        cv::meanStdDev(image, mean, deviation, object);
        EXPECT_GT(deviation[0], 20.0) << "view " << i;
        // No flat patches: the grey values in a 7x7 window vary around every
        // inner object pixel, which windowed correlation needs.
        cv::Mat f, localMean, localSquare;
        image.convertTo(f, CV_64F);
        cv::blur(f, localMean, cv::Size(7, 7));
        cv::blur(f.mul(f), localSquare, cv::Size(7, 7));
        int flat = 0, total = 0;
        for (int y = 0; y < image.rows; ++y)
            for (int x = 0; x < image.cols; ++x) {
                if (!inner.at<uint8_t>(y, x)) continue;
                ++total;
                const double m = localMean.at<double>(y, x);
                flat += localSquare.at<double>(y, x) - m * m < 2.0 * 2.0;
            }
        EXPECT_LT(flat, total / 50) << "view " << i << ": " << flat << " of " << total << " windows are flat";
    }
}

TEST_F(SynthSceneTest, ObjectStaysClearOfTheImageBorder) {
    const int margin = scene_->options.marginPixels;
    ASSERT_GE(margin, 20);
    for (size_t i = 0; i < scene_->images.size(); ++i) {
        const cv::Mat& image = scene_->images[i];
        cv::Mat object;
        cv::compare(image, 0, object, cv::CMP_GT);
        const cv::Rect box = cv::boundingRect(object);
        EXPECT_GE(box.x, margin) << "view " << i;
        EXPECT_GE(box.y, margin) << "view " << i;
        EXPECT_LE(box.x + box.width - 1, image.cols - 1 - margin) << "view " << i;
        EXPECT_LE(box.y + box.height - 1, image.rows - 1 - margin) << "view " << i;
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
    }
}

TEST_F(SynthSceneTest, MeshesAreClosedAndWoundOutwards) {
    expectClosedAndConsistent(scene_->truth);
    expectClosedAndConsistent(scene_->initial);
    EXPECT_GE(scene_->initial.num_f, 200);
    EXPECT_LE(scene_->initial.num_f, 5000);
    EXPECT_GE(scene_->truth.num_f, 20000);
    EXPECT_EQ(scene_->initial.vertex_records.size(), size_t(scene_->initial.num_v));
}

TEST_F(SynthSceneTest, InitialMeshLiesNearTheTruthButNotOnIt) {
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

TEST_F(SynthSceneTest, NeighboursAreTheClosestViewingDirections) {
    const auto& cams = scene_->cameras;
    const size_t n = cams.size();
    ASSERT_EQ(scene_->neighbourLists.size(), n);
    for (size_t i = 0; i < n; ++i) {
        // The expected list: the other views by decreasing cosine of the angle between their axes.
        std::vector<std::pair<double, int>> order;
        for (size_t j = 0; j < n; ++j)
            if (j != i) order.push_back({-(cams[i].R[6] * cams[j].R[6] + cams[i].R[7] * cams[j].R[7] + cams[i].R[8] * cams[j].R[8]), int(j)});
        std::stable_sort(order.begin(), order.end(), [](auto& a, auto& b) { return a.first < b.first; });
        std::vector<int> want;
        for (size_t k = 0; k < std::min<size_t>(6, n - 1); ++k) want.push_back(order[k].second);
        EXPECT_EQ(scene_->neighbourLists[i], want) << "view " << i;
    }
    for (const auto& list : nearestViewNeighbours({cams.begin(), cams.begin() + 3})) EXPECT_EQ(list.size(), 2u);
}

TEST(SynthSceneGeneration, SameSeedGivesTheSameSceneOtherSeedsAnother) {
    SynthOptions o;
    o.views = 3;
    o.width = 96;
    o.height = 72;
    o.truthLevel = 3;
    o.rings = 2;
    SynthScene a, b, c;
    std::string error;
    ASSERT_TRUE(makeSynthScene(o, a, error)) << error;
    ASSERT_TRUE(makeSynthScene(o, b, error)) << error;
    o.seed += 1;
    ASSERT_TRUE(makeSynthScene(o, c, error)) << error;
    EXPECT_EQ(sfmText(a), sfmText(b));
    EXPECT_EQ(a.truth.vertices, b.truth.vertices);
    EXPECT_EQ(a.initial.vertices, b.initial.vertices);
    for (size_t i = 0; i < a.images.size(); ++i) EXPECT_EQ(cv::norm(a.images[i], b.images[i], cv::NORM_INF), 0.0);
    EXPECT_NE(a.truth.vertices, c.truth.vertices);
    EXPECT_GT(cv::norm(a.images[0], c.images[0], cv::NORM_INF), 0.0);
}

TEST(SynthSceneGeneration, RefusesUnusableOptions) {
    auto refused = [](auto change) {
        SynthOptions o;
        change(o);
        SynthScene scene;
        std::string error;
        return !makeSynthScene(o, scene, error) && !error.empty();
    };
    for (auto change : {+[](SynthOptions& o) { o.views = 1; }, +[](SynthOptions& o) { o.width = 0; },
                        +[](SynthOptions& o) { o.marginPixels = 120; }, +[](SynthOptions& o) { o.detail = std::nan(""); },
                        +[](SynthOptions& o) { o.rings = 3; }, +[](SynthOptions& o) { o.truthLevel = 9; },
                        +[](SynthOptions& o) { o.cameraDistance = 1.0; }})
        EXPECT_TRUE(refused(change));
}

}  // namespace
