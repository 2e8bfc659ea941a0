// The mesh reader: one mesh written in every PLY layout users bring, and as
// OBJ, reads back the same; damaged files are refused by name.
#include "MeshReader.h"
#include "ToolsTestSupport.h"

using namespace tools_test;

namespace {

// Five vertices, one coordinate not a float; a quad and a triangle, which read
// as three triangles.
const double kVertices[5][3] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {0.5, 0.5, 1.1}};
const std::vector<std::vector<int>> kFaces = {{0, 1, 2, 3}, {0, 2, 4}};
const std::vector<int32_t> kTriangles = {0, 1, 2, 0, 2, 3, 0, 2, 4};

struct PlyLayout {
    const char* name;
    const char* format;  // ascii, binary_little_endian, binary_big_endian
    const char* coord;   // type of x, y, z
    const char* count;   // type of a face's corner count
    const char* index;   // type of the corner indices
    bool extras;         // normals, colours, other elements and lists
};

void put(std::string& out, const std::string& type, double v, const std::string& format) {
    if (format == "ascii") {
        std::ostringstream s;
        s.precision(17);
        s << v << ' ';
        out += s.str();
        return;
    }
    char b[8];
    size_t n;
    if (type == "double") { std::memcpy(b, &v, 8), n = 8; }
    else if (type == "float") { const float f = float(v); std::memcpy(b, &f, 4), n = 4; }
    else if (type == "int" || type == "uint") { const int32_t i = int32_t(v); std::memcpy(b, &i, 4), n = 4; }
    else if (type == "short" || type == "ushort") { const int16_t i = int16_t(v); std::memcpy(b, &i, 2), n = 2; }
    else { b[0] = char(int(v)), n = 1; }
    if (format == "binary_big_endian") std::reverse(b, b + n);
    out.append(b, n);
}

std::string plyFile(const PlyLayout& l) {
    const std::string c = l.coord, f = l.format;
    std::string h = "ply\nformat " + f + " 1.0\ncomment made by a test\nelement vertex 5\n";
    h += "property " + c + " x\nproperty " + c + " y\nproperty " + c + " z\n";
    if (l.extras) h += "property " + c + " nx\nproperty uchar red\n";
    if (l.extras) h += "element material 1\nproperty list uchar float weights\nproperty int id\n";
    h += "element face 2\nproperty list " + std::string(l.count) + " " + l.index + " " +
         (l.extras ? "vertex_index" : "vertex_indices") + "\n";
    if (l.extras) h += "property uchar flags\nelement edge 1\nproperty int vertex1\nproperty int vertex2\n";
    h += "end_header\n";
    std::string body;
    for (const auto& v : kVertices) {
        for (double x : v) put(body, c, x, f);
        if (l.extras) put(body, c, -1.0, f), put(body, "uchar", 200, f);
        if (f == "ascii") body += "\n";
    }
    if (l.extras) {
        put(body, "uchar", 2, f), put(body, "float", 0.5, f), put(body, "float", 0.25, f), put(body, "int", 9, f);
        if (f == "ascii") body += "\n";
    }
    for (const auto& face : kFaces) {
        put(body, l.count, double(face.size()), f);
        for (int i : face) put(body, l.index, i, f);
        if (l.extras) put(body, "uchar", 1, f);
        if (f == "ascii") body += "\n";
    }
    if (l.extras) put(body, "int", 0, f), put(body, "int", 1, f);
    return h + body;
}

}  // namespace

