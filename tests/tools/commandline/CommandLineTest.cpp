// The companion programs and the sub-commands of tessaline parse their
// command lines alike: --help prints
// the usage and exits 0; a missing argument, an unknown option or a value
// that is not a number is refused with one "Error: " line, the usage hint and
// exit status 2; a failure while running prints its "Error: " line and exits
// 1. Nothing is written in any of these cases.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/wait.h>

#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "../../scene/SceneTestSupport.h"

namespace {

namespace fs = std::filesystem;
using Args = std::vector<std::string>;

// Paths in a program's command lines start with "@/", which stands for the
// test's empty working folder.
struct Program {
    std::string name;
    std::string binary;
    Args help;                  // asks for the usage
    std::string helpMark;       // a word of that usage
    Args missing;               // a required argument left out
    std::string missingName;    // its name in the refusal
    Args complete;              // parses; an unknown option is added to it
    Args notANumber;            // a numeric option given a word
    std::string numericOption;  // that option
    Args failing;               // parses but cannot run
    std::string failure;        // the start of the failure's error message
};

void PrintTo(const Program& p, std::ostream* os) { *os << p.name; }

std::vector<Program> programs() {
    return {
        {"tessaline_synth", SYNTH_BINARY, {"--help"}, "--supersample", {}, "OUT_DIR",
         {"@/scene"}, {"@/scene", "--views", "many"}, "--views",
         {"/dev/null/scene", "--views", "2", "--width", "64", "--height", "64", "--truth-level", "1"},
         "cannot create the folder /dev/null/scene"},
        {"tessaline_compare", COMPARE_BINARY, {"--help"}, "--samples", {"@/reference.ply"}, "TEST",
         {"@/reference.ply", "@/test.ply"}, {"@/reference.ply", "@/test.ply", "--samples", "many"}, "--samples",
         {"@/reference.ply", "@/test.ply"}, "cannot read the reference mesh @/reference.ply"},
        {"tessaline_planesweep", PLANESWEEP_BINARY, {"--help"}, "--min-score", {"@/scene.sfm", "0"}, "out_prefix",
         {"@/scene.sfm", "0", "@/sweep"}, {"@/scene.sfm", "0", "@/sweep", "--planes", "many"}, "--planes",
         {"@/scene.sfm", "0", "@/sweep"}, "the scene @/scene.sfm could not be loaded"},
        {"tessaline_tools", TOOLS_BINARY, {"render", "--help"}, "--compare", {"import", "@/model", "@/images"}, "MESH",
         {"import", "@/model", "@/images", "@/mesh.ply", "@/out"},
         {"import", "@/model", "@/images", "@/mesh.ply", "@/out", "--neighbours", "many"}, "--neighbours",
         {"import", "@/model", "@/images", "@/mesh.ply", "@/out"}, "the model folder @/model"},
        // The one program runs the same commands as sub-commands.
        {"tessaline_sub_synth", TESSALINE_BINARY, {"synth", "--help"}, "--supersample", {"synth"}, "OUT_DIR",
         {"synth", "@/scene"}, {"synth", "@/scene", "--views", "many"}, "--views",
         {"synth", "/dev/null/scene", "--views", "2", "--width", "64", "--height", "64", "--truth-level", "1"},
         "cannot create the folder /dev/null/scene"},
        {"tessaline_sub_compare", TESSALINE_BINARY, {"compare", "--help"}, "--samples", {"compare", "@/reference.ply"},
         "TEST", {"compare", "@/reference.ply", "@/test.ply"},
         {"compare", "@/reference.ply", "@/test.ply", "--samples", "many"}, "--samples",
         {"compare", "@/reference.ply", "@/test.ply"}, "cannot read the reference mesh @/reference.ply"},
        {"tessaline_sub_planesweep", TESSALINE_BINARY, {"planesweep", "--help"}, "--min-score",
         {"planesweep", "@/scene.sfm", "0"}, "out_prefix", {"planesweep", "@/scene.sfm", "0", "@/sweep"},
         {"planesweep", "@/scene.sfm", "0", "@/sweep", "--planes", "many"}, "--planes",
         {"planesweep", "@/scene.sfm", "0", "@/sweep"}, "the scene @/scene.sfm could not be loaded"},
        {"tessaline_sub_import", TESSALINE_BINARY, {"import", "--help"}, "--neighbours", {"import", "@/model", "@/images"},
         "MESH", {"import", "@/model", "@/images", "@/mesh.ply", "@/out"},
         {"import", "@/model", "@/images", "@/mesh.ply", "@/out", "--neighbours", "many"}, "--neighbours",
         {"import", "@/model", "@/images", "@/mesh.ply", "@/out"}, "the model folder @/model"},
        {"tessaline_sub_refine", TESSALINE_BINARY, {"refine", "--help"}, "--max-image-size", {"refine"}, "INPUTS",
         {"refine", "@/scene.sfm", "@/mesh.ply", "@/out.glb"},
         {"refine", "@/scene.sfm", "@/mesh.ply", "@/out.glb", "--threads", "many"}, "--threads",
         {"refine", "@/scene.sfm", "@/mesh.ply", "@/out.glb"}, "the mesh @/mesh.ply does not exist"},
        {"tessaline_sub_export", TESSALINE_BINARY, {"export", "--help"}, "--scene-dir", {"export", "@/mesh.ply"}, "OUT",
         {"export", "@/mesh.ply", "@/out.obj"}, {"export", "@/mesh.ply", "@/out.obj", "--scene-dir"}, "--scene-dir",
         {"export", "@/mesh.ply", "@/out.obj"}, "the mesh @/mesh.ply does not exist"},
    };
}

std::string withFolder(std::string s, const std::string& folder) {
    for (size_t at = s.find("@/"); at != std::string::npos; at = s.find("@/", at + 1)) s.replace(at, 1, folder);
    return s;
}

class SharedCommandLine : public testing::TestWithParam<Program>, public scene_test::TempFolder {
   protected:
    // Runs the program from the test's folder; returns its exit status and
    // what it printed on either stream, with the folder written back as "@".
    int run(const Args& args, std::string& output) {
        const std::string folder = dir().string();
        std::string command = "cd '" + folder + "' && '" + GetParam().binary + "'";
        for (const std::string& a : args) command += " '" + withFolder(a, folder) + "'";
        const std::string log = folder + ".log";  // beside the folder, which must stay empty
        command += " > '" + log + "' 2>&1";
        const int status = std::system(command.c_str());
        output = scene_test::readFile(log);
        fs::remove(log);
        for (size_t at = output.find(folder); at != std::string::npos; at = output.find(folder, at + 1))
            output.replace(at, folder.size(), "@");
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    bool folderEmpty() const { return fs::is_empty(dir()); }
};

TEST_P(SharedCommandLine, HelpRefusalsAndFailuresExitAlike) {
    const Program& p = GetParam();
    std::string out;

    EXPECT_EQ(run(p.help, out), 0) << out;
    EXPECT_NE(out.find("Usage:"), std::string::npos) << out;
    EXPECT_NE(out.find(p.helpMark), std::string::npos) << out;
    EXPECT_EQ(out.find("Error"), std::string::npos) << out;

    Args unknown = p.complete;
    unknown.push_back("--no-such-option");
    const std::vector<std::pair<Args, std::string>> refused = {  // command line, word of the reason
        {p.missing, p.missingName}, {unknown, "--no-such-option"}, {p.notANumber, p.numericOption}};
    for (const auto& [args, word] : refused) {
        SCOPED_TRACE(word);
        EXPECT_EQ(run(args, out), 2) << out;
        // Exactly two lines: the reason and the hint.
        std::istringstream lines(out);
        std::string reason, hint, more;
        std::getline(lines, reason), std::getline(lines, hint);
        EXPECT_EQ(reason.rfind("Error: ", 0), 0u) << out;
        EXPECT_NE(reason.find(word), std::string::npos) << out;
        EXPECT_EQ(hint, "Run with --help for the usage.") << out;
        EXPECT_FALSE(std::getline(lines, more)) << out;
        EXPECT_TRUE(folderEmpty());
    }

    EXPECT_EQ(run(p.failing, out), 1) << out;
    // Programs may report progress first; the error line is the last line.
    const size_t error = out.find("Error: " + p.failure);
    EXPECT_NE(error, std::string::npos) << out;
    EXPECT_EQ(out.find('\n', error), out.size() - 1) << out;
    EXPECT_EQ(out.find("Run with --help"), std::string::npos) << out;
    EXPECT_TRUE(folderEmpty());
}

INSTANTIATE_TEST_SUITE_P(Programs, SharedCommandLine, testing::ValuesIn(programs()),
                         [](const testing::TestParamInfo<Program>& info) { return info.param.name; });

}  // namespace
