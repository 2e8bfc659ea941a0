// A device call that does not complete stops the level loop: the
// optimisation's status reaches refineMeshAtLevel's result, a refused render
// reaches runLevels before any refinement, and the refined mesh is never
// written. Refusals need no GPU: the device module refuses a mesh whose
// vertex table is missing or whose count is negative, on every backend.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "../scene/SceneTestSupport.h"
#include "ProgramCUDA.h"
#include "SfmScene.h"
#include "TriMesh.h"
#include "refineMeshAtLevel.h"
#include "runFlow.h"

namespace {

using scene_test::printedBy;

// Two cameras 5 units in front of the origin, 128 x 96 random images, each
// listing the other.
SfmScene twoCameraScene() {
    SfmScene scene;
    for (int i = 0; i < 2; ++i) {
        mycamera cam;
        const double R[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
        std::copy(R, R + 9, cam.R);
        cam.t[0] = 0.1 * i, cam.t[1] = 0, cam.t[2] = 5;
        cam.fx = cam.fy = 200, cam.cx = 64, cam.cy = 48;
        scene.cameras.push_back(cam);
        scene.images.emplace_back(96, 128, CV_8UC1);
        cv::randu(scene.images.back(), 0, 256);
    }
    scene.neighbourLists = {{1}, {0}};
    return scene;
}

// A mesh of one vertex whose coordinates are missing: every device call
// refuses it, while the host's own tables (connectivity, one-rings) are
// well formed.
TriMesh meshWithoutCoordinates() {
    TriMesh m;
    m.num_v = 1;
    m.vertex_attributes.assign(3, 0);
    m.vertex_records.resize(1);
    return m;
}

size_t lineCount(const std::string& s) { return size_t(std::count(s.begin(), s.end(), '\n')); }

TEST(DeviceFailure, RefusedOptimisationMakesRefineMeshAtLevelFail) {
    SfmScene scene = twoCameraScene();
    for (mycamera& cam : scene.cameras) scaleCameraToLevel(cam, 1.0);
    TriMesh m = meshWithoutCoordinates();
    bool ok = true;
    const std::string printed = printedBy([&] {
        ok = refineMeshAtLevel(m, cpuDevice(), scene.cameras, scene.images, scene.neighbourLists, 3, true);
    });
    EXPECT_FALSE(ok);
    // The device's own line and nothing else.
    EXPECT_EQ(printed.rfind("Error: ", 0), 0u) << printed;
    EXPECT_EQ(lineCount(printed), 1u) << printed;
    EXPECT_TRUE(m.vertices.empty());
}

TEST(DeviceFailure, RefusedRenderStopsTheLevelLoopBeforeAnyRefinement) {
    const SfmScene scene = twoCameraScene();
    for (const int levelOfDetails : {0, 2}) {
        SCOPED_TRACE(levelOfDetails);
        TriMesh m = meshWithoutCoordinates();
        bool ok = true;
        const std::string printed = printedBy([&] { ok = runLevels(m, scene, levelOfDetails, cpuDevice()); });
        EXPECT_FALSE(ok);
        EXPECT_EQ(printed.rfind("Error: ", 0), 0u) << printed;
        EXPECT_EQ(lineCount(printed), 1u) << "the first refused render ends the loop: " << printed;
        EXPECT_EQ(printed.find("mesh refining"), std::string::npos) << printed;
    }
}

TEST(DeviceFailure, CompleteLevelLoopSucceedsOnTheSameScene) {
    // The scene itself is usable: with a real mesh the loop runs to its end.
    const SfmScene scene = twoCameraScene();
    TriMesh m;
    m.num_v = 4;
    m.num_f = 2;
    m.vertices = {-0.5f, -0.5f, 0, 0.5f, -0.5f, 0, 0.5f, 0.5f, 0, -0.5f, 0.5f, 0};
    m.facets = {0, 2, 1, 0, 3, 2};
    m.vertex_attributes.assign(12, 0);
    m.vertex_records.resize(4);
    bool ok = false;
    const std::string printed = printedBy([&] { ok = runLevels(m, scene, 2, cpuDevice()); });
    EXPECT_TRUE(ok) << printed;
    EXPECT_NE(printed.find("mesh refining at level 2\n"), std::string::npos) << printed;
    EXPECT_EQ(printed.find("Error: "), std::string::npos) << printed;
}

}  // namespace
