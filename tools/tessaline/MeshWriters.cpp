#include "MeshWriters.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include <tiny_gltf.h>

namespace tessaline::writers {

namespace {

namespace fs = std::filesystem;

enum class MeshFormat { Unknown, Ply, Obj, Glb };

MeshFormat formatOf(const std::string& path) {
    std::string ext = fs::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    if (ext == ".ply") return MeshFormat::Ply;
    if (ext == ".obj") return MeshFormat::Obj;
    if (ext == ".glb") return MeshFormat::Glb;
    return MeshFormat::Unknown;
}

bool hasOffset(const double offset[3]) {
    return offset && (offset[0] != 0.0 || offset[1] != 0.0 || offset[2] != 0.0);
}

template <class T>
void appendRaw(std::string& bytes, T value) {
    char raw[sizeof(T)];
    std::memcpy(raw, &value, sizeof(T));
    bytes.append(raw, sizeof(T));  // the build targets little-endian machines only
}

std::string plyBytes(const TriMesh& mesh, const double offset[3]) {
    const bool wide = hasOffset(offset);
    const char* type = wide ? "double" : "float";
    std::ostringstream header;
    header << "ply\nformat binary_little_endian 1.0\ncomment written by tessaline\n"
           << "element vertex " << mesh.num_v << "\nproperty " << type << " x\nproperty " << type
           << " y\nproperty " << type << " z\nelement face " << mesh.num_f
           << "\nproperty list uchar int vertex_indices\nend_header\n";
    std::string bytes = header.str();
    bytes.reserve(bytes.size() + size_t(mesh.num_v) * (wide ? 24 : 12) + size_t(mesh.num_f) * 13);
    for (size_t i = 0; i < size_t(mesh.num_v) * 3; ++i) {
        if (wide)
            appendRaw(bytes, double(mesh.vertices[i]) + offset[i % 3]);
        else
            appendRaw(bytes, mesh.vertices[i]);
    }
    for (size_t k = 0; k < size_t(mesh.num_f); ++k) {
        appendRaw(bytes, uint8_t(3));
        for (int c = 0; c < 3; ++c) appendRaw(bytes, int32_t(mesh.facets[3 * k + size_t(c)]));
    }
    return bytes;
}

std::string objBytes(const TriMesh& mesh, const double offset[3]) {
    const bool wide = hasOffset(offset);
    std::string bytes = "# written by tessaline\n";
    char line[128];
    for (size_t i = 0; i < size_t(mesh.num_v); ++i) {
        const float* v = &mesh.vertices[3 * i];
        if (wide)
            std::snprintf(line, sizeof line, "v %.17g %.17g %.17g\n", double(v[0]) + offset[0],
                          double(v[1]) + offset[1], double(v[2]) + offset[2]);
        else
            std::snprintf(line, sizeof line, "v %.9g %.9g %.9g\n", double(v[0]), double(v[1]), double(v[2]));
        bytes += line;
    }
    for (size_t k = 0; k < size_t(mesh.num_f); ++k) {
        const int32_t* f = &mesh.facets[3 * k];
        std::snprintf(line, sizeof line, "f %lld %lld %lld\n", (long long)f[0] + 1, (long long)f[1] + 1,
                      (long long)f[2] + 1);
        bytes += line;
    }
    return bytes;
}

// The positions' and indices' buffer views and accessors of one primitive.
void addGeometry(tinygltf::Model& model, const TriMesh& mesh) {
    tinygltf::Buffer buffer;
    const size_t positionBytes = size_t(mesh.num_v) * 12, indexBytes = size_t(mesh.num_f) * 12;
    buffer.data.resize(positionBytes + indexBytes);
    std::memcpy(buffer.data.data(), mesh.vertices.data(), positionBytes);
    std::memcpy(buffer.data.data() + positionBytes, mesh.facets.data(), indexBytes);
    model.buffers.push_back(std::move(buffer));

    tinygltf::BufferView positions, indices;
    positions.buffer = indices.buffer = 0;
    positions.byteLength = positionBytes;
    positions.target = TINYGLTF_TARGET_ARRAY_BUFFER;
    indices.byteOffset = positionBytes;
    indices.byteLength = indexBytes;
    indices.target = TINYGLTF_TARGET_ELEMENT_ARRAY_BUFFER;
    model.bufferViews = {positions, indices};

    tinygltf::Accessor position, index;
    position.bufferView = 0;
    position.componentType = TINYGLTF_COMPONENT_TYPE_FLOAT;
    position.count = size_t(mesh.num_v);
    position.type = TINYGLTF_TYPE_VEC3;
    position.minValues = {0.0, 0.0, 0.0};
    position.maxValues = {0.0, 0.0, 0.0};
    for (size_t i = 0; i < size_t(mesh.num_v) * 3; ++i) {
        const double v = mesh.vertices[i];
        if (i < 3 || v < position.minValues[i % 3]) position.minValues[i % 3] = v;
        if (i < 3 || v > position.maxValues[i % 3]) position.maxValues[i % 3] = v;
    }
    index.bufferView = 1;
    index.componentType = TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT;
    index.count = size_t(mesh.num_f) * 3;
    index.type = TINYGLTF_TYPE_SCALAR;
    model.accessors = {position, index};
}

bool glbBytes(const TriMesh& mesh, const double offset[3], std::string& bytes, std::string& error) {
    tinygltf::Model model;
    model.asset.version = "2.0";
    model.asset.generator = "tessaline";
    addGeometry(model, mesh);
    tinygltf::Primitive primitive;
    primitive.attributes["POSITION"] = 0;
    primitive.indices = 1;
    primitive.mode = TINYGLTF_MODE_TRIANGLES;
    tinygltf::Mesh gltfMesh;
    gltfMesh.primitives.push_back(primitive);
    model.meshes.push_back(gltfMesh);
    tinygltf::Node node;
    node.mesh = 0;
    if (hasOffset(offset)) node.translation = {offset[0], offset[1], offset[2]};
    model.nodes.push_back(node);
    tinygltf::Scene scene;
    scene.nodes.push_back(0);
    model.scenes.push_back(scene);
    model.defaultScene = 0;

    std::ostringstream out;
    tinygltf::TinyGLTF writer;
    if (!writer.WriteGltfSceneToStream(&model, out, false, true)) {
        error = "the glTF writer refused the mesh";
        return false;
    }
    bytes = out.str();
    return true;
}

// Writes `bytes` to a temporary file beside `path` and renames it into place.
bool writeAtomically(const std::string& path, const std::string& bytes, std::string& error) {
    const std::string temp = path + ".tmp" + std::to_string(long(getpid()));
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), std::streamsize(bytes.size()));
        out.close();
        if (!out) {
            std::remove(temp.c_str());
            error = "cannot write " + path;
            return false;
        }
    }
    if (std::rename(temp.c_str(), path.c_str()) != 0) {
        std::remove(temp.c_str());
        error = "cannot write " + path;
        return false;
    }
    return true;
}

}  // namespace

bool isWritableMeshPath(const std::string& path) { return formatOf(path) != MeshFormat::Unknown; }

const char* writableMeshExtensions() { return ".ply, .obj or .glb"; }

bool writeMeshFile(const std::string& path, const TriMesh& mesh, const double offset[3], std::string& error) {
    const MeshFormat format = formatOf(path);
    if (format == MeshFormat::Unknown) {
        error = "cannot tell the format of " + path + " from its extension; use " + writableMeshExtensions();
        return false;
    }
    if (mesh.num_v < 0 || mesh.num_f < 0 || mesh.vertices.size() < size_t(mesh.num_v) * 3 ||
        mesh.facets.size() < size_t(mesh.num_f) * 3) {
        error = "the mesh's tables are shorter than its counts; nothing was written";
        return false;
    }
    std::string bytes;
    if (format == MeshFormat::Ply) bytes = plyBytes(mesh, offset);
    if (format == MeshFormat::Obj) bytes = objBytes(mesh, offset);
    if (format == MeshFormat::Glb && !glbBytes(mesh, offset, bytes, error)) return false;
    return writeAtomically(path, bytes, error);
}

}  // namespace tessaline::writers
