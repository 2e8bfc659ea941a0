// PLY reader and writer, with the reader's own error and warning
// lines and the writer's temporary-file-then-rename.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "SceneTestSupport.h"
#include "plyIO.h"

namespace {

using scene_test::captureStdout;
using scene_test::readFile;
using scene_test::writeFile;
using Fv = std::vector<float>;
using Iv = std::vector<int32_t>;

std::string nineHeaderLines(int numV, int numF) {
    return "ply\nformat ascii 1.0\nelement vertex " + std::to_string(numV) +
           "\nproperty float x\nproperty float y\nproperty float z\nelement face " + std::to_string(numF) +
           "\nproperty list uchar int vertex_indices\nend_header\n";
}

const std::string kXyz = "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nproperty float y\nproperty float z\n";

TriMesh makeMesh(const Fv& vertices, const Iv& facets) {
    TriMesh mesh;
    mesh.num_v = static_cast<int32_t>(vertices.size() / 3);
    mesh.num_f = static_cast<int32_t>(facets.size() / 3);
    mesh.vertices = vertices;
    mesh.facets = facets;
    mesh.vertex_attributes.assign(vertices.size(), 0);
    mesh.vertex_records.resize(mesh.num_v);
    return mesh;
}

class PlyTest : public scene_test::TempFolderTest {
protected:
    // Loads `p` into `mesh`; returns what was printed after the "reading " line.
    std::string load(TriMesh& mesh, const std::string& p, bool& ok) {
        const std::string printed = captureStdout([&] { ok = loadPly(mesh, p); });
        EXPECT_EQ(printed.substr(0, 9 + p.size()), "reading " + p + "\n");
        return printed.substr(std::min(printed.size(), 9 + p.size()));
    }
    std::string save(const TriMesh& mesh, const std::string& p, bool& ok) {
        return captureStdout([&] { ok = savePly(mesh, p); });
    }
    std::string in() const { return path("in.ply"); }
};

// ---- Writing ----

TEST_F(PlyTest, WritesExactlyTheHeaderAndDefaultFormattedNumbers) {
    const struct {
        TriMesh mesh;
        std::string body;
    } cases[] = {
        {makeMesh({0.5f, 0.25f, 2.0f}, {}), nineHeaderLines(1, 0) + "0.5 0.25 2\n"},
        {makeMesh({0, 0, 0}, {7, 8, 9}), nineHeaderLines(1, 1) + "0 0 0\n3 7 8 9\n"},
        {TriMesh(), nineHeaderLines(0, 0)},
        {makeMesh({1.0f, 0.125f, 1234567.0f, 0.00001f, -3.5f, 123456.0f, 0.1f, 1.0f / 3.0f, -0.0f}, {}),
         nineHeaderLines(3, 0) + "1 0.125 1.23457e+06\n1e-05 -3.5 123456\n0.1 0.333333 -0\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body);
        const std::string p = path("out.ply");
        writeFile(p, "old content that is much longer than the new file will be........................\n");
        bool ok = false;
        EXPECT_EQ(save(c.mesh, p, ok), "saving " + p + "\n");
        EXPECT_TRUE(ok);
        EXPECT_EQ(readFile(p), c.body);
        EXPECT_EQ(listFolder(), std::vector<std::string>{"out.ply"});  // no temporary left
    }
}

TEST_F(PlyTest, RoundTripKeepsSixDigitValuesAndFacets) {
    const Fv vertices = {0.5f, -1.25f, 3.0f, 1234.5f, 0.1f, -0.002f, 7.0f, 8.0f, 9.0f, 1e-3f, 2e5f, -6.5f};
    const Iv facets = {0, 1, 2, 2, 1, 3, 3, 0, 2};
    bool ok = false;
    save(makeMesh(vertices, facets), in(), ok);
    ASSERT_TRUE(ok);
    TriMesh back = makeMesh({9, 9, 9, 9, 9, 9}, {0, 1, 1});  // a used record: everything is replaced
    EXPECT_EQ(load(back, in(), ok), "");
    ASSERT_TRUE(ok);
    EXPECT_EQ(back.num_v, 4);
    EXPECT_EQ(back.num_f, 3);
    EXPECT_EQ(back.vertices, vertices);
    EXPECT_EQ(back.facets, facets);
    EXPECT_EQ(back.vertex_attributes, Iv(12, 0));
    ASSERT_EQ(back.vertex_records.size(), 4u);
    EXPECT_EQ(back.vertex_records[3].marks[1], 255);
}

TEST_F(PlyTest, FailedSavesWarnAndLeaveNoFile) {
    std::filesystem::create_directory(dir() / "target");
    std::filesystem::create_directory(dir() / "locked");
    ASSERT_EQ(chmod((dir() / "locked").c_str(), 0555), 0);
    TriMesh shortTables = makeMesh({1, 2, 3}, {});
    shortTables.num_v = 2;
    const struct {
        std::string p;
        TriMesh mesh;
    } cases[] = {
        {path("no/such/folder/out.ply"), makeMesh({1, 2, 3}, {})},
        {path("target"), makeMesh({1, 2, 3}, {})},  // the rename onto a folder fails
        {path("locked/out.ply"), makeMesh({1, 2, 3}, {})},
        {path("out.ply"), shortTables},
    };
    for (const auto& c : cases) {
        if (c.p == path("locked/out.ply") && geteuid() == 0) continue;  // permissions do not bind the superuser
        SCOPED_TRACE(c.p);
        bool ok = true;
        EXPECT_EQ(save(c.mesh, c.p, ok), "saving " + c.p + "\nWarning: cannot save " + c.p + "\n");
        EXPECT_FALSE(ok);
        EXPECT_EQ(listFolder(), (std::vector<std::string>{"locked", "target"}));
        EXPECT_TRUE(std::filesystem::is_empty(dir() / "target"));
        EXPECT_TRUE(std::filesystem::is_empty(dir() / "locked"));
    }
}

// ---- Header walk ----

TEST_F(PlyTest, HeaderWalkCases) {
    const std::string faceAlpha = "element face 0\nproperty list uchar int vertex_indices\nproperty uchar alpha\n";
    const std::string material = "Warning: " + in() + " declares an element 'material' that this tool does not read; "
                                                      "data of it in the body would be misread\n";
    const struct {
        const char* name;
        std::string text;
        Fv vertices;
        Iv facets;
        std::string printed;
    } cases[] = {
        {"comments pass and the first token need not be ply",
         "hello\nformat ascii 1.0\ncomment made by hand; nothing of this line counts\ncomment another one\n"
         "element vertex 3\nproperty float x\nproperty float y\nproperty float z\n"
         "element face 1\nproperty list uchar int vertex_indices\nend_header\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n",
         {0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2}, ""},
        {"line breaks in the body mean nothing", nineHeaderLines(2, 1) + "0.5 0.25\n2 -1\n-2 -3 3\n0\n1 1",
         {0.5f, 0.25f, 2, -1, -2, -3}, {0, 1, 1}, ""},
        {"facets before vertices still reads vertices first",
         "ply\nformat ascii 1.0\nelement face 1\nproperty list uchar int vertex_indices\n"
         "element vertex 3\nproperty float x\nproperty float y\nproperty float z\nend_header\n"
         "1 2 3\n4 5 6\n7 8 9\n3 2 1 0\n",
         {1, 2, 3, 4, 5, 6, 7, 8, 9}, {2, 1, 0}, ""},
        {"alpha drops one integer per vertex",
         "ply\nformat ascii 1.0\nelement vertex 2\nproperty float x\nproperty float y\nproperty float z\n"
         "property uchar alpha\nelement face 1\nproperty list uchar int vertex_indices\nend_header\n"
         "1 2 3 255\n4 5 6 0\n3 0 1 1\n",
         {1, 2, 3, 4, 5, 6}, {0, 1, 1}, ""},
        {"alpha under the face element", kXyz + faceAlpha + "end_header\n1 2 3 128\n", {1, 2, 3}, {}, ""},
        {"alpha inside a comment before any element",
         "ply\nformat ascii 1.0\ncomment property uchar alpha\nelement vertex 2\nproperty float x\n"
         "property float y\nproperty float z\nelement face 0\nend_header\n1 2 3 7 4 5 6 8\n",
         {1, 2, 3, 4, 5, 6}, {}, ""},
        // If the uchar behind "list" set alpha, the body would be misread and come out short.
        {"list uchar int does not set alpha", nineHeaderLines(3, 1) + "1 2 3\n4 5 6\n7 8 9\n3 0 1 2\n",
         {1, 2, 3, 4, 5, 6, 7, 8, 9}, {0, 1, 2}, ""},
        // Under the face element (under the vertex element it is refused).
        {"uchar red does not set alpha",
         "ply\nformat ascii 1.0\nelement vertex 2\nproperty float x\nproperty float y\nproperty float z\n"
         "element face 0\nproperty uchar red\nend_header\n1 2 3\n4 5 6\n",
         {1, 2, 3, 4, 5, 6}, {}, ""},
        {"coordinates of any scalar type",
         "ply\nformat ascii 1.0\nelement vertex 1\nproperty double x\nproperty double y\nproperty double z\n"
         "element face 0\nend_header\n0.5 0.25 2\n",
         {0.5f, 0.25f, 2.0f}, {}, ""},
        {"other elements are warned about and passed over",
         kXyz + "element face 0\nproperty list uchar int vertex_indices\nelement material 0\n"
                "property uchar ambient_red\nend_header\n1 2 3\n",
         {1, 2, 3}, {}, material},
        // A long comment token passes; a long element name is warned about with
        // its first 255 characters; "end_header" with more characters is not end_header.
        {"long header tokens are truncated and do not match",
         "ply\nformat ascii 1.0\ncomment " + std::string(5000, 'w') + " end_header" + std::string(400, 'x') + "\n" +
             kXyz.substr(21) + "element " + std::string(300, 'q') + " 0\nend_header\n1 2 3\n",
         {1, 2, 3}, {},
         "Warning: " + in() + " declares an element '" + std::string(255, 'q') +
             "' that this tool does not read; data of it in the body would be misread\n"},
        {"no elements gives an empty mesh", "ply\nformat ascii 1.0\nend_header\n", {}, {}, ""},
        {"both counts zero", nineHeaderLines(0, 0), {}, {}, ""},
        {"trailing tokens after the body are not read", nineHeaderLines(1, 0) + "1 2 3\nsomething else\n", {1, 2, 3},
         {}, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        writeFile(in(), c.text);
        TriMesh mesh;
        bool ok = false;
        EXPECT_EQ(load(mesh, in(), ok), c.printed);
        EXPECT_TRUE(ok);
        EXPECT_EQ(mesh.num_v, int32_t(c.vertices.size() / 3));
        EXPECT_EQ(mesh.num_f, int32_t(c.facets.size() / 3));
        EXPECT_EQ(mesh.vertices, c.vertices);
        EXPECT_EQ(mesh.facets, c.facets);
        EXPECT_EQ(mesh.vertex_attributes, Iv(c.vertices.size(), 0));
    }
}

// ---- Refusals ----

TEST_F(PlyTest, RefusalsPrintOneErrorLineAndLeaveAnEmptyMesh) {
    const std::string endsEarly = "Error: <path> ends before end_header\n";
    const std::string binary = "Error: <path> is a binary PLY file; this tool reads ASCII PLY\n";
    const std::string onlyXyz = "; this tool reads vertices of x, y, z (and uchar alpha) only: convert the mesh first\n";
    const std::string rest = "element face 0\nend_header\n1 2 3 4 5 6\n";
    const std::string fewer = "Error: <path> holds fewer values than its header declares (it ends in ";
    const std::pair<std::string, std::string> cases[] = {
        {"", endsEarly},
        {"ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\n", endsEarly},
        {"ply\nelement", endsEarly},
        {"ply\nproperty uchar", endsEarly},
        {"ply\nformat binary_little_endian 1.0\nelement vertex 1\nend_header\n", binary},
        {"ply\nformat binary_big_endian 1.0\nelement vertex 1\nend_header\n", binary},
        {"ply\nelement vertex abc\nend_header\n",
         "Error: <path> has no readable vertex count in its header (an int32 must follow 'element vertex')\n"},
        {"ply\nelement face 3000000000\nend_header\n",
         "Error: <path> has no readable face count in its header (an int32 must follow 'element face')\n"},
        {"ply\nelement vertex -1\nend_header\n", "Error: <path> declares a negative vertex count -1\n"},
        {"ply\nelement vertex 0\nelement face -4\nend_header\n", "Error: <path> declares a negative face count -4\n"},
        {"ply\nelement vertex 715827883\nend_header\n",
         "Error: <path> declares 715827883 vertices; at most 715827882 are supported\n"},
        {"ply\nelement face 715827883\nend_header\n",
         "Error: <path> declares 715827883 faces; at most 715827882 are supported\n"},
        {nineHeaderLines(715827882, 0) + "1 2 3\n", fewer + "vertex 1)\n"},  // without allocating them
        {kXyz + "property float nx\n" + rest, "Error: <path> declares the vertex property 'nx'" + onlyXyz},
        {kXyz + "property uchar red\n" + rest, "Error: <path> declares the vertex property 'red'" + onlyXyz},
        {kXyz + "property float alpha\n" + rest, "Error: <path> declares the vertex property 'alpha'" + onlyXyz},
        {kXyz + "property list uchar float extra\n" + rest,
         "Error: <path> declares a list property for its vertices" + onlyXyz},
        {nineHeaderLines(2, 0) + "1 2 3\n4 5\n", fewer + "vertex 1)\n"},
        {nineHeaderLines(3, 2) + "1 2 3\n4 5 6\n7 8 9\n3 0 1 2\n3 0 1", fewer + "facet 1)\n"},
        {nineHeaderLines(3, 1) + "1 2 3\n4 5 6\n7 8 9\n", fewer + "facet 0)\n"},
        {"ply\nelement vertex 1\nproperty uchar alpha\nend_header\n1 2 3\n", fewer + "vertex 0)\n"},  // alpha counts
        {nineHeaderLines(2, 0) + "1 2 3\n4 five 6\n", "Error: <path> holds a value that does not parse in vertex 1\n"},
        {nineHeaderLines(3, 1) + "1 2 3\n4 5 6\n7 8 9\n3 0 x 2\n",
         "Error: <path> holds a value that does not parse in facet 0\n"},
        {nineHeaderLines(4, 1) + "0 0 0\n1 0 0\n1 1 0\n0 1 0\n4 0 1 2 3\n",
         "Error: facet 0 of <path> has 4 vertices; this tool reads triangles only\n"},
        {nineHeaderLines(3, 2) + "0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n3 2 3 0\n",
         "Error: facet 1 of <path> refers to vertex 3, outside 0..2\n"},
        {nineHeaderLines(3, 1) + "0 0 0\n1 0 0\n0 1 0\n3 0 -1 2\n",
         "Error: facet 0 of <path> refers to vertex -1, outside 0..2\n"},
        {nineHeaderLines(0, 1) + "3 0 0 0\n", "Error: facet 0 of <path> refers to vertex 0, but the mesh has no vertex\n"},
    };
    for (const auto& [text, line] : cases) {
        SCOPED_TRACE(line + text.substr(0, 200));
        writeFile(in(), text);
        std::string expected = line;
        expected.replace(expected.find("<path>"), 6, in());
        TriMesh mesh;
        bool ok = true;
        EXPECT_EQ(load(mesh, in(), ok), expected);
        EXPECT_FALSE(ok);
        EXPECT_TRUE(mesh.num_v == 0 && mesh.num_f == 0 && mesh.vertices.empty() && mesh.facets.empty() &&
                    mesh.vertex_attributes.empty() && mesh.vertex_records.empty());
    }
    TriMesh mesh;
    bool ok = true;
    EXPECT_EQ(load(mesh, path("nowhere.ply"), ok), path("nowhere.ply") + " not found\n");
    EXPECT_FALSE(ok);
}

}  // namespace
