// The photo-consistency measure: it ranks the true surface above meshes off
// it, gives an identical camera pair almost perfect agreement, compares
// exactly the refinement's pairs, counts nothing where no pair sees the
// mesh, and its command reads the scene from the scene file's folder.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "../../scene/SceneTestSupport.h"
#include "PhotoConsistency.h"
#include "SynthScene.h"

namespace fs = std::filesystem;
using namespace tessaline::photo;

namespace {

// Four views of 160 x 120 around a synthetic object; built once.
class PhotoConsistencyTest : public testing::Test {
   protected:
    static void SetUpTestSuite() {
        tessaline::synth::SynthOptions o;
        o.views = 4, o.width = 160, o.height = 120, o.truthLevel = 4, o.supersample = 1;
        synth_ = new tessaline::synth::SynthScene;
        std::string error;
        ASSERT_TRUE(makeSynthScene(o, *synth_, error)) << error;
        scene_ = new SfmScene;
        scene_->images = synth_->images;
        scene_->cameras = synth_->cameras;
        scene_->neighbourLists = synth_->neighbourLists;
    }
    static void TearDownTestSuite() {
        delete synth_;
        delete scene_;
    }
    static PhotoConsistency measure(const SfmScene& scene, const TriMesh& mesh, int neighbours = 6) {
        PhotoConsistency result;
        std::string error;
        EXPECT_TRUE(measurePhotoConsistency(cpuDevice(), scene, mesh, neighbours, result, error)) << error;
        return result;
    }
    static TriMesh shifted(const TriMesh& mesh, int axis, float by) {
        TriMesh m = mesh;
        for (size_t i = size_t(axis); i < m.vertices.size(); i += 3) m.vertices[i] += by;
        return m;
    }
    static tessaline::synth::SynthScene* synth_;
    static SfmScene* scene_;
};
tessaline::synth::SynthScene* PhotoConsistencyTest::synth_ = nullptr;
SfmScene* PhotoConsistencyTest::scene_ = nullptr;

TEST_F(PhotoConsistencyTest, TheTrueSurfaceScoresHighAndAboveMeshesOffIt) {
    const PhotoConsistency truth = measure(*scene_, synth_->truth);
    EXPECT_EQ(truth.pairs.size(), 4u * 3u);
    EXPECT_GT(truth.validPixels, 5000);
    EXPECT_GT(truth.meanNcc, 0.8);
    const float step = float(0.01 * synth_->truthDiagonal);
    for (int axis = 0; axis < 3; ++axis)
        EXPECT_LT(measure(*scene_, shifted(synth_->truth, axis, step)).meanNcc, truth.meanNcc - 0.1) << "axis " << axis;
    EXPECT_LT(measure(*scene_, synth_->initial).meanNcc, truth.meanNcc - 0.3);
    // The same input gives the same figures.
    const PhotoConsistency again = measure(*scene_, synth_->truth);
    EXPECT_EQ(again.meanNcc, truth.meanNcc);
    EXPECT_EQ(again.validPixels, truth.validPixels);
}

TEST_F(PhotoConsistencyTest, AnIdenticalPairAgreesAlmostPerfectly) {
    // Camera 1 is camera 0 with its photograph: the warp must give back the
    // photograph, and the correlation is 1 but for the +1 on each window
    // variance.
    SfmScene twin;
    twin.cameras = {scene_->cameras[0], scene_->cameras[0]};
    twin.images = {scene_->images[0], scene_->images[0]};
    twin.neighbourLists = {{1}, {0}};
    const PhotoConsistency r = measure(twin, synth_->truth);
    ASSERT_EQ(r.pairs.size(), 2u);
    EXPECT_GT(r.validPixels, 2 * 3000);
    EXPECT_GT(r.meanNcc, 0.97);
    EXPECT_EQ(r.pairs[0].validPixels, r.pairs[1].validPixels);
}

TEST_F(PhotoConsistencyTest, PairsAreTheFirstNeighboursOfEachListOnceWithoutTheCameraItself) {
    SfmScene s;
    s.cameras.resize(4);
    s.neighbourLists = {{3, 3, 0, 1}, {0, 2, 3}, {}, {2, 1}};
    EXPECT_EQ(comparedPairs(s, 6),
              (std::vector<std::pair<int, int>>{{0, 1}, {0, 3}, {1, 0}, {1, 2}, {1, 3}, {3, 1}, {3, 2}}));
    EXPECT_EQ(comparedPairs(s, 2), (std::vector<std::pair<int, int>>{{0, 3}, {1, 0}, {1, 2}, {3, 1}, {3, 2}}));
    // The scene's own pairs, with one neighbour each.
    EXPECT_EQ(measure(*scene_, synth_->truth, 1).pairs.size(), 4u);
}

TEST_F(PhotoConsistencyTest, AMeshNoPairSeesCountsNothing) {
    const PhotoConsistency r = measure(*scene_, shifted(synth_->truth, 2, float(-20.0 * synth_->truthDiagonal)));
    EXPECT_EQ(r.validPixels, 0);
    EXPECT_EQ(r.meanNcc, 0.0);
    EXPECT_NE(photoConsistencyJson(r, "s.sfm", "m.ply", 6).find("\"valid_pixels\": 0, \"mean_ncc\": null}"),
              std::string::npos);
}

TEST_F(PhotoConsistencyTest, CommandReadsTheSceneFromItsFolderAndReportsAsJson) {
    const scene_test::TempFolder dir;
    std::string error, printed;
    ASSERT_TRUE(writeSynthScene(*synth_, dir.path("scene"), error)) << error;
    const std::string sfm = dir.path("scene/scene.sfm"), truth = dir.path("scene/truth.ply");
    ASSERT_EQ(scene_test::runMain(runPhotoConsistencyCommand, "tessaline_photoconsistency", {sfm, truth, "--json"},
                                  printed),
              0) << printed;
    const PhotoConsistency expected = measure(*scene_, synth_->truth);
    const std::string last = printed.substr(printed.rfind('\n', printed.size() - 2) + 1);
    EXPECT_EQ(last, photoConsistencyJson(expected, sfm, truth, 6) + "\n");
    EXPECT_NE(printed.find("pairs: 12, valid pixels: " + std::to_string(expected.validPixels)), std::string::npos);

    EXPECT_EQ(scene_test::runMain(runPhotoConsistencyCommand, "p", {sfm, dir.path("none.ply")}, printed), 1);
    EXPECT_NE(printed.find("Error: cannot read the mesh"), std::string::npos) << printed;
    EXPECT_EQ(scene_test::runMain(runPhotoConsistencyCommand, "p", {dir.path("none.sfm"), truth}, printed), 1);
    EXPECT_NE(printed.find("Error: cannot read the scene"), std::string::npos) << printed;
    EXPECT_EQ(scene_test::runMain(runPhotoConsistencyCommand, "p", {sfm, truth, "--neighbours", "0"}, printed), 2);
    EXPECT_EQ(printed.rfind("Error: ", 0), 0u) << printed;
}

}  // namespace
