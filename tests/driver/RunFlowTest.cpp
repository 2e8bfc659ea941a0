// The tool's run from the command line: refusals, failures before the level
// loop, and the order of the lines of a complete run.
#include <gtest/gtest.h>

#include <opencv2/imgcodecs.hpp>

#include "../scene/SceneTestSupport.h"
#include "runFlow.h"

namespace {

struct RunResult {
    int status;
    std::string out;
};

RunResult runTool(const std::vector<std::string>& args) {
    RunResult r;
    r.status = scene_test::runMain([](int argc, char** argv) { return runTessalineRefine(argc, argv); },
                                   "tessaline_refine", args, r.out);
    return r;
}

using RunFlow = scene_test::TempFolderTest;

TEST_F(RunFlow, RefusesBadArgumentsWithStatusZero) {
    const std::string paths = "PathSFM: a.sfm\nPathInitPLY: b.ply\nPathRefinedPLY: c.ply\n";
    const std::string tooLong = " is longer than 1023 characters; use a shorter path\n";
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"a", "b"}, "Please specify the paths of SFM file, initial PLY file and output PLY file... exit\n"},
        {{"a.sfm", "b.ply", "c.ply", "3"}, paths + "Level of Details should be 0, 1 or 2.\n"},
        {{"a.sfm", "b.ply", "c.ply", "-1"}, paths + "Level of Details should be 0, 1 or 2.\n"},
        {{std::string(1024, 'a'), "b.ply", "c.ply"}, "Error: argument 1" + tooLong},
        {{"a.sfm", "b.ply", std::string(1024, 'c')}, "Error: argument 3" + tooLong},
    };
    for (const auto& [args, printed] : cases) {
        SCOPED_TRACE(printed);
        const auto r = runTool(args);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, printed);
    }
}

TEST_F(RunFlow, NonNumericLevelIsZeroAndMissingSceneStopsBeforeTheLoop) {
    const std::string sfm = path("missing.sfm");
    const auto r = runTool({sfm, "b.ply", path("out.ply"), "abc", "extra"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("CUDA_DEIVCE_INDEX 0\nLevel of Details 0\n\nSetting up CUDA device\n"), std::string::npos);
    // The run ends after the scene's lines: the mesh is never read, nothing is written.
    const std::string end = "\nloading " + sfm + "...\n" + sfm + " cannot read\n" +
                            "Error: the scene could not be loaded; nothing was written\n";
    EXPECT_EQ(r.out.substr(r.out.size() - std::min(r.out.size(), end.size())), end);
    EXPECT_EQ(listFolder(), std::vector<std::string>{});
}

TEST_F(RunFlow, CompleteRunPrintsItsLinesInOrderAndWritesTheMesh) {
    // Two cameras looking at a textured square facing them; image paths are
    // absolute so the run does not depend on the working directory.
    cv::Mat img(96, 128, CV_8UC1);
    cv::randu(img, 0, 256);
    std::string sfm = "2\n";
    for (int i = 0; i < 2; ++i) {
        const std::string name = path("img" + std::to_string(i) + ".png");
        ASSERT_TRUE(cv::imwrite(name, img));
        sfm += name + " 1 0 0 0 1 0 0 0 1 " + std::to_string(0.1 * i) + " 0 4 200 200 64 48\n";
    }
    scene_test::writeFile(path("scene.sfm"), sfm + "-1 1 -1 1 -1 1\n0 1 1\n1 1 0\n");
    scene_test::writeFile(path("mesh.ply"),
                          "ply\nformat ascii 1.0\nelement vertex 4\nproperty float x\nproperty float y\n"
                          "property float z\nelement face 2\nproperty list uchar int vertex_indices\nend_header\n"
                          "-0.5 -0.5 0\n0.5 -0.5 0\n0.5 0.5 0\n-0.5 0.5 0\n3 0 2 1\n3 0 3 2\n");
    const std::string out = path("refined.ply");
    const auto r = runTool({path("scene.sfm"), path("mesh.ply"), out, "2"});
    EXPECT_EQ(r.status, 1);
    std::vector<std::string> l;
    std::istringstream in(r.out);
    for (std::string line; std::getline(in, line);) l.push_back(line);
    ASSERT_GT(l.size(), 16u);
    EXPECT_EQ(std::vector<std::string>(l.begin(), l.begin() + 7),
              (std::vector<std::string>{"PathSFM: " + path("scene.sfm"), "PathInitPLY: " + path("mesh.ply"),
                                        "PathRefinedPLY: " + out, "CUDA_DEIVCE_INDEX 2", "Level of Details 2", "",
                                        "Setting up CUDA device"}));
    size_t k = 7;
    while (k < l.size() && l[k].rfind("Device memory total: ", 0) != 0) ++k;
    ASSERT_LT(k + 8, l.size());
    EXPECT_EQ(l[k + 1].rfind("Device memory aviable: ", 0), 0u);
    EXPECT_EQ(std::vector<std::string>(l.begin() + k + 2, l.begin() + k + 9),
              (std::vector<std::string>{"", "loading " + path("scene.sfm") + "...", "2 images have been loaded",
                                        "Bounding Box: -1 1 -1 1 -1 1", "", "reading " + path("mesh.ply"), ""}));
    // Level of detail 2: one refinement, at level 2, and the pass of level 1
    // ends after its subdivision.
    int refinements = 0;
    for (const auto& line : l) refinements += line.rfind("mesh refining at level ", 0) == 0;
    EXPECT_EQ(refinements, 1);
    EXPECT_NE(r.out.find("mesh refining at level 2\n"), std::string::npos);
    EXPECT_EQ(l[l.size() - 2].rfind("Tessaline_refine running time: ", 0), 0u);
    EXPECT_EQ(l.back(), "saving " + out);
    EXPECT_TRUE(std::filesystem::exists(out));
}

}  // namespace
