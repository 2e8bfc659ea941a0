// Reads the meshes users bring: PLY in ASCII or binary (either byte order,
// any numeric property types, extra properties and elements, polygons) and
// Wavefront OBJ. Polygons are split into triangle fans, keeping their winding.
//
// This is a strict reader of its own rather than a general import library:
// the library at hand accepted a truncated binary PLY and a face count larger
// than the file without a word (filling indices with garbage), duplicated OBJ
// vertices per face corner, and narrowed double coordinates without asking.
// Here every count is checked against the data before anything is sized by
// it, vertices keep their order and number, and coordinates stay double until
// the caller narrows them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "TriMesh.h"

namespace tessaline_tools {

struct MeshData {
    std::vector<double> vertices;  // 3 per vertex, file order
    std::vector<int32_t> facets;   // 3 per triangle
    int64_t polygonsSplit = 0;     // faces with more than three corners

    int64_t numVertices() const { return int64_t(vertices.size() / 3); }
    int64_t numFacets() const { return int64_t(facets.size() / 3); }
};

// PLY when the file starts with the "ply" magic line, OBJ when its name ends
// in .obj. Throws ToolError.
MeshData readMeshFile(const std::string& path);

MeshData readPly(const std::string& path);
MeshData readObj(const std::string& path);

// The same two readers over a file's bytes held in memory; `name` stands for
// the file in messages (the path readers give the file's name). Throw
// ToolError.
MeshData parsePlyBytes(const std::string& bytes, const std::string& name);
MeshData parseObjBytes(const std::string& bytes, const std::string& name);

// True when the first bytes are the PLY magic line "ply" (ended by "\n" or
// "\r"), the test readMeshFile makes on the first 4 bytes of a file.
bool startsWithPlyMagic(const char* bytes, size_t size);

// The tool's mesh record: float coordinates, int32 facets, per-vertex tables
// sized as the PLY reader of the tool sizes them.
TriMesh toTriMesh(const MeshData& mesh);

}  // namespace tessaline_tools
