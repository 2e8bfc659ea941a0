// Fuzz target of the importer's mesh reader (PLY in ASCII and binary, OBJ).
//
// Input: the bytes of a mesh file. They are read as PLY when they start with
// the PLY magic line and as OBJ otherwise, as readMeshFile tells the two
// apart (it takes OBJ by the file's name).
//
// Promises checked: a refusal is a ToolError with a message (anything else
// thrown ends the run as a crash); an accepted mesh has 3 values per vertex
// and per triangle, finite coordinates, indices inside its vertices, at most
// INT32_MAX vertices, no more split polygons than triangles, at least one
// triangle when it is OBJ, and the tool's record made from it (toTriMesh)
// has tables that match its counts.
#include <climits>
#include <cmath>

#include "FuzzTargets.h"
#include "MeshReader.h"
#include "ToolError.h"

namespace tessaline_fuzz {

namespace {

using tessaline_tools::MeshData;

void checkToolRecord(const MeshData& mesh) {
    const TriMesh record = tessaline_tools::toTriMesh(mesh);
    require(record.num_v == mesh.numVertices() && record.num_f == mesh.numFacets(), "the record keeps the counts");
    require(record.vertices.size() == mesh.vertices.size() && record.facets == mesh.facets,
            "the record keeps the tables");
    require(record.vertex_attributes.size() == mesh.vertices.size() &&
                record.vertex_records.size() == size_t(mesh.numVertices()),
            "the record's per-vertex tables match its vertex count");
}

void checkMesh(const MeshData& mesh, bool isObj) {
    require(mesh.vertices.size() % 3 == 0 && mesh.facets.size() % 3 == 0, "whole vertices and triangles");
    require(mesh.numVertices() <= INT32_MAX, "vertex indices fit in int32");
    for (double coordinate : mesh.vertices) require(std::isfinite(coordinate), "coordinates are finite");
    for (int32_t index : mesh.facets) require(index >= 0 && index < mesh.numVertices(), "indices inside the mesh");
    require(mesh.polygonsSplit >= 0 && mesh.polygonsSplit <= mesh.numFacets(), "split polygons made triangles");
    if (isObj) require(mesh.numFacets() > 0, "an accepted OBJ mesh has a face");
    checkToolRecord(mesh);
}

}  // namespace

Outcome fuzzMeshReader(const uint8_t* data, size_t size) {
    const std::string bytes = asString(data, size);
    const bool isPly = tessaline_tools::startsWithPlyMagic(bytes.data(), bytes.size());
    MeshData mesh;
    try {
        CapturedOutput output;  // binary PLY warns of bytes after its last element
        mesh = isPly ? tessaline_tools::parsePlyBytes(bytes, "fuzz.ply")
                     : tessaline_tools::parseObjBytes(bytes, "fuzz.obj");
    } catch (const tessaline_tools::ToolError& refusal) {
        require(refusal.what()[0] != '\0', "a refusal has a message");
        return Outcome::Refused;
    }
    checkMesh(mesh, !isPly);
    return Outcome::Accepted;
}

}  // namespace tessaline_fuzz
