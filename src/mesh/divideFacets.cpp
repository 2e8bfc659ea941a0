// Facet subdivision: split every edge of a selected facet at its
// midpoint, then cut every facet that owns a split edge along the split
// points, so that the mesh stays free of T-junctions in one step.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <utility>
#include <vector>

#include "TriMesh.h"
#include "meshSubdivision.h"

namespace {

// Phase 1, step 3, for one directed pair (P, Q): the index in `edges` of the
// undirected edge {P, Q}, made on first discovery. The lookup is a linear
// search of valences[P], with edge_ids[P] parallel to it (no hash map).
int32_t findOrAddEdge(TriMesh& mesh, std::vector<std::vector<int32_t>>& edge_ids, int32_t P, int32_t Q) {
    const std::vector<int32_t>& ringP = mesh.valences[size_t(P)];
    for (size_t k = 0; k < ringP.size(); ++k)
        if (ringP[k] == Q) return edge_ids[size_t(P)][k];
    const int32_t e = int32_t(mesh.edges.size());
    mesh.valences[size_t(P)].push_back(Q);
    mesh.num_valences[size_t(P)] += 1;
    mesh.valences[size_t(Q)].push_back(P);
    mesh.num_valences[size_t(Q)] += 1;
    edge_ids[size_t(P)].push_back(e);
    edge_ids[size_t(Q)].push_back(e);
    mesh.edges.emplace_back(P, Q);
    mesh.num_edges += 1;
    return e;
}

// int32 addition with the wrap-around of two's complement, free of the
// undefined behaviour of a signed overflow.
inline int32_t wrappingAdd(int32_t a, int32_t b) { return int32_t(uint32_t(a) + uint32_t(b)); }

inline void appendFacet(std::vector<int32_t>& facets, int32_t a, int32_t b, int32_t c) {
    facets.push_back(a);
    facets.push_back(b);
    facets.push_back(c);
}

inline void setFacet(std::vector<int32_t>& facets, size_t f, int32_t a, int32_t b, int32_t c) {
    facets[3 * f] = a;
    facets[3 * f + 1] = b;
    facets[3 * f + 2] = c;
}

// ---- Phase 1: the edge table. Rebuilds valences, num_valences, edges and
// facet_edges from the facets; returns the index of the first midpoint slot
// of each edge, -1 (none yet).
std::vector<int32_t> buildEdgeTable(TriMesh& mesh, size_t nv, size_t nf) {
    mesh.valences.clear();
    mesh.valences.resize(nv);
    mesh.num_valences.assign(nv, 0);
    std::vector<std::vector<int32_t>> edge_ids(nv);
    mesh.edges.clear();
    mesh.num_edges = 0;
    // A closed mesh has about 1.5 edges per facet.
    mesh.edges.reserve(nf + nf / 2 + 3);
    mesh.facet_edges.assign(3 * nf, -1);
    for (size_t f = 0; f < nf; ++f) {
        const int32_t A = mesh.facets[3 * f], B = mesh.facets[3 * f + 1], C = mesh.facets[3 * f + 2];
        mesh.facet_edges[3 * f] = findOrAddEdge(mesh, edge_ids, A, B);
        mesh.facet_edges[3 * f + 1] = findOrAddEdge(mesh, edge_ids, B, C);
        mesh.facet_edges[3 * f + 2] = findOrAddEdge(mesh, edge_ids, C, A);
    }
    for (size_t i = 0; i < nv; ++i) {
        if (mesh.valences[i].size() != size_t(mesh.num_valences[i])) {
            std::cout << "Warning: valences[i].size() != num_valences[i]" << std::endl;
        }
    }
    return std::vector<int32_t>(mesh.edges.size(), -1);
}

// ---- Phase 2, first half: which edges are split, and the index of each
// midpoint: the first selected facet in index order that reaches an edge
// creates its vertex, in the order k = 0, 1, 2. Returns the split edges in
// the order of their new vertices.
template <class IsSelected>
std::vector<int32_t> chooseSplitEdges(const TriMesh& mesh, size_t nf, int32_t num_v_entry,
                                      const IsSelected& isSelected, std::vector<int32_t>& edge_midpoints) {
    std::vector<int32_t> split_edges;
    for (size_t f = 0; f < nf; ++f) {
        if (!isSelected(f)) continue;
        for (int k = 0; k < 3; ++k) {
            const int32_t e = mesh.facet_edges[3 * f + size_t(k)];
            if (edge_midpoints[size_t(e)] != -1) continue;
            edge_midpoints[size_t(e)] = num_v_entry + int32_t(split_edges.size());
            split_edges.push_back(e);
        }
    }
    return split_edges;
}

// Scratch arrays of the view averaging, one entry per mesh camera.
struct ViewScratch {
    std::vector<float> value_sum;
    std::vector<int32_t> sample_count;
};

// Steps 5 and 6 of a midpoint: a camera sampled exactly twice over both ends
// gives one sample with the mean value. With both lists empty (always so in
// a run) the scratch arrays would stay all zero and give nothing. A
// ViewSample whose camera lies outside mesh_cameras is skipped, so the
// scratch arrays are never indexed past their end.
void averageViews(const VertexRecord& rp, const VertexRecord& rq, ViewScratch& scratch, VertexRecord& record) {
    if (rp.views.empty() && rq.views.empty()) return;
    const size_t num_cameras = scratch.value_sum.size();
    std::fill(scratch.value_sum.begin(), scratch.value_sum.end(), 0.0f);
    std::fill(scratch.sample_count.begin(), scratch.sample_count.end(), 0);
    for (const VertexRecord* r : {&rp, &rq}) {
        for (const ViewSample& s : r->views) {
            if (s.camera < 0 || size_t(s.camera) >= num_cameras) continue;
            scratch.value_sum[size_t(s.camera)] += s.value;
            scratch.sample_count[size_t(s.camera)] += 1;
        }
    }
    for (size_t j = 0; j < num_cameras; ++j) {
        if (scratch.sample_count[j] != 2) continue;
        ViewSample sample;
        sample.index = int32_t(j);
        sample.camera = int32_t(j);
        sample.value = scratch.value_sum[j] * 0.5f;
        sample.u = -1.0;
        sample.v = -1.0;
        record.views.push_back(sample);
    }
}

// ---- Phase 2, second half: the midpoint vertex of edge (P, Q), appended.
void appendMidpoint(TriMesh& mesh, int32_t P, int32_t Q, ViewScratch& scratch) {
    VertexRecord record;  // default attributes

    // Step 1: float sum, widened to double, times 0.5, rounded to float.
    // Step 3 keeps the unrounded product as the record's position.
    float coords[3];
    for (int c = 0; c < 3; ++c) {
        const float sum = mesh.vertices[3 * size_t(P) + c] + mesh.vertices[3 * size_t(Q) + c];
        const double mid = double(sum) * 0.5;
        record.position[c] = mid;
        coords[c] = float(mid);
    }
    // Step 2: int32 sum, times 0.5 in double, truncated towards zero.
    int32_t attributes[3];
    for (int c = 0; c < 3; ++c) {
        const int32_t sum =
            wrappingAdd(mesh.vertex_attributes[3 * size_t(P) + c], mesh.vertex_attributes[3 * size_t(Q) + c]);
        attributes[c] = int32_t(double(sum) * 0.5);
    }
    // Step 4: a flag is inherited only when both ends carry it.
    const VertexRecord& rp = mesh.vertex_records[size_t(P)];
    const VertexRecord& rq = mesh.vertex_records[size_t(Q)];
    record.inherited_flag = (rp.inherited_flag == 1 && rq.inherited_flag == 1) ? 1 : 0;
    record.no_divide = (rp.no_divide == 1 && rq.no_divide == 1) ? 1 : 0;
    averageViews(rp, rq, scratch, record);

    // Step 7: coordinates, attributes and record stay in step. (rp and rq
    // are not used past this point: the push_back may move the records.)
    for (int c = 0; c < 3; ++c) mesh.vertices.push_back(coords[c]);
    for (int c = 0; c < 3; ++c) mesh.vertex_attributes.push_back(attributes[c]);
    mesh.vertex_records.push_back(std::move(record));
    mesh.num_v += 1;
}

// ---- Phase 3, one facet: cut along the midpoints of its split edges. The
// facet keeps its slot for its first child; the others are appended.
void cutFacet(TriMesh& mesh, size_t f, const std::vector<int32_t>& edge_midpoints) {
    const int32_t A = mesh.facets[3 * f], B = mesh.facets[3 * f + 1], C = mesh.facets[3 * f + 2];
    const int32_t Mab = edge_midpoints[size_t(mesh.facet_edges[3 * f])];
    const int32_t Mbc = edge_midpoints[size_t(mesh.facet_edges[3 * f + 1])];
    const int32_t Mca = edge_midpoints[size_t(mesh.facet_edges[3 * f + 2])];
    const int pattern = (Mab != -1 ? 1 : 0) | (Mbc != -1 ? 2 : 0) | (Mca != -1 ? 4 : 0);
    std::vector<int32_t>& F = mesh.facets;
    switch (pattern) {
        case 0:  // none: unchanged
            return;
        case 1:  // AB
            setFacet(F, f, A, Mab, C);
            appendFacet(F, Mab, B, C);
            mesh.num_f += 1;
            return;
        case 2:  // BC
            setFacet(F, f, A, B, Mbc);
            appendFacet(F, A, Mbc, C);
            mesh.num_f += 1;
            return;
        case 4:  // CA
            setFacet(F, f, A, B, Mca);
            appendFacet(F, Mca, B, C);
            mesh.num_f += 1;
            return;
        case 3:  // AB and BC: diagonal A to Mbc
            setFacet(F, f, A, Mab, Mbc);
            appendFacet(F, Mab, B, Mbc);
            appendFacet(F, A, Mbc, C);
            mesh.num_f += 2;
            return;
        case 5:  // AB and CA: diagonal B to Mca
            setFacet(F, f, A, Mab, Mca);
            appendFacet(F, Mab, B, Mca);
            appendFacet(F, Mca, B, C);
            mesh.num_f += 2;
            return;
        case 6:  // BC and CA: diagonal A to Mbc
            setFacet(F, f, A, B, Mbc);
            appendFacet(F, A, Mbc, Mca);
            appendFacet(F, Mca, Mbc, C);
            mesh.num_f += 2;
            return;
        default:  // 7: all three
            setFacet(F, f, A, Mab, Mca);
            appendFacet(F, Mab, B, Mbc);
            appendFacet(F, Mab, Mbc, Mca);
            appendFacet(F, Mca, Mbc, C);
            mesh.num_f += 3;
            return;
    }
}

}  // namespace

