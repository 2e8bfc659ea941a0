// Fuzz target of the refiner's PLY reader, loadPlyFromStream.
//
// Input: the bytes of a PLY file.
//
// Promises checked: a refusal prints an "Error: " line and leaves the mesh
// empty (both counts 0, every primary table empty); an accepted mesh has
// tables of exactly 3 values per vertex and per facet, one attribute triple
// and one record per vertex, facet indices inside 0..num_v-1, and finite
// coordinates (the reader's numbers cannot spell a NaN or an infinity).
#include <cmath>
#include <sstream>

#include "FuzzTargets.h"
#include "plyIO.h"

namespace tessaline_fuzz {

namespace {

bool isEmpty(const TriMesh& mesh) {
    return mesh.num_v == 0 && mesh.num_f == 0 && mesh.vertices.empty() && mesh.facets.empty() &&
           mesh.vertex_attributes.empty() && mesh.vertex_records.empty();
}

void checkMesh(const TriMesh& mesh) {
    require(mesh.num_v >= 0 && mesh.num_f >= 0, "counts are not negative");
    const size_t numV = size_t(mesh.num_v), numF = size_t(mesh.num_f);
    require(mesh.vertices.size() == 3 * numV && mesh.facets.size() == 3 * numF, "tables match the counts");
    require(mesh.vertex_attributes.size() == 3 * numV && mesh.vertex_records.size() == numV,
            "per-vertex tables match the vertex count");
    for (int32_t index : mesh.facets) require(index >= 0 && index < mesh.num_v, "facet indices inside the mesh");
    for (float coordinate : mesh.vertices) require(std::isfinite(coordinate), "coordinates are finite");
}

}  // namespace

Outcome fuzzRefinerPly(const uint8_t* data, size_t size) {
    std::istringstream in(asString(data, size));
    TriMesh mesh;
    std::string printed;
    const bool accepted = runCapturingOutput([&] { return loadPlyFromStream(mesh, in, "fuzz.ply"); }, printed);
    if (!accepted) {
        require(hasErrorLine(printed), "a refused mesh prints an Error: line");
        require(isEmpty(mesh), "a refused mesh is left empty");
        return Outcome::Refused;
    }
    checkMesh(mesh);
    return Outcome::Accepted;
}

}  // namespace tessaline_fuzz
