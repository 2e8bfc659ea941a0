// tessaline._core.Mesh: the tool's mesh record, built from arrays or read
// from a file, with its vertices and facets shown as read-only NumPy views.
#include <climits>
#include <cstdint>
#include <string>

#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/string.h>

#include "MeshFiles.h"
#include "TriMesh.h"

namespace nb = nanobind;

namespace {

// As many as the PLY reader takes: three times the count fits in int32.
constexpr size_t kMaxCount = INT32_MAX / 3;

using VertexInput = nb::ndarray<const float, nb::shape<-1, 3>, nb::c_contig, nb::device::cpu>;
using FacetInput = nb::ndarray<const int64_t, nb::shape<-1, 3>, nb::c_contig, nb::device::cpu>;
using VertexView = nb::ndarray<nb::numpy, const float, nb::shape<-1, 3>>;
using FacetView = nb::ndarray<nb::numpy, const int32_t, nb::shape<-1, 3>>;

// Facet indices must name vertices of the mesh; the message is the PLY
// reader's, with "the mesh" for the file.
void checkFacetIndex(int64_t index, size_t facet, size_t numVertices) {
    if (index >= 0 && uint64_t(index) < numVertices) return;
    std::string message = "facet " + std::to_string(facet) + " of the mesh refers to vertex " + std::to_string(index);
    message += numVertices == 0 ? ", but the mesh has no vertex" : ", outside 0.." + std::to_string(numVertices - 1);
    throw nb::value_error(message.c_str());
}

TriMesh meshFromArrays(const VertexInput& vertices, const FacetInput& facets) {
    const size_t numVertices = vertices.shape(0), numFacets = facets.shape(0);
    if (numVertices > kMaxCount || numFacets > kMaxCount)
        throw nb::value_error(("a mesh holds at most " + std::to_string(kMaxCount) + " vertices and facets").c_str());
    TriMesh mesh;
    mesh.num_v = int32_t(numVertices);
    mesh.num_f = int32_t(numFacets);
    mesh.vertices.assign(vertices.data(), vertices.data() + 3 * numVertices);
    mesh.facets.reserve(3 * numFacets);
    for (size_t k = 0; k < 3 * numFacets; ++k) {
        checkFacetIndex(facets.data()[k], k / 3, numVertices);
        mesh.facets.push_back(int32_t(facets.data()[k]));
    }
    mesh.vertex_attributes.assign(3 * numVertices, 0);
    mesh.vertex_records.assign(numVertices, VertexRecord());
    return mesh;
}

}  // namespace

void bindMesh(nb::module_& m) {
    nb::class_<TriMesh>(m, "Mesh", "A triangle mesh: float32 vertices and int32 facets.")
        .def_static("from_arrays", &meshFromArrays, nb::arg("vertices"), nb::arg("facets"),
                    "Builds a mesh from (n, 3) float32 vertices and (m, 3) int64 facets.")
        .def_static("load", &loadMeshFile, nb::arg("path"), "Reads a PLY or OBJ file.")
        .def("save", &saveMeshFile, nb::arg("path"), "Writes the mesh as binary PLY, OBJ or GLB, by the extension.")
        .def_prop_ro("vertex_count", [](const TriMesh& mesh) { return mesh.num_v; })
        .def_prop_ro("facet_count", [](const TriMesh& mesh) { return mesh.num_f; })
        .def_prop_ro(
            "vertices",
            [](const TriMesh& mesh) { return VertexView(mesh.vertices.data(), {size_t(mesh.num_v), 3}); },
            nb::rv_policy::reference_internal, "The vertices, (n, 3) float32, a read-only view.")
        .def_prop_ro(
            "facets", [](const TriMesh& mesh) { return FacetView(mesh.facets.data(), {size_t(mesh.num_f), 3}); },
            nb::rv_policy::reference_internal, "The facets, (m, 3) int32, a read-only view.");
}
