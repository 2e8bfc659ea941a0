// tessaline refine and export run as the built program: the reference
// preset against tessaline_refine, the memory check's dry run and refusal,
// the import's coordinate offset, --max-image-size, and the temple from its
// COLMAP model to a glTF file in one command.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include <tiny_gltf.h>

#include "../../scene/SceneTestSupport.h"
#include "MeshReader.h"
#include "SynthScene.h"

namespace {

namespace fs = std::filesystem;
using Args = std::vector<std::string>;
using tessaline_tools::MeshData;

// Runs `binary` with `args` from `folder`, with the variables of
// `environment` ("NAME=value ...") set for it; returns the exit status and
// what it printed.
int runProgram(const std::string& binary, const Args& args, const fs::path& folder, std::string& output,
               const std::string& environment = "") {
    std::string command = "cd '" + folder.string() + "' && " + environment + " '" + binary + "'";
    for (const std::string& a : args) command += " '" + a + "'";
    const std::string log = folder.string() + "/../" + folder.filename().string() + ".log";
    const int status = std::system((command + " > '" + log + "' 2>&1").c_str());
    output = scene_test::readFile(log);
    fs::remove(log);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A generated scene of six small photographs in its own folder.
class RefineCommand : public scene_test::TempFolderTest {
   protected:
    void SetUp() override {
        tessaline::synth::SynthOptions options;
        options.views = 6;
        options.width = 160;
        options.height = 120;
        options.truthLevel = 4;
        options.initialLevel = 2;
        tessaline::synth::SynthScene scene;
        std::string error;
        ASSERT_TRUE(tessaline::synth::makeSynthScene(options, scene, error)) << error;
        ASSERT_TRUE(tessaline::synth::writeSynthScene(scene, path("scene"), error)) << error;
    }
    int tessaline(Args args, std::string& output) { return runProgram(TESSALINE_BINARY, args, dir(), output); }
    std::string scene() const { return path("scene/scene.sfm"); }
    std::string initial() const { return path("scene/initial.ply"); }
};

// The vertex lines of an ASCII PLY file, and its facets.
void readAsciiPly(const std::string& text, std::vector<std::string>& vertexLines, std::vector<int32_t>& facets) {
    std::istringstream in(text);
    std::string line;
    int vertices = 0;
    while (std::getline(in, line) && line != "end_header")
        if (line.rfind("element vertex ", 0) == 0) vertices = std::stoi(line.substr(15));
    for (int i = 0; i < vertices && std::getline(in, line); ++i) vertexLines.push_back(line);
    int n, a, b, c;
    while (in >> n >> a >> b >> c) facets.insert(facets.end(), {a, b, c});
}

// The float coordinates as tessaline_refine prints them.
std::string printedLike(const MeshData& mesh, size_t vertex) {
    std::ostringstream out;
    out << float(mesh.vertices[3 * vertex]) << ' ' << float(mesh.vertices[3 * vertex + 1]) << ' '
        << float(mesh.vertices[3 * vertex + 2]);
    return out.str();
}

TEST_F(RefineCommand, ReferencePresetGivesTheRefinersMesh) {
    std::string output;
    ASSERT_EQ(runProgram(REFINE_BINARY, {"scene.sfm", "initial.ply", path("refined.ply"), "1"}, dir() / "scene",
                         output),
              1)
        << output;
    ASSERT_EQ(tessaline({"refine", scene(), initial(), path("out.ply"), "--preset", "reference", "--finest-level",
                         "1", "--quiet"},
                        output),
              0)
        << output;
    EXPECT_EQ(output.find("iterations"), std::string::npos) << output;  // --quiet
    std::vector<std::string> expected;
    std::vector<int32_t> facets;
    readAsciiPly(scene_test::readFile(dir() / "refined.ply"), expected, facets);
    const MeshData mesh = tessaline_tools::readPly(path("out.ply"));
    ASSERT_EQ(size_t(mesh.numVertices()), expected.size());
    ASSERT_GT(expected.size(), 42u);  // the mesh was divided
    for (size_t i = 0; i < expected.size(); ++i) ASSERT_EQ(printedLike(mesh, i), expected[i]) << "vertex " << i;
    EXPECT_EQ(mesh.facets, facets);
}

TEST_F(RefineCommand, DryRunEstimatesAndWritesNothing) {
    std::string output;
    ASSERT_EQ(tessaline({"refine", scene(), initial(), path("out.glb"), "--dry-run"}, output), 0) << output;
    EXPECT_NE(output.find("Memory estimate (MiB): level 2 "), std::string::npos) << output;
    EXPECT_NE(output.find("Memory needed: "), std::string::npos) << output;
    EXPECT_FALSE(fs::exists(path("out.glb")));
}

TEST_F(RefineCommand, RunThatCannotFitStopsBeforeLoadingWithTheWaysOut) {
    std::string output;
    ASSERT_EQ(tessaline({"refine", scene(), initial(), path("out.glb"), "--memory-limit", "1"}, output), 1) << output;
    const size_t error = output.find("Error: the run needs about ");
    ASSERT_NE(error, std::string::npos) << output;
    EXPECT_EQ(output.find('\n', error), output.size() - 1) << output;  // one line, the last
    EXPECT_NE(output.find("MiB are available"), std::string::npos) << output;
    EXPECT_EQ(output.find("level 2: "), std::string::npos) << output;  // no refinement began
    EXPECT_FALSE(fs::exists(path("out.glb")));
    // With room for the photographs at a smaller size, the message names it.
    ASSERT_EQ(tessaline({"refine", scene(), initial(), path("out.glb"), "--dry-run"}, output), 0);
    const size_t at = output.find("Memory needed: ");
    const double needed = std::stod(output.substr(at + 15));
    ASSERT_EQ(tessaline({"refine", scene(), initial(), path("out.glb"), "--memory-limit",
                         std::to_string(needed - 2.0)},
                        output),
              1);
    EXPECT_NE(output.find("it would fit with --max-image-size "), std::string::npos) << output;
}

TEST_F(RefineCommand, ImportOffsetIsAddedByRefineAndExport) {
    std::string output;
    const Args level2 = {"--finest-level", "2", "--quiet"};
    Args plain = {"refine", scene(), initial(), path("plain.ply")};
    plain.insert(plain.end(), level2.begin(), level2.end());
    ASSERT_EQ(tessaline(plain, output), 0) << output;
    const double offset[3] = {4512345.0625, -20.5, 1e6};
    scene_test::writeFile(dir() / "scene/offset.txt", "4512345.0625 -20.5 1000000\n");
    Args shifted = {"refine", scene(), initial(), path("shifted.obj")};
    shifted.insert(shifted.end(), level2.begin(), level2.end());
    ASSERT_EQ(tessaline(shifted, output), 0) << output;
    ASSERT_EQ(tessaline({"export", initial(), path("exported.ply"), "--scene-dir", path("scene")}, output), 0)
        << output;
    const MeshData a = tessaline_tools::readPly(path("plain.ply")), b = tessaline_tools::readObj(path("shifted.obj"));
    const MeshData in = tessaline_tools::readPly(initial()), out = tessaline_tools::readPly(path("exported.ply"));
    ASSERT_EQ(a.vertices.size(), b.vertices.size());
    for (size_t i = 0; i < a.vertices.size(); ++i) ASSERT_EQ(b.vertices[i], a.vertices[i] + offset[i % 3]) << i;
    ASSERT_EQ(in.vertices.size(), out.vertices.size());
    for (size_t i = 0; i < in.vertices.size(); ++i)
        ASSERT_EQ(out.vertices[i], double(float(in.vertices[i])) + offset[i % 3]) << i;
    EXPECT_EQ(in.facets, out.facets);
}

// An OBJ holds the same floats (9 digits), so the run from it is the same
// run; a missing output folder is found before the work.
TEST_F(RefineCommand, AnyMeshTheImporterReadsStartsTheSameRun) {
    std::string output;
    ASSERT_EQ(tessaline({"export", initial(), path("initial.obj")}, output), 0) << output;
    for (const char* mesh : {"scene/initial.ply", "initial.obj"}) {
        const std::string out = path(std::string(mesh).substr(0, 5) + ".ply");
        ASSERT_EQ(tessaline({"refine", scene(), path(mesh), out, "--finest-level", "2", "-q"}, output), 0) << output;
    }
    EXPECT_EQ(scene_test::readFile(dir() / "scene.ply"), scene_test::readFile(dir() / "initi.ply"));
    EXPECT_EQ(tessaline({"refine", scene(), initial(), path("missing/out.ply")}, output), 1);
    EXPECT_NE(output.find("Error: the folder of "), std::string::npos) << output;
    EXPECT_EQ(output.find("Memory estimate"), std::string::npos) << output;
}

TEST_F(RefineCommand, MaxImageSizeScalesThePhotographs) {
    std::string output;
    ASSERT_EQ(tessaline({"refine", scene(), initial(), path("out.ply"), "--finest-level", "2", "--max-image-size",
                         "80"},
                        output),
              0)
        << output;
    EXPECT_NE(output.find("Photographs: 6, 80x60 pixels as refined"), std::string::npos) << output;
    // The quality preset ends the level once its vertices settle, before the cap.
    EXPECT_NE(output.find("level 2: settled after "), std::string::npos) << output;
    EXPECT_NE(output.find(" of at most 100 iterations"), std::string::npos) << output;
    EXPECT_EQ(output.find("mesh optimizing"), std::string::npos) << output;  // the library's own lines
    // The memory estimate against the measured peak, both printed last.
    const size_t at = output.find("peak memory ");
    ASSERT_NE(at, std::string::npos) << output;
    double peak = 0.0, estimate = 0.0;
    ASSERT_EQ(std::sscanf(output.c_str() + at, "peak memory %lf MiB (estimated %lf MiB)", &peak, &estimate), 2);
    EXPECT_NEAR(estimate, peak, 0.25 * peak) << output;
}

// The temple's real model (13 registered photographs), its hull in the
// model's frame, to a refined glTF file in one command; the work folder
// goes away.
TEST_F(RefineCommand, TempleFromColmapModelToGlbInOneCommand) {
    const std::string temple = TEMPLE_DIR;
    if (!fs::exists(temple + "/colmap/sparse/0")) GTEST_SKIP() << "no temple model at " << temple;
    fs::create_directories(dir() / "tmp");
    std::string output;
    ASSERT_EQ(runProgram(TESSALINE_BINARY,
                         {"refine", "--colmap", temple + "/colmap/sparse/0", "--images", temple,
                          temple + "/colmap/temple_hull_colmap.ply", path("temple.glb"), "--finest-level", "2"},
                         dir(), output, "TMPDIR='" + path("tmp") + "'"),
              0)
        << output;
    EXPECT_NE(output.find("13 registered images"), std::string::npos) << output;
    EXPECT_TRUE(fs::is_empty(dir() / "tmp"));
    tinygltf::Model model;
    tinygltf::TinyGLTF loader;
    std::string error, warning;
    ASSERT_TRUE(loader.LoadBinaryFromFile(&model, &error, &warning, path("temple.glb"))) << error;
    const tinygltf::Primitive& primitive = model.meshes.at(0).primitives.at(0);
    EXPECT_GE(model.accessors.at(size_t(primitive.attributes.at("POSITION"))).count, 8916u);
    EXPECT_GE(model.accessors.at(size_t(primitive.indices)).count, 3u * 17840u);
}

}  // namespace
