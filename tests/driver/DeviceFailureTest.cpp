// A device call that does not complete stops the level loop: the
// optimisation's status reaches refineMeshAtLevel's result, a refused render
// reaches runLevels before any refinement, and the refined mesh is never
// written. Refusals need no GPU: the device module refuses a mesh whose
// vertex table is missing or whose count is negative, on every backend.
#include <gtest/gtest.h>

#include <string>

#include "../mesh/MeshTestSupport.h"
#include "DriverTestSupport.h"
#include "refineMeshAtLevel.h"
#include "runFlow.h"

namespace {

using tessaline::test::isRefusal;
using tessaline::test::printedBy;

SfmScene twoCameraScene() { return driver_test::twoCameraScene(200, 200, 64, 48); }

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

TEST(DeviceFailure, RefusedOptimisationMakesRefineMeshAtLevelFail) {
    SfmScene scene = twoCameraScene();
    for (mycamera& cam : scene.cameras) scaleCameraToLevel(cam, 1.0);
    TriMesh m = meshWithoutCoordinates();
    bool ok = true;
    const std::string printed = printedBy([&] {
        ok = refineMeshAtLevel(m, cpuDevice(), scene.cameras, scene.images, scene.neighbourLists,
                               LevelSettings{3, true, 2});
    });
    EXPECT_FALSE(ok);
    EXPECT_TRUE(isRefusal(printed, "")) << "the device's own line and nothing else: " << printed;
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
        EXPECT_TRUE(isRefusal(printed, "")) << "the first refused render ends the loop: " << printed;
    }
}

TEST(DeviceFailure, CompleteLevelLoopSucceedsOnTheSameScene) {
    // The scene itself is usable: with a real mesh the loop runs to its end.
    const SfmScene scene = twoCameraScene();
    TriMesh m = meshtest::makeMesh({-0.5f, -0.5f, 0, 0.5f, -0.5f, 0, 0.5f, 0.5f, 0, -0.5f, 0.5f, 0},
                                   {0, 2, 1, 0, 3, 2});
    bool ok = false;
    const std::string printed = printedBy([&] { ok = runLevels(m, scene, 2, cpuDevice()); });
    EXPECT_TRUE(ok) << printed;
    EXPECT_NE(printed.find("mesh refining at level 2\n"), std::string::npos) << printed;
    EXPECT_EQ(printed.find("Error: "), std::string::npos) << printed;
}

}  // namespace
