// The mesh writers read back by readers that share nothing with them:
// tinygltf's loader for .glb, the importer's PLY and OBJ readers; and the
// offset file's reader.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <tiny_gltf.h>

#include "../../scene/SceneTestSupport.h"
#include "CoordinateOffset.h"
#include "AnyMesh.h"
#include "MeshReader.h"
#include "MeshWriters.h"

namespace {

using scene_test::TempFolderTest;
using tessaline::writers::writeMeshFile;

// A tetrahedron with coordinates that few decimal digits cannot hold.
TriMesh tetrahedron() {
    TriMesh mesh;
    mesh.num_v = 4;
    mesh.num_f = 4;
    mesh.vertices = {0.1f, -3.75f, 1e-7f, 12345.678f, 0.333333343f, -2.5f, -0.7f, 9.9e3f, 1.0f / 3.0f, 2.0f, 2.0f, 2.0f};
    mesh.facets = {0, 2, 1, 0, 1, 3, 1, 2, 3, 0, 3, 2};
    return mesh;
}

class MeshWriters : public TempFolderTest {
   protected:
    void write(const std::string& name, const double* offset = nullptr) {
        std::string error;
        ASSERT_TRUE(writeMeshFile(path(name), mesh_, offset, error)) << error;
    }
    void expectSameFacets(const std::vector<int32_t>& facets) const { EXPECT_EQ(facets, mesh_.facets); }
    TriMesh mesh_ = tetrahedron();
};

TEST_F(MeshWriters, BinaryPlyHoldsTheFloatsAndFacets) {
    write("m.ply");
    EXPECT_NE(scene_test::readFile(dir() / "m.ply").find("format binary_little_endian 1.0\n"), std::string::npos);
    const tessaline_tools::MeshData read = tessaline_tools::readPly(path("m.ply"));
    ASSERT_EQ(read.vertices.size(), mesh_.vertices.size());
    for (size_t i = 0; i < read.vertices.size(); ++i) EXPECT_EQ(read.vertices[i], double(mesh_.vertices[i])) << i;
    expectSameFacets(read.facets);
}

TEST_F(MeshWriters, OffsetIsAddedInDoublePrecision) {
    const double offset[3] = {4512345.123456789, -0.5, 1e-3};
    write("m.ply", offset);
    write("m.obj", offset);
    for (const char* name : {"m.ply", "m.obj"}) {
        SCOPED_TRACE(name);
        const tessaline_tools::MeshData read = tessaline_tools::readMeshFile(path(name));
        ASSERT_EQ(read.vertices.size(), mesh_.vertices.size());
        for (size_t i = 0; i < read.vertices.size(); ++i)
            EXPECT_EQ(read.vertices[i], double(mesh_.vertices[i]) + offset[i % 3]) << i;
        expectSameFacets(read.facets);
    }
    EXPECT_NE(scene_test::readFile(dir() / "m.ply").find("property double x\n"), std::string::npos);
}

TEST_F(MeshWriters, ObjRoundTripsEveryFloat) {
    write("m.obj");
    const tessaline_tools::MeshData read = tessaline_tools::readObj(path("m.obj"));
    ASSERT_EQ(read.vertices.size(), mesh_.vertices.size());
    for (size_t i = 0; i < read.vertices.size(); ++i) EXPECT_EQ(float(read.vertices[i]), mesh_.vertices[i]) << i;
    expectSameFacets(read.facets);
}

// The positions and indices as tinygltf's loader finds them through the
// accessors, and the offset as the node's translation.
TEST_F(MeshWriters, GlbIsValidGltfWithTheSameGeometry) {
    const double offset[3] = {1000.25, 0.0, -7.0};
    write("m.glb", offset);
    tinygltf::Model model;
    tinygltf::TinyGLTF loader;
    std::string error, warning;
    ASSERT_TRUE(loader.LoadBinaryFromFile(&model, &error, &warning, path("m.glb"))) << error;
    EXPECT_EQ(model.asset.version, "2.0");
    ASSERT_EQ(model.meshes.size(), 1u);
    const tinygltf::Primitive& primitive = model.meshes[0].primitives.at(0);
    EXPECT_EQ(primitive.mode, TINYGLTF_MODE_TRIANGLES);
    const tinygltf::Accessor& positions = model.accessors.at(size_t(primitive.attributes.at("POSITION")));
    const tinygltf::Accessor& indices = model.accessors.at(size_t(primitive.indices));
    ASSERT_EQ(positions.count, 4u);
    ASSERT_EQ(indices.count, 12u);
    ASSERT_EQ(indices.componentType, TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT);
    EXPECT_EQ(positions.maxValues.at(0), 12345.678f);
    EXPECT_EQ(positions.minValues.at(1), -3.75f);
    auto bytesOf = [&](const tinygltf::Accessor& a) {
        const tinygltf::BufferView& view = model.bufferViews.at(size_t(a.bufferView));
        return model.buffers.at(size_t(view.buffer)).data.data() + view.byteOffset + a.byteOffset;
    };
    EXPECT_EQ(std::memcmp(bytesOf(positions), mesh_.vertices.data(), 48), 0);
    EXPECT_EQ(std::memcmp(bytesOf(indices), mesh_.facets.data(), 48), 0);
    EXPECT_EQ(model.nodes.at(0).translation, std::vector<double>(offset, offset + 3));
}

TEST_F(MeshWriters, RefusesWhatItCannotWriteAndLeavesNothing) {
    std::string error;
    EXPECT_FALSE(writeMeshFile(path("m.stl"), mesh_, nullptr, error));
    EXPECT_NE(error.find(".ply, .obj or .glb"), std::string::npos) << error;
    EXPECT_FALSE(writeMeshFile(path("missing/m.glb"), mesh_, nullptr, error));
    TriMesh short_ = mesh_;
    short_.facets.pop_back();
    EXPECT_FALSE(writeMeshFile(path("m.ply"), short_, nullptr, error));
    EXPECT_TRUE(listFolder().empty());
}

TEST_F(MeshWriters, OffsetFileIsReadExactlyOrRefused) {
    using tessaline::offset::readCoordinateOffset;
    double offset[3] = {1, 2, 3};
    std::string error;
    EXPECT_TRUE(readCoordinateOffset(dir().string(), offset, error));  // no file: no offset
    EXPECT_EQ(offset[0], 0.0);
    scene_test::writeFile(dir() / "offset.txt", "4512345.1234567891 -271828.18284590452 0.10000000000000001\n");
    ASSERT_TRUE(readCoordinateOffset(dir().string(), offset, error)) << error;
    EXPECT_EQ(offset[0], 4512345.1234567891);
    EXPECT_EQ(offset[1], -271828.18284590452);
    EXPECT_EQ(offset[2], 0.1);
    for (const char* bad : {"1 2\n", "1 2 3 4\n", "1 2 nan\n", "x y z\n"}) {
        scene_test::writeFile(dir() / "offset.txt", bad);
        EXPECT_FALSE(readCoordinateOffset(dir().string(), offset, error)) << bad;
        EXPECT_NE(error.find("offset.txt"), std::string::npos);
    }
}

// Which initial meshes the refiner's own reader takes (the rest go to the
// importer's reader).
TEST(AnyMesh, RefinersDialectIsAsciiWithPlainVertices) {
    using tessaline_tools::isRefinerPlyHeader;
    const std::string faces = "element face 1\nproperty list uchar int vertex_indices\nend_header\n";
    const std::string plain = "ply\nformat ascii 1.0\ncomment x\nelement vertex 3\nproperty float x\n"
                              "property float y\nproperty float z\n";
    EXPECT_TRUE(isRefinerPlyHeader(plain + faces));
    EXPECT_TRUE(isRefinerPlyHeader(plain + "property uchar alpha\n" + faces));
    EXPECT_FALSE(isRefinerPlyHeader(plain + "property float nx\n" + faces));
    EXPECT_FALSE(isRefinerPlyHeader(plain + "property list uchar int x\n" + faces));
    EXPECT_FALSE(isRefinerPlyHeader(plain + "element edge 1\nproperty int a\n" + faces));
    EXPECT_FALSE(isRefinerPlyHeader("ply\nformat binary_little_endian 1.0\n" + plain.substr(21) + faces));
    EXPECT_FALSE(isRefinerPlyHeader(plain));  // no end_header
}

}  // namespace