TEST(MeshReader, EveryPlyLayoutAndObjReadTheSameMesh) {
    TempFolder dir;
    const std::vector<PlyLayout> layouts = {
        {"ascii float", "ascii", "float", "uchar", "int", false},
        {"ascii double, extras", "ascii", "double", "uchar", "uint", true},
        {"little-endian double, extras", "binary_little_endian", "double", "uchar", "uint", true},
        {"big-endian float, short indices", "binary_big_endian", "float", "uchar", "ushort", true},
        {"big-endian double, int count", "binary_big_endian", "double", "int", "int", false},
        {"little-endian char indices", "binary_little_endian", "float", "short", "char", true},
        {"obj", "", "", "", "", false}};
    for (const PlyLayout& l : layouts) {
        SCOPED_TRACE(l.name);
        const bool obj = std::string(l.name) == "obj";
        writeFile(dir / (obj ? "m.obj" : "m.ply"),
                  obj ? "# a test\nmtllib x.mtl\no thing\nv 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nvt 0 0\nvn 0 0 1\n"
                        "f 1/1/1 2/1/1 3//1 4\r\nv 0.5 0.5 \\\n 1.1\ns off\nf -5 -3 -1\n"
                      : plyFile(l));
        const MeshData m = readMeshFile((dir / (obj ? "m.obj" : "m.ply")).string());
        ASSERT_EQ(m.numVertices(), 5);
        // Doubles stay doubles: only binary floats are narrowed, by the file.
        const bool narrowed = std::string(l.format).rfind("binary", 0) == 0 && std::string(l.coord) == "float";
        const double* want = &kVertices[0][0];
        for (int i = 0; i < 15; ++i) EXPECT_EQ(m.vertices[size_t(i)], narrowed ? double(float(want[i])) : want[i]);
        EXPECT_EQ(m.facets, kTriangles);
        EXPECT_EQ(m.polygonsSplit, 1);
    }
}

TEST(MeshReader, DamagedFilesAreRefused) {
    TempFolder dir;
    const std::string bin = plyFile({"", "binary_little_endian", "float", "uchar", "int", false}),
                      ply = plyFile({"", "ascii", "float", "uchar", "int", false});
    auto replaced = [](std::string s, const std::string& from, const std::string& to) {
        return s.replace(s.find(from), from.size(), to);
    };
    const std::vector<std::pair<std::string, std::string>> cases = {  // contents, message
        {replaced(bin, "face 2", "face 3"), "entry 3 of 3: the file ends"},
        {replaced(ply, "face 2", "face 3"), "entry 3 of 3: the file ends"},
        {bin.substr(0, bin.size() - 5), "the file ends"},
        {replaced(bin, "vertex 5", "vertex 900000000"), "more than the file's data can hold"},
        {replaced(ply, "3 0 2 4", "3 0 2 5"), "refers to vertex 5, but there are 5"},
        {replaced(ply, "3 0 2 4", "3 0 -2 4"), "index -2 is out of range"},
        {replaced(ply, "3 0 2 4", "2 0 2"), "fewer than three corners"},
        {ply + "7 7\n", "values after the last element"},
        {replaced(ply, "property float y", "property float w"), "lacks one of the properties"},
        {replaced(ply, "uchar int", "uchar float"), "must have an integer type"},
        {replaced(ply, "end_header", "end_of_it"), "unknown keyword"},
        {replaced(ply, "ascii 1.0", "utf8 1.0"), "unknown format"},
        {replaced(ply, "1.1000000000000001", "nan"), "\"nan\" is not a finite number"},
        {"obj:v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 0\n", "\"0\" is not a vertex reference"},
        {"obj:v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 4\n", "refers to vertex 4"},
        {"stl:solid x\n", "neither PLY nor .obj"},
        {"", "does not exist"},
    };
    for (const auto& [bytes, message] : cases) {
        SCOPED_TRACE(message);
        const bool other = bytes.size() > 4 && bytes[3] == ':';
        const fs::path p = dir / ("m." + (other ? bytes.substr(0, 3) : std::string("ply")));
        fs::remove(p);
        if (!bytes.empty()) writeFile(p, other ? bytes.substr(4) : bytes);
        const std::string error = errorMessage([&] { readMeshFile(p.string()); });
        EXPECT_NE(error.find(message), std::string::npos) << error;
    }
}