void divideFacets(TriMesh& mesh, const std::vector<bool>& facet_divide_indicator) {
    const int32_t num_v_entry = mesh.num_v;
    const int32_t num_f_entry = mesh.num_f;
    const size_t nv = num_v_entry > 0 ? size_t(num_v_entry) : 0;
    const size_t nf = num_f_entry > 0 ? size_t(num_f_entry) : 0;

    // On a size mismatch the line is printed and the call goes on, treating
    // bits past the end of a shorter indicator as 0 and ignoring the extra
    // bits of a longer one; nothing is ever read past its end.
    if (facet_divide_indicator.size() != size_t(num_f_entry)) {
        std::cout << "Error: facet_divide_indicator.size() != num_f" << std::endl;
    }
    auto isSelected = [&](size_t f) { return f < facet_divide_indicator.size() && facet_divide_indicator[f]; };

    std::vector<int32_t> edge_midpoints = buildEdgeTable(mesh, nv, nf);

    // The split edges first, then their vertices in that order, with the
    // tables reserved once.
    const std::vector<int32_t> split_edges = chooseSplitEdges(mesh, nf, num_v_entry, isSelected, edge_midpoints);
    const size_t num_new_v = split_edges.size();
    mesh.vertices.reserve(3 * (nv + num_new_v));
    mesh.vertex_attributes.reserve(3 * (nv + num_new_v));
    mesh.vertex_records.reserve(nv + num_new_v);
    const size_t num_cameras = mesh.mesh_cameras.size();
    ViewScratch scratch{std::vector<float>(num_cameras, 0.0f), std::vector<int32_t>(num_cameras, 0)};
    for (const int32_t e : split_edges)
        appendMidpoint(mesh, mesh.edges[size_t(e)].first, mesh.edges[size_t(e)].second, scratch);

    // Each split edge of a facet adds one child, so the growth is known.
    size_t num_new_f = 0;
    for (size_t k = 0; k < 3 * nf; ++k)
        if (edge_midpoints[size_t(mesh.facet_edges[k])] != -1) ++num_new_f;
    mesh.facets.reserve(3 * (nf + num_new_f));
    for (size_t f = 0; f < nf; ++f) cutFacet(mesh, f, edge_midpoints);
}
