// The tool's run from the command line: refusals, failures before the level
// loop, and the order of the lines of a complete run.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "runFlow.h"

namespace fs = std::filesystem;

namespace {

struct RunResult {
    int status;
    std::string out;
};

RunResult runTool(std::vector<std::string> args) {
    args.insert(args.begin(), "tessaline_refine");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    testing::internal::CaptureStdout();
    const int status = runTessalineRefine(int(argv.size()), argv.data());
    return {status, testing::internal::GetCapturedStdout()};
}

std::vector<std::string> lines(const std::string& s) {
    std::vector<std::string> v;
    std::istringstream in(s);
    for (std::string l; std::getline(in, l);) v.push_back(l);
    return v;
}

class RunFlow : public testing::Test {
   protected:
    void SetUp() override {
        dir = fs::temp_directory_path() /
              ("tessaline_runflow_" + std::string(testing::UnitTest::GetInstance()->current_test_info()->name()));
        fs::remove_all(dir);
        fs::create_directories(dir);
    }
    void TearDown() override { fs::remove_all(dir); }

    // Two cameras looking at a textured square facing them; image paths are
    // absolute so the run does not depend on the working directory.
    void writeScene() {
        cv::Mat img(96, 128, CV_8UC1);
        cv::randu(img, 0, 256);
        std::ofstream sfm(dir / "scene.sfm");
        sfm << "2\n";
        for (int i = 0; i < 2; ++i) {
            const std::string name = (dir / ("img" + std::to_string(i) + ".png")).string();
            cv::imwrite(name, img);
            sfm << name << " 1 0 0 0 1 0 0 0 1 " << 0.1 * i << " 0 4 200 200 64 48\n";
        }
        sfm << "-1 1 -1 1 -1 1\n0 1 1\n1 1 0\n";
        std::ofstream ply(dir / "mesh.ply");
        ply << "ply\nformat ascii 1.0\nelement vertex 4\nproperty float x\nproperty float y\nproperty float z\n"
               "element face 2\nproperty list uchar int vertex_indices\nend_header\n"
               "-0.5 -0.5 0\n0.5 -0.5 0\n0.5 0.5 0\n-0.5 0.5 0\n3 0 2 1\n3 0 3 2\n";
    }

    fs::path dir;
};

TEST_F(RunFlow, RefusesTooFewArgumentsAndBadLevels) {
    auto r = runTool({"a", "b"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "Please specify the paths of SFM file, initial PLY file and output PLY file... exit\n");

    for (const char* bad : {"3", "-1"}) {
        r = runTool({"a.sfm", "b.ply", "c.ply", bad});
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, "PathSFM: a.sfm\nPathInitPLY: b.ply\nPathRefinedPLY: c.ply\n"
                         "Level of Details should be 0, 1 or 2.\n");
    }
}

TEST_F(RunFlow, RefusesOverlongPaths) {
    const auto r = runTool({std::string(1024, 'a'), "b.ply", "c.ply"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("Error: ", 0), 0u);
}

TEST_F(RunFlow, NonNumericLevelIsZeroAndMissingSceneStopsBeforeTheLoop) {
    const std::string out = (dir / "out.ply").string();
    const auto r = runTool({(dir / "missing.sfm").string(), "b.ply", out, "abc", "extra"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("CUDA_DEIVCE_INDEX 0\nLevel of Details 0\n\nSetting up CUDA device\n"), std::string::npos);
    EXPECT_NE(r.out.find(" cannot read\n"), std::string::npos);
    EXPECT_EQ(r.out.find("reading "), std::string::npos);
    EXPECT_FALSE(fs::exists(out));
}

TEST_F(RunFlow, CompleteRunPrintsItsLinesInOrderAndWritesTheMesh) {
    writeScene();
    const std::string out = (dir / "refined.ply").string();
    const auto r = runTool({(dir / "scene.sfm").string(), (dir / "mesh.ply").string(), out, "2"});
    EXPECT_EQ(r.status, 1);
    const auto l = lines(r.out);
    ASSERT_GT(l.size(), 16u);
    EXPECT_EQ(l[3], "CUDA_DEIVCE_INDEX 2");
    EXPECT_EQ(l[4], "Level of Details 2");
    EXPECT_EQ(l[5], "");
    EXPECT_EQ(l[6], "Setting up CUDA device");
    size_t k = 7;
    while (k < l.size() && l[k].rfind("Device memory total: ", 0) != 0) ++k;
    ASSERT_LT(k + 1, l.size());
    EXPECT_EQ(l[k + 1].rfind("Device memory aviable: ", 0), 0u);
    EXPECT_EQ(l[k + 2], "");
    EXPECT_EQ(l[k + 3].rfind("loading ", 0), 0u);
    EXPECT_EQ(l[k + 4], "2 images have been loaded");
    EXPECT_EQ(l[k + 5], "Bounding Box: -1 1 -1 1 -1 1");
    EXPECT_EQ(l[k + 6], "");
    EXPECT_EQ(l[k + 7].rfind("reading ", 0), 0u);
    EXPECT_EQ(l[k + 8], "");
    // Level of detail 2: one refinement, at level 2, and the pass of level 1
    // ends after its subdivision.
    int refinements = 0;
    for (const auto& line : l) refinements += line.rfind("mesh refining at level ", 0) == 0;
    EXPECT_EQ(refinements, 1);
    EXPECT_NE(r.out.find("mesh refining at level 2\n"), std::string::npos);
    ASSERT_GE(l.size(), 2u);
    EXPECT_EQ(l[l.size() - 2].rfind("Tessaline_refine running time: ", 0), 0u);
    EXPECT_EQ(l.back(), "saving " + out);
    EXPECT_TRUE(fs::exists(out));
}

}  // namespace
