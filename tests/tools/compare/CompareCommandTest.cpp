// The command line: files in, a table or one JSON line out; unreadable or
// unusable meshes end with an "Error: " line and a non-zero status.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "MeshCompare.h"
#include "SynthShape.h"
#include "plyIO.h"

namespace fs = std::filesystem;

namespace {

struct CommandRun {
    int status;
    std::string out;
};

CommandRun runCompare(std::vector<std::string> args) {
    args.insert(args.begin(), "tessaline_compare");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    testing::internal::CaptureStdout();
    const int status = tessaline::compare::runCompareCommand(int(argv.size()), argv.data());
    return {status, testing::internal::GetCapturedStdout()};
}

std::string lastLine(const std::string& text) {
    std::istringstream in(text);
    std::string line, last;
    while (std::getline(in, line))
        if (!line.empty()) last = line;
    return last;
}

class CompareCommand : public testing::Test {
   protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() / ("tessaline_compare_" + std::to_string(::getpid()));
        fs::remove_all(dir_);
        fs::create_directories(dir_);
        TriMesh unit, larger;
        tessaline::synth::makeIcosphere(unit, 3);
        larger = unit;
        for (float& x : larger.vertices) x *= 1.02f;
        testing::internal::CaptureStdout();
        savePly(unit, path("unit.ply"));
        savePly(larger, path("larger.ply"));
        TriMesh noFacets = unit;
        noFacets.num_f = 0;
        noFacets.facets.clear();
        savePly(noFacets, path("points.ply"));
        testing::internal::GetCapturedStdout();
    }
    void TearDown() override { fs::remove_all(dir_); }
    std::string path(const std::string& name) const { return (dir_ / name).string(); }
    fs::path dir_;
};

TEST_F(CompareCommand, PrintsATableOrJsonAsTheLastLineWithFlatKeys) {
    CommandRun run = runCompare({path("unit.ply"), path("larger.ply"), "--samples", "2000"});
    ASSERT_EQ(run.status, 0) << run.out;
    for (const char* word : {"accuracy", "completeness", "2000 samples"}) EXPECT_NE(run.out.find(word), std::string::npos);
    run = runCompare({path("unit.ply"), path("larger.ply"), "--samples", "2000", "--json"});
    ASSERT_EQ(run.status, 0) << run.out;
    const std::string json = lastLine(run.out);
    EXPECT_TRUE(json.front() == '{' && json.back() == '}') << json;
    for (const char* key : {"\"accuracy_mean\": 0.0", "\"accuracy_median\": ", "\"accuracy_p90\": ",
                            "\"accuracy_mean_rel\": ", "\"completeness_mean\": 0.0", "\"completeness_p90_rel\": ",
                            "\"samples\": 2000", "\"diagonal\": "})
        EXPECT_NE(json.find(key), std::string::npos) << key << " in " << json;
}

TEST_F(CompareCommand, StopsWithAnErrorLineOnBadInput) {
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{path("unit.ply")}, {path("missing.ply"), path("unit.ply")},
          {path("unit.ply"), path("missing.ply")}, {path("unit.ply"), path("points.ply")},
          {path("unit.ply"), path("unit.ply"), "--samples", "0"},
          {path("unit.ply"), path("unit.ply"), "--samples", "-5"}}) {
        const CommandRun run = runCompare(args);
        EXPECT_NE(run.status, 0) << run.out;
        EXPECT_NE(run.out.find("Error: "), std::string::npos) << run.out;
    }
}

}  // namespace
