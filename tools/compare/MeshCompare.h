// Accuracy and completeness of a mesh against a reference mesh.
//
// accuracy:     distances from points sampled on TEST to the REFERENCE surface
//               (is what was built where it should be?)
// completeness: distances from points sampled on REFERENCE to the TEST surface
//               (is all of the reference covered?)
// Points are drawn uniformly by area with a fixed seed, so the same meshes
// always give the same numbers. Distances are exact point-to-triangle
// distances. Each side is summarised by mean, median and 90th percentile,
// absolute and as a fraction of the reference's bounding-box diagonal.
//
// In-process use:
//   tessaline::compare::MeshComparison result;
//   std::string error;
//   if (!compareMeshes(reference, test, 100000, result, error)) ...;
//   result.accuracy.mean / result.diagonal ...
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "TriMesh.h"

namespace tessaline::compare {

struct DistanceStats {
    double mean = 0.0;
    double median = 0.0;
    double p90 = 0.0;
};

struct MeshComparison {
    size_t samples = 0;     // points drawn on each mesh
    double diagonal = 0.0;  // bounding-box diagonal of the reference
    DistanceStats accuracy;
    DistanceStats completeness;
};

// Empty when the mesh can be sampled and measured: at least one facet with
// positive area, every facet index valid, every coordinate finite.
std::string checkMesh(const TriMesh& mesh);

// `count` points (3 coordinates each) drawn uniformly by area over the mesh's
// facets, deterministically from `seed`. The mesh must pass checkMesh.
std::vector<double> sampleSurface(const TriMesh& mesh, size_t count, uint64_t seed);

// Distance from each point (3 coordinates each) to the nearest point of the
// mesh's surface. The mesh must pass checkMesh.
std::vector<double> distancesToSurface(const TriMesh& mesh, const std::vector<double>& points);

// Mean, median and 90th percentile; percentiles interpolate linearly between
// the order statistics (the median of an even count is the mean of the two
// middle values). All 0 for no values.
DistanceStats summarise(std::vector<double> values);

// Both directions with `samples` points on each mesh. Returns false with
// `error` set when a mesh fails checkMesh or samples is 0.
bool compareMeshes(const TriMesh& reference, const TriMesh& test, size_t samples, MeshComparison& result,
                   std::string& error);

// A small human-readable table, and one line of JSON with flat keys
// (accuracy_mean, accuracy_mean_rel, ..., completeness_p90_rel).
std::string comparisonTable(const MeshComparison& result);
std::string comparisonJson(const MeshComparison& result, const std::string& referencePath,
                           const std::string& testPath);

// The command line: tessaline_compare REFERENCE.ply TEST.ply [--samples N]
// [--json]. Returns the process exit status (CommandLine.h: 0 success, 1
// failure, 2 refused command line).
int runCompareCommand(int argc, char** argv);

}  // namespace tessaline::compare
