// The same input gives the same output file: the temple's real photographs
// and visual hull refined by the tool at level of detail 2, once on one
// worker thread, once on every core, and once with the reference schedule
// of the optimisation; the three PLY files must be identical byte for byte.
// TESSALINE_TEMPLE_DIR and TESSALINE_REFINE name the scene and the tool
// where they do not lie where the build put them (a GPU machine's bundle).
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

namespace fs = std::filesystem;

namespace {

std::string readAll(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

fs::path fromEnvironment(const char* name, const fs::path& otherwise) {
    const char* value = std::getenv(name);
    return value && *value ? fs::path(value) : otherwise;
}

// Runs the tool from the scene's folder with `settings` (variables);
// returns its exit status.
int refine(const fs::path& scene, const fs::path& output, const std::string& settings) {
    const fs::path tool =
        fromEnvironment("TESSALINE_REFINE", fs::path(TESSALINE_BINARY_DIR) / "src/driver/tessaline_refine");
    const std::string command = "cd '" + scene.string() + "' && " + settings + " '" + tool.string() +
                                "' temple.sfm temple_hull.ply '" + output.string() + "' 2 > '" + output.string() +
                                ".log' 2>&1";
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(ReproducibleRun, TempleRefinedTwiceGivesTheSameFile) {
    const fs::path temple =
        fromEnvironment("TESSALINE_TEMPLE_DIR", fs::path(TESSALINE_SOURCE_DIR) / "../shared/data/templeSparseRing");
    ASSERT_TRUE(fs::exists(temple / "temple.sfm")) << "the temple scene is missing: " << temple;
    const fs::path dir = fs::temp_directory_path() / "tessaline_reproducible";
    fs::remove_all(dir);
    fs::create_directories(dir);
    const unsigned cores = std::max(2u, std::thread::hardware_concurrency());
    ASSERT_EQ(refine(temple, dir / "one.ply", "TESSALINE_THREADS=1"), 1) << readAll(dir / "one.ply.log");
    ASSERT_EQ(refine(temple, dir / "all.ply", "TESSALINE_THREADS=" + std::to_string(cores)), 1)
        << readAll(dir / "all.ply.log");
    ASSERT_EQ(refine(temple, dir / "reference.ply", "TESSALINE_SCHEDULE=reference"), 1)
        << readAll(dir / "reference.ply.log");
    const std::string one = readAll(dir / "one.ply"), all = readAll(dir / "all.ply");
    ASSERT_FALSE(one.empty());
    ASSERT_NE(one, readAll(temple / "temple_hull.ply")) << "the refinement moved no vertex";
    EXPECT_TRUE(one == all) << "two runs of the same input wrote different files";
    EXPECT_TRUE(one == readAll(dir / "reference.ply")) << "the reference schedule wrote another file";
    fs::remove_all(dir);
}

}  // namespace
