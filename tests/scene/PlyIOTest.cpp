// PLY reader and writer, with the reader's own error and warning
// lines and the writer's temporary-file-then-rename.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "SceneTestSupport.h"
#include "plyIO.h"

namespace {

using scene_test::captureStdout;
using scene_test::readFile;
using scene_test::writeFile;

std::string nineHeaderLines(int numV, int numF) {
    return "ply\nformat ascii 1.0\nelement vertex " + std::to_string(numV) +
           "\nproperty float x\nproperty float y\nproperty float z\nelement face " + std::to_string(numF) +
           "\nproperty list uchar int vertex_indices\nend_header\n";
}

TriMesh makeMesh(const std::vector<float>& vertices, const std::vector<int32_t>& facets) {
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
    std::string load(TriMesh& mesh, const std::string& p, bool& ok) {
        return captureStdout([&] { ok = loadPly(mesh, p); });
    }
    std::string save(const TriMesh& mesh, const std::string& p, bool& ok) {
        return captureStdout([&] { ok = savePly(mesh, p); });
    }

    // Writes `text` and loads it, expecting success with nothing printed but
    // the "reading " line and `extra`.
    TriMesh loadText(const std::string& text, const std::string& extra = "") {
        const std::string p = path("in.ply");
        writeFile(p, text);
        TriMesh mesh;
        bool ok = false;
        const std::string printed = load(mesh, p, ok);
        EXPECT_TRUE(ok) << printed;
        EXPECT_EQ(printed, "reading " + p + "\n" + extra);
        return mesh;
    }

    // Writes `text` and loads it, expecting a refusal with exactly the
    // "reading " line, `lines` (with <path> standing for the file), and an
    // empty mesh.
    void expectRefused(const std::string& text, std::string lines) {
        const std::string p = path("bad.ply");
        writeFile(p, text);
        for (size_t at; (at = lines.find("<path>")) != std::string::npos;) lines.replace(at, 6, p);
        TriMesh mesh;
        bool ok = true;
        const std::string printed = load(mesh, p, ok);
        EXPECT_FALSE(ok);
        EXPECT_EQ(printed, "reading " + p + "\n" + lines);
        EXPECT_EQ(mesh.num_v, 0);
        EXPECT_EQ(mesh.num_f, 0);
        EXPECT_TRUE(mesh.vertices.empty());
        EXPECT_TRUE(mesh.facets.empty());
        EXPECT_TRUE(mesh.vertex_attributes.empty());
        EXPECT_TRUE(mesh.vertex_records.empty());
    }
};

// ---- Writing ----

TEST_F(PlyTest, WritesOneVertexExactly) {
    const std::string p = path("one.ply");
    bool ok = false;
    const std::string printed = save(makeMesh({0.5f, 0.25f, 2.0f}, {}), p, ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(printed, "saving " + p + "\n");
    EXPECT_EQ(readFile(p), nineHeaderLines(1, 0) + "0.5 0.25 2\n");
}

TEST_F(PlyTest, WritesTheFacetLineWithALeadingThree) {
    const std::string p = path("facet.ply");
    TriMesh mesh = makeMesh({0, 0, 0}, {7, 8, 9});
    bool ok = false;
    save(mesh, p, ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(readFile(p), nineHeaderLines(1, 1) + "0 0 0\n3 7 8 9\n");
}

TEST_F(PlyTest, EmptyMeshGivesTheNineHeaderLinesAlone) {
    const std::string p = path("empty.ply");
    bool ok = false;
    save(TriMesh(), p, ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(readFile(p), nineHeaderLines(0, 0));
    // And it reads back as an empty mesh.
    TriMesh back;
    load(back, p, ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(back.num_v, 0);
    EXPECT_EQ(back.num_f, 0);
    EXPECT_TRUE(back.vertices.empty());
    EXPECT_TRUE(back.facets.empty());
}

TEST_F(PlyTest, NumbersUseTheDefaultStreamFormat) {
    const std::string p = path("numbers.ply");
    bool ok = false;
    save(makeMesh({1.0f, 0.125f, 1234567.0f, 0.00001f, -3.5f, 123456.0f, 0.1f, 1.0f / 3.0f, -0.0f}, {}), p, ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(readFile(p), nineHeaderLines(3, 0) + "1 0.125 1.23457e+06\n1e-05 -3.5 123456\n0.1 0.333333 -0\n");
}

TEST_F(PlyTest, RoundTripKeepsSixDigitValuesAndFacets) {
    const std::vector<float> vertices = {0.5f, -1.25f, 3.0f, 1234.5f, 0.1f, -0.002f, 7.0f, 8.0f, 9.0f, 1e-3f, 2e5f, -6.5f};
    const std::vector<int32_t> facets = {0, 1, 2, 2, 1, 3, 3, 0, 2};
    const std::string p = path("round.ply");
    bool ok = false;
    save(makeMesh(vertices, facets), p, ok);
    ASSERT_TRUE(ok);
    TriMesh back;
    // A used record: everything in it is replaced.
    back = makeMesh({9, 9, 9, 9, 9, 9}, {0, 1, 1});
    const std::string printed = load(back, p, ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(printed, "reading " + p + "\n");
    EXPECT_EQ(back.num_v, 4);
    EXPECT_EQ(back.num_f, 3);
    EXPECT_EQ(back.vertices, vertices);
    EXPECT_EQ(back.facets, facets);
    EXPECT_EQ(back.vertex_attributes, std::vector<int32_t>(12, 0));
    ASSERT_EQ(back.vertex_records.size(), 4u);
    EXPECT_EQ(back.vertex_records[3].enabled, 1);
    EXPECT_EQ(back.vertex_records[3].marks[1], 255);
    EXPECT_TRUE(back.valences.empty());
    EXPECT_TRUE(back.num_valences.empty());
}

TEST_F(PlyTest, SavingReplacesAnExistingFileAndLeavesNoTemporary) {
    const std::string p = path("out.ply");
    writeFile(p, "old content that is much longer than the new file will be........................\n");
    bool ok = false;
    save(makeMesh({1, 2, 3}, {}), p, ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(readFile(p), nineHeaderLines(1, 0) + "1 2 3\n");
    EXPECT_EQ(listFolder(), std::vector<std::string>{"out.ply"});
}

TEST_F(PlyTest, SavingIntoAMissingFolderWarnsAndWritesNothing) {
    const std::string p = path("no/such/folder/out.ply");
    bool ok = true;
    const std::string printed = save(makeMesh({1, 2, 3}, {}), p, ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(printed, "saving " + p + "\nWarning: cannot save " + p + "\n");
    EXPECT_TRUE(listFolder().empty());
}

TEST_F(PlyTest, SavingOntoAFolderWarnsAndRemovesTheTemporary) {
    // The temporary file is written, and the rename onto a folder fails.
    std::filesystem::create_directory(dir() / "target");
    const std::string p = path("target");
    bool ok = true;
    const std::string printed = save(makeMesh({1, 2, 3}, {}), p, ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(printed, "saving " + p + "\nWarning: cannot save " + p + "\n");
    EXPECT_EQ(listFolder(), std::vector<std::string>{"target"});
    EXPECT_TRUE(std::filesystem::is_empty(dir() / "target"));
}

TEST_F(PlyTest, SavingIntoAnUnwritableFolderWarnsAndLeavesNoFile) {
    if (geteuid() == 0) GTEST_SKIP() << "permissions do not bind the superuser";
    std::filesystem::create_directory(dir() / "locked");
    ASSERT_EQ(chmod((dir() / "locked").c_str(), 0555), 0);
    const std::string p = path("locked/out.ply");
    bool ok = true;
    const std::string printed = save(makeMesh({1, 2, 3}, {}), p, ok);
    chmod((dir() / "locked").c_str(), 0755);
    EXPECT_FALSE(ok);
    EXPECT_EQ(printed, "saving " + p + "\nWarning: cannot save " + p + "\n");
    EXPECT_TRUE(std::filesystem::is_empty(dir() / "locked"));
}

TEST_F(PlyTest, SavingAMeshWithShortTablesWarns) {
    TriMesh mesh = makeMesh({1, 2, 3}, {});
    mesh.num_v = 2;
    const std::string p = path("out.ply");
    bool ok = true;
    const std::string printed = save(mesh, p, ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(printed, "saving " + p + "\nWarning: cannot save " + p + "\n");
    EXPECT_TRUE(listFolder().empty());
}

// ---- Header walk ----

TEST_F(PlyTest, CommentLinesPassAndTheFirstTokenNeedNotBePly) {
    TriMesh mesh = loadText(
        "hello\n"
        "format ascii 1.0\n"
        "comment made by hand; nothing of this line counts\n"
        "comment another one\n"
        "element vertex 3\nproperty float x\nproperty float y\nproperty float z\n"
        "element face 1\nproperty list uchar int vertex_indices\nend_header\n"
        "0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n");
    EXPECT_EQ(mesh.num_v, 3);
    EXPECT_EQ(mesh.num_f, 1);
    EXPECT_EQ(mesh.vertices, (std::vector<float>{0, 0, 0, 1, 0, 0, 0, 1, 0}));
    EXPECT_EQ(mesh.facets, (std::vector<int32_t>{0, 1, 2}));
}

TEST_F(PlyTest, LineBreaksInTheBodyMeanNothing) {
    TriMesh mesh = loadText(nineHeaderLines(2, 1) + "0.5 0.25\n2 -1\n-2 -3 3\n0\n1 1");
    EXPECT_EQ(mesh.vertices, (std::vector<float>{0.5f, 0.25f, 2, -1, -2, -3}));
    EXPECT_EQ(mesh.facets, (std::vector<int32_t>{0, 1, 1}));
}

TEST_F(PlyTest, FacetsBeforeVerticesInTheHeaderStillReadsVerticesFirst) {
    TriMesh mesh = loadText(
        "ply\nformat ascii 1.0\n"
        "element face 1\nproperty list uchar int vertex_indices\n"
        "element vertex 3\nproperty float x\nproperty float y\nproperty float z\nend_header\n"
        "1 2 3\n4 5 6\n7 8 9\n3 2 1 0\n");
    EXPECT_EQ(mesh.num_v, 3);
    EXPECT_EQ(mesh.num_f, 1);
    EXPECT_EQ(mesh.vertices, (std::vector<float>{1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(mesh.facets, (std::vector<int32_t>{2, 1, 0}));
}

TEST_F(PlyTest, AlphaPropertyDropsOneIntegerPerVertex) {
    TriMesh mesh = loadText(
        "ply\nformat ascii 1.0\nelement vertex 2\nproperty float x\nproperty float y\nproperty float z\n"
        "property uchar alpha\nelement face 1\nproperty list uchar int vertex_indices\nend_header\n"
        "1 2 3 255\n4 5 6 0\n3 0 1 1\n");
    EXPECT_EQ(mesh.vertices, (std::vector<float>{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(mesh.facets, (std::vector<int32_t>{0, 1, 1}));
    EXPECT_EQ(mesh.vertex_attributes, std::vector<int32_t>(6, 0));
}

TEST_F(PlyTest, AlphaCountsWhereverItStands) {
    // Under the face element.
    TriMesh mesh = loadText(
        "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nproperty float y\nproperty float z\n"
        "element face 0\nproperty list uchar int vertex_indices\nproperty uchar alpha\nend_header\n"
        "1 2 3 128\n");
    EXPECT_EQ(mesh.vertices, (std::vector<float>{1, 2, 3}));
    // Before any element, and inside a comment.
    mesh = loadText(
        "ply\nformat ascii 1.0\ncomment property uchar alpha\nelement vertex 2\nproperty float x\n"
        "property float y\nproperty float z\nelement face 0\nend_header\n"
        "1 2 3 7 4 5 6 8\n");
    EXPECT_EQ(mesh.vertices, (std::vector<float>{1, 2, 3, 4, 5, 6}));
}

TEST_F(PlyTest, ListUcharDoesNotSetAlpha) {
    // If the uchar behind "list" set alpha, the body below would be misread
    // and come out short.
    TriMesh mesh = loadText(nineHeaderLines(3, 1) + "1 2 3\n4 5 6\n7 8 9\n3 0 1 2\n");
    EXPECT_EQ(mesh.vertices, (std::vector<float>{1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(mesh.facets, (std::vector<int32_t>{0, 1, 2}));
}

TEST_F(PlyTest, UcharRedDoesNotSetAlpha) {
    // Under the face element (under the vertex element this reader refuses
    // it, see below): the vertices are still read as three values.
    TriMesh mesh = loadText(
        "ply\nformat ascii 1.0\nelement vertex 2\nproperty float x\nproperty float y\nproperty float z\n"
        "element face 0\nproperty uchar red\nend_header\n"
        "1 2 3\n4 5 6\n");
    EXPECT_EQ(mesh.vertices, (std::vector<float>{1, 2, 3, 4, 5, 6}));
}

TEST_F(PlyTest, VertexCoordinatesMayBeOfAnyScalarType) {
    TriMesh mesh = loadText(
        "ply\nformat ascii 1.0\nelement vertex 1\nproperty double x\nproperty double y\nproperty double z\n"
        "element face 0\nend_header\n0.5 0.25 2\n");
    EXPECT_EQ(mesh.vertices, (std::vector<float>{0.5f, 0.25f, 2.0f}));
}

TEST_F(PlyTest, OtherElementsAreWarnedAboutAndPassedOver) {
    const std::string p = path("in.ply");
    TriMesh mesh = loadText(
        "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nproperty float y\nproperty float z\n"
        "element face 0\nproperty list uchar int vertex_indices\n"
        "element material 0\nproperty uchar ambient_red\nend_header\n1 2 3\n",
        "Warning: " + p + " declares an element 'material' that this tool does not read; data of it in the body "
                          "would be misread\n");
    EXPECT_EQ(mesh.vertices, (std::vector<float>{1, 2, 3}));
}

TEST_F(PlyTest, LongHeaderTokensAreTruncatedAndDoNotMatch) {
    const std::string p = path("in.ply");
    const std::string longName(300, 'q');
    // A long token in a comment passes; a long element name is warned about
    // with its first 255 characters; "end_header" followed by more characters
    // is not end_header.
    TriMesh mesh = loadText(
        "ply\nformat ascii 1.0\ncomment " + std::string(5000, 'w') + " end_header" + std::string(400, 'x') +
            "\nelement vertex 1\nproperty float x\nproperty float y\nproperty float z\nelement " + longName +
            " 0\nend_header\n1 2 3\n",
        "Warning: " + p + " declares an element '" + std::string(255, 'q') +
            "' that this tool does not read; data of it in the body would be misread\n");
    EXPECT_EQ(mesh.vertices, (std::vector<float>{1, 2, 3}));
}

TEST_F(PlyTest, AHeaderWithoutElementsGivesAnEmptyMesh) {
    TriMesh mesh = loadText("ply\nformat ascii 1.0\nend_header\n");
    EXPECT_EQ(mesh.num_v, 0);
    EXPECT_EQ(mesh.num_f, 0);
}

TEST_F(PlyTest, TrailingTokensAfterTheBodyAreNotRead) {
    TriMesh mesh = loadText(nineHeaderLines(1, 0) + "1 2 3\nsomething else\n");
    EXPECT_EQ(mesh.vertices, (std::vector<float>{1, 2, 3}));
}

// ---- Refusals ----

TEST_F(PlyTest, MissingFileIsNotFound) {
    const std::string p = path("nowhere.ply");
    TriMesh mesh;
    bool ok = true;
    const std::string printed = load(mesh, p, ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(printed, "reading " + p + "\n" + p + " not found\n");
    EXPECT_EQ(mesh.num_v, 0);
    EXPECT_TRUE(mesh.vertices.empty());
}

TEST_F(PlyTest, EndOfInputBeforeEndHeaderEndsTheWalk) {
    expectRefused("", "Error: <path> ends before end_header\n");
    expectRefused("ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\n",
                  "Error: <path> ends before end_header\n");
    expectRefused("ply\nelement", "Error: <path> ends before end_header\n");
    expectRefused("ply\nproperty uchar", "Error: <path> ends before end_header\n");
}

TEST_F(PlyTest, BinaryFormatsAreRefused) {
    expectRefused("ply\nformat binary_little_endian 1.0\nelement vertex 1\nend_header\n",
                  "Error: <path> is a binary PLY file; this tool reads ASCII PLY\n");
    expectRefused("ply\nformat binary_big_endian 1.0\nelement vertex 1\nend_header\n",
                  "Error: <path> is a binary PLY file; this tool reads ASCII PLY\n");
}

TEST_F(PlyTest, UnreadableAndNegativeCountsAreRefused) {
    expectRefused("ply\nelement vertex abc\nend_header\n",
                  "Error: <path> has no readable vertex count in its header (an int32 must follow 'element "
                  "vertex')\n");
    expectRefused("ply\nelement face 3000000000\nend_header\n",
                  "Error: <path> has no readable face count in its header (an int32 must follow 'element face')\n");
    expectRefused("ply\nelement vertex -1\nend_header\n", "Error: <path> declares a negative vertex count -1\n");
    expectRefused("ply\nelement vertex 0\nelement face -4\nend_header\n",
                  "Error: <path> declares a negative face count -4\n");
}

TEST_F(PlyTest, CountsWhoseTripleOverflowsInt32AreRefused) {
    expectRefused("ply\nelement vertex 715827883\nend_header\n",
                  "Error: <path> declares 715827883 vertices; at most 715827882 are supported\n");
    expectRefused("ply\nelement face 715827883\nend_header\n",
                  "Error: <path> declares 715827883 faces; at most 715827882 are supported\n");
}

TEST_F(PlyTest, LargeCountsWithAShortBodyAreRefusedWithoutAllocatingThem) {
    expectRefused(nineHeaderLines(715827882, 0) + "1 2 3\n",
                  "Error: <path> holds fewer values than its header declares (it ends in vertex 1)\n");
}

TEST_F(PlyTest, ExtraVertexPropertiesAreRefused) {
    const std::string start = "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nproperty float y\n"
                              "property float z\n";
    const std::string rest = "element face 0\nend_header\n1 2 3 4 5 6\n";
    const std::string tail = "'; this tool reads vertices of x, y, z (and uchar alpha) only: convert the mesh first\n";
    expectRefused(start + "property float nx\n" + rest, "Error: <path> declares the vertex property 'nx" + tail);
    expectRefused(start + "property uchar red\n" + rest, "Error: <path> declares the vertex property 'red" + tail);
    expectRefused(start + "property float alpha\n" + rest,
                  "Error: <path> declares the vertex property 'alpha" + tail);
    expectRefused(start + "property list uchar float extra\n" + rest,
                  "Error: <path> declares a list property for its vertices; this tool reads vertices of x, y, z "
                  "(and uchar alpha) only: convert the mesh first\n");
}

TEST_F(PlyTest, ShortBodiesAreRefused) {
    expectRefused(nineHeaderLines(2, 0) + "1 2 3\n4 5\n",
                  "Error: <path> holds fewer values than its header declares (it ends in vertex 1)\n");
    expectRefused(nineHeaderLines(3, 2) + "1 2 3\n4 5 6\n7 8 9\n3 0 1 2\n3 0 1",
                  "Error: <path> holds fewer values than its header declares (it ends in facet 1)\n");
    expectRefused(nineHeaderLines(3, 1) + "1 2 3\n4 5 6\n7 8 9\n",
                  "Error: <path> holds fewer values than its header declares (it ends in facet 0)\n");
    // With alpha, the dropped integer counts as a value too.
    expectRefused("ply\nelement vertex 1\nproperty uchar alpha\nend_header\n1 2 3\n",
                  "Error: <path> holds fewer values than its header declares (it ends in vertex 0)\n");
}

TEST_F(PlyTest, ValuesThatDoNotParseAreRefused) {
    expectRefused(nineHeaderLines(2, 0) + "1 2 3\n4 five 6\n",
                  "Error: <path> holds a value that does not parse in vertex 1\n");
    expectRefused(nineHeaderLines(3, 1) + "1 2 3\n4 5 6\n7 8 9\n3 0 x 2\n",
                  "Error: <path> holds a value that does not parse in facet 0\n");
}

TEST_F(PlyTest, NonTriangleFacetsAreRefused) {
    expectRefused(nineHeaderLines(4, 1) + "0 0 0\n1 0 0\n1 1 0\n0 1 0\n4 0 1 2 3\n",
                  "Error: facet 0 of <path> has 4 vertices; this tool reads triangles only\n");
}

TEST_F(PlyTest, FacetIndicesOutsideTheVerticesAreRefused) {
    expectRefused(nineHeaderLines(3, 2) + "0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n3 2 3 0\n",
                  "Error: facet 1 of <path> refers to vertex 3, outside 0..2\n");
    expectRefused(nineHeaderLines(3, 1) + "0 0 0\n1 0 0\n0 1 0\n3 0 -1 2\n",
                  "Error: facet 0 of <path> refers to vertex -1, outside 0..2\n");
    expectRefused(nineHeaderLines(0, 1) + "3 0 0 0\n",
                  "Error: facet 0 of <path> refers to vertex 0, but the mesh has no vertex\n");
}

}  // namespace
