// The command line: a complete run writes the scene and a summary; bad
// arguments and unwritable destinations end with an "Error: " line and a
// non-zero status.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "SynthScene.h"

namespace fs = std::filesystem;

namespace {

struct CommandRun {
    int status;
    std::string out;
};

CommandRun runSynth(std::vector<std::string> args) {
    args.insert(args.begin(), "tessaline_synth");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    testing::internal::CaptureStdout();
    const int status = tessaline::synth::runSynthCommand(int(argv.size()), argv.data());
    return {status, testing::internal::GetCapturedStdout()};
}

fs::path scratch(const std::string& name) {
    const fs::path dir = fs::temp_directory_path() / ("tessaline_synthcli_" + std::to_string(::getpid()) + "_" + name);
    fs::remove_all(dir);
    return dir;
}

TEST(SynthCommand, WritesTheSceneIntoANewFolder) {
    const fs::path dir = scratch("run") / "nested";
    const CommandRun run = runSynth({dir.string(), "--views", "3", "--width", "96", "--height", "72", "--truth-level", "3"});
    ASSERT_EQ(run.status, 0) << run.out;
    EXPECT_NE(run.out.find("Synthetic scene written to"), std::string::npos);
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"initial.ply", "scene.sfm", "truth.ply", "view_000.png",
                                               "view_001.png", "view_002.png"}));
    std::ifstream sfm(dir / "scene.sfm");
    std::string count, firstImage;
    sfm >> count >> firstImage;
    EXPECT_EQ(count + " " + firstImage, "3 view_000.png");
    fs::remove_all(dir.parent_path());
}

TEST(SynthCommand, RefusesBadArgumentsAndUnmakeableFoldersWithAnErrorLine) {
    const fs::path dir = scratch("bad");
    fs::create_directories(dir);
    std::ofstream(dir / "plain") << "not a folder";
    const std::string out = (dir / "out").string();
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{}, {out, "--views", "1"}, {out, "--views", "many"},
          {out, "--width", "40", "--height", "40"}, {out, "--unknown"}, {out, "--detail", "-1"},
          {(dir / "plain").string(), "--views", "2", "--width", "64", "--height", "64", "--truth-level", "2"}}) {
        const CommandRun run = runSynth(args);
        EXPECT_NE(run.status, 0);
        EXPECT_EQ(run.out.rfind("Error: ", 0), 0u) << run.out;
    }
    EXPECT_FALSE(fs::exists(out));
    fs::remove_all(dir);
}

}  // namespace
