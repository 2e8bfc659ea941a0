// PLY reader and writer, with the reader's own error and warning
// lines and the writer's temporary-file-then-rename.
#include <gtest/gtest.h>

#include "../mesh/MeshTestSupport.h"
#include "SceneTestSupport.h"
#include "plyIO.h"

namespace {

using meshtest::makeMesh;
using scene_test::printedBy;
using scene_test::readFile;
using scene_test::writeFile;
using Fv = std::vector<float>;
using Iv = std::vector<int32_t>;

// Header pieces: the first two lines, a vertex element of x, y, z, a face
// element of index lists.
const std::string kStart = "ply\nformat ascii 1.0\n";
std::string verts(int n) {
    return "element vertex " + std::to_string(n) + "\nproperty float x\nproperty float y\nproperty float z\n";
}
std::string faces(int n) { return "element face " + std::to_string(n) + "\nproperty list uchar int vertex_indices\n"; }
// The nine header lines the writer produces.
std::string nineHeaderLines(int numV, int numF) { return kStart + verts(numV) + faces(numF) + "end_header\n"; }

class PlyTest : public scene_test::TempFolderTest {
protected:
    // Loads `p` into `mesh`; returns what was printed after the "reading " line.
    std::string load(TriMesh& mesh, const std::string& p, bool& ok) {
        const std::string printed = printedBy([&] { ok = loadPly(mesh, p); });
        EXPECT_EQ(printed.substr(0, 9 + p.size()), "reading " + p + "\n");
        return printed.substr(std::min(printed.size(), 9 + p.size()));
    }
    std::string save(const TriMesh& mesh, const std::string& p, bool& ok) {
        return printedBy([&] { ok = savePly(mesh, p); });
    }
    std::string in() const { return path("in.ply"); }
};

// ---- Writing ----

TEST_F(PlyTest, WritesExactlyTheHeaderAndDefaultFormattedNumbers) {
    const struct {
        TriMesh mesh;
        std::string body;
    } cases[] = {
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
    TriMesh shortTables = makeMesh({1, 2, 3}, {});
    shortTables.num_v = 2;
    const std::pair<std::string, TriMesh> cases[] = {
        {path("no/such/folder/out.ply"), makeMesh({1, 2, 3}, {})},
        {path("target"), makeMesh({1, 2, 3}, {})},  // the rename onto a folder fails
        {path("out.ply"), shortTables},
    };
    for (const auto& [p, mesh] : cases) {
        SCOPED_TRACE(p);
        bool ok = true;
        EXPECT_EQ(save(mesh, p, ok), "saving " + p + "\nWarning: cannot save " + p + "\n");
        EXPECT_FALSE(ok);
        EXPECT_EQ(listFolder(), std::vector<std::string>{"target"});
        EXPECT_TRUE(std::filesystem::is_empty(dir() / "target"));
    }
}

// ---- Header walk ----

TEST_F(PlyTest, HeaderWalkCases) {
    const std::string end = "end_header\n", face0 = "element face 0\n";
    const std::string unread = " that this tool does not read; data of it in the body would be misread\n";
    const struct {
        const char* name;
        std::string text;
        Fv vertices;
        Iv facets = {};
        std::string printed = "";
    } cases[] = {
        {"comments pass and the first token need not be ply",
         "hello\nformat ascii 1.0\ncomment made by hand; nothing of this line counts\n" + verts(3) + faces(1) + end +
             "0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n",
         {0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2}},
        // The uchar of "list uchar int" does not count as alpha, or this body would come out short.
        {"line breaks in the body mean nothing", nineHeaderLines(2, 1) + "0.5 0.25\n2 -1\n-2 -3 3\n0\n1 1",
         {0.5f, 0.25f, 2, -1, -2, -3}, {0, 1, 1}},
        {"facets before vertices still reads vertices first",
         kStart + faces(1) + verts(3) + end + "1 2 3\n4 5 6\n7 8 9\n3 2 1 0\n", {1, 2, 3, 4, 5, 6, 7, 8, 9}, {2, 1, 0}},
        {"alpha drops one integer per vertex",
         kStart + verts(2) + "property uchar alpha\n" + faces(1) + end + "1 2 3 255\n4 5 6 0\n3 0 1 1\n",
         {1, 2, 3, 4, 5, 6}, {0, 1, 1}},
        {"alpha under the face element", kStart + verts(1) + faces(0) + "property uchar alpha\n" + end + "1 2 3 128\n",
         {1, 2, 3}},
        {"alpha inside a comment before any element",
         kStart + "comment property uchar alpha\n" + verts(2) + face0 + end + "1 2 3 7 4 5 6 8\n", {1, 2, 3, 4, 5, 6}},
        // Under the face element (under the vertex element it is refused).
        {"uchar red does not set alpha", kStart + verts(2) + face0 + "property uchar red\n" + end + "1 2 3\n4 5 6\n",
         {1, 2, 3, 4, 5, 6}},
        {"coordinates of any scalar type",
         kStart + "element vertex 1\nproperty double x\nproperty double y\nproperty double z\n" + end + "0.5 0.25 2\n",
         {0.5f, 0.25f, 2.0f}},
        {"other elements are warned about and passed over",
         kStart + verts(1) + faces(0) + "element material 0\nproperty uchar ambient_red\n" + end + "1 2 3\n",
         {1, 2, 3}, {}, "Warning: " + in() + " declares an element 'material'" + unread},
        // A long comment token passes; a long element name is warned about with
        // its first 255 characters; "end_header" with more characters is not end_header.
        {"long header tokens are truncated and do not match",
         kStart + "comment " + std::string(5000, 'w') + " end_header" + std::string(400, 'x') + "\n" + verts(1) +
             "element " + std::string(300, 'q') + " 0\n" + end + "1 2 3\n",
         {1, 2, 3}, {}, "Warning: " + in() + " declares an element '" + std::string(255, 'q') + "'" + unread},
        {"no elements gives an empty mesh", kStart + end, {}},
        {"trailing tokens after the body are not read", nineHeaderLines(1, 0) + "1 2 3\nsomething else\n", {1, 2, 3}},
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
    auto header = [](const std::string& lines) { return "ply\n" + lines + "end_header\n"; };
    const std::string endsEarly = "<path> ends before end_header\n", three = "0 0 0\n1 0 0\n0 1 0\n";
    const std::string binary = "<path> is a binary PLY file; this tool reads ASCII PLY\n";
    const std::string only = "; this tool reads vertices of x, y, z (and uchar alpha) only: convert the mesh first\n";
    const std::string vertexProperty = "<path> declares the vertex property '";
    const std::string xyz = kStart + verts(1), rest = "element face 0\nend_header\n1 2 3 4 5 6\n";
    const std::string fewer = "<path> holds fewer values than its header declares (it ends in ";
    const std::string noCount = " count in its header (an int32 must follow 'element ";
    // The line after "Error: ", the path standing for <path>.
    const std::pair<std::string, std::string> cases[] = {
        {"", endsEarly},
        {kStart + "element vertex 1\nproperty float x\n", endsEarly},
        {"ply\nelement", endsEarly},
        {"ply\nproperty uchar", endsEarly},
        {header("format binary_little_endian 1.0\nelement vertex 1\n"), binary},
        {header("format binary_big_endian 1.0\nelement vertex 1\n"), binary},
        {header("element vertex abc\n"), "<path> has no readable vertex" + noCount + "vertex')\n"},
        {header("element face 3000000000\n"), "<path> has no readable face" + noCount + "face')\n"},
        {header("element vertex -1\n"), "<path> declares a negative vertex count -1\n"},
        {header("element vertex 0\nelement face -4\n"), "<path> declares a negative face count -4\n"},
        {header("element vertex 715827883\n"), "<path> declares 715827883 vertices; at most 715827882 are supported\n"},
        {header("element face 715827883\n"), "<path> declares 715827883 faces; at most 715827882 are supported\n"},
        {nineHeaderLines(715827882, 0) + "1 2 3\n", fewer + "vertex 1)\n"},  // without allocating them
        {xyz + "property float nx\n" + rest, vertexProperty + "nx'" + only},
        {xyz + "property uchar red\n" + rest, vertexProperty + "red'" + only},
        {xyz + "property float alpha\n" + rest, vertexProperty + "alpha'" + only},
        {xyz + "property list uchar float extra\n" + rest, "<path> declares a list property for its vertices" + only},
        {nineHeaderLines(2, 0) + "1 2 3\n4 5\n", fewer + "vertex 1)\n"},
        {nineHeaderLines(3, 2) + three + "3 0 1 2\n3 0 1", fewer + "facet 1)\n"},
        {nineHeaderLines(3, 1) + three, fewer + "facet 0)\n"},
        {header("element vertex 1\nproperty uchar alpha\n") + "1 2 3\n", fewer + "vertex 0)\n"},  // alpha counts
        {nineHeaderLines(2, 0) + "1 2 3\n4 five 6\n", "<path> holds a value that does not parse in vertex 1\n"},
        {nineHeaderLines(3, 1) + three + "3 0 x 2\n", "<path> holds a value that does not parse in facet 0\n"},
        {nineHeaderLines(4, 1) + three + "1 1 0\n4 0 1 2 3\n",
         "facet 0 of <path> has 4 vertices; this tool reads triangles only\n"},
        {nineHeaderLines(3, 2) + three + "3 0 1 2\n3 2 3 0\n", "facet 1 of <path> refers to vertex 3, outside 0..2\n"},
        {nineHeaderLines(3, 1) + three + "3 0 -1 2\n", "facet 0 of <path> refers to vertex -1, outside 0..2\n"},
        {nineHeaderLines(0, 1) + "3 0 0 0\n", "facet 0 of <path> refers to vertex 0, but the mesh has no vertex\n"},
    };
    for (const auto& [text, line] : cases) {
        SCOPED_TRACE(line + text.substr(0, 200));
        writeFile(in(), text);
        std::string expected = "Error: " + line;
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
