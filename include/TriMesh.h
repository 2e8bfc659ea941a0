// The host record of the surface under refinement: an indexed triangle mesh,
// one attribute record per vertex, and connectivity tables derived from the
// facets.
//
// The record only: it needs no library, and the PLY reader and writer of
// tessaline_scene and the companion tools use it as a plain record. The
// mesh library rebuilds its derived tables (meshConnectivity.h).
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "mycamera.h"

struct ViewSample {
    int32_t index = 0;
    int32_t camera = 0;  // index into TriMesh::mesh_cameras
    float value = 0.0f;
    double u = -1.0;
    double v = -1.0;
};

struct VertexRecord {
    uint8_t no_divide = 0;
    uint8_t inherited_flag = 0;
    uint8_t enabled = 1;
    double position[3] = {0.0, 0.0, 0.0};
    int32_t marks[3] = {0, 255, 0};
    std::vector<ViewSample> views;
    uint8_t tail_flag = 0;
};

struct TriMesh {
    // Primary tables: persist from loading to saving, only ever appended to.
    int32_t num_v = 0;
    int32_t num_f = 0;
    std::vector<float> vertices;             // 3 per vertex
    std::vector<int32_t> facets;             // 3 per facet, winding kept
    std::vector<int32_t> vertex_attributes;  // 3 per vertex
    std::vector<VertexRecord> vertex_records;
    std::vector<mycamera> mesh_cameras;      // stays empty; sizes scratch arrays

    // Derived tables: rebuilt by whoever needs them, stale after any change.
    int32_t num_edges = 0;
    std::vector<std::pair<int32_t, int32_t>> edges;
    std::vector<int32_t> facet_edges;              // 3 per facet: AB, BC, CA
    std::vector<int32_t> num_valences;             // one-ring sizes
    std::vector<std::vector<int32_t>> valences;    // one-rings
    std::vector<std::vector<int32_t>> vertex_facets;

    TriMesh() = default;
    // Empties vertices, vertex_attributes, facets, num_valences and valences;
    // the counts stay as they are (loadPly sets them afterwards).
    void clear() {
        vertices.clear();
        vertex_attributes.clear();
        facets.clear();
        num_valences.clear();
        valences.clear();
    }
};
