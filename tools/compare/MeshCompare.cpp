#include "MeshCompare.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <random>
#include <sstream>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

// Point-to-triangle distances come from CGAL's AABB tree: exact distances to
// the nearest facet, with a well-tested hierarchy, instead of our own.
#include <CGAL/AABB_traits.h>
#include <CGAL/AABB_tree.h>
#include <CGAL/AABB_triangle_primitive.h>
#include <CGAL/Simple_cartesian.h>

#include "JsonText.h"

namespace tessaline::compare {

namespace {

using Kernel = CGAL::Simple_cartesian<double>;
using Point = Kernel::Point_3;
using Triangle = Kernel::Triangle_3;
using Primitive = CGAL::AABB_triangle_primitive<Kernel, std::vector<Triangle>::const_iterator>;
using Tree = CGAL::AABB_tree<CGAL::AABB_traits<Kernel, Primitive>>;

Point vertexPoint(const TriMesh& mesh, int32_t i) {
    return Point(mesh.vertices[3 * size_t(i)], mesh.vertices[3 * size_t(i) + 1], mesh.vertices[3 * size_t(i) + 2]);
}

Triangle facetTriangle(const TriMesh& mesh, int32_t f) {
    const int32_t* idx = &mesh.facets[3 * size_t(f)];
    return Triangle(vertexPoint(mesh, idx[0]), vertexPoint(mesh, idx[1]), vertexPoint(mesh, idx[2]));
}

double facetArea(const TriMesh& mesh, int32_t f) { return std::sqrt(facetTriangle(mesh, f).squared_area()); }

// Uniform in [0, 1) from the generator's raw output: std distributions may
// differ between standard libraries, the generator's sequence does not.
double uniform(std::mt19937_64& rng) { return double(rng() >> 11) * 0x1.0p-53; }

double diagonal(const TriMesh& mesh) {
    double lo[3] = {HUGE_VAL, HUGE_VAL, HUGE_VAL}, hi[3] = {-HUGE_VAL, -HUGE_VAL, -HUGE_VAL};
    for (size_t i = 0; i < mesh.vertices.size(); i += 3)
        for (int a = 0; a < 3; ++a) {
            lo[a] = std::min(lo[a], double(mesh.vertices[i + a]));
            hi[a] = std::max(hi[a], double(mesh.vertices[i + a]));
        }
    return std::sqrt((hi[0] - lo[0]) * (hi[0] - lo[0]) + (hi[1] - lo[1]) * (hi[1] - lo[1]) +
                     (hi[2] - lo[2]) * (hi[2] - lo[2]));
}

}  // namespace

std::string checkMesh(const TriMesh& mesh) {
    if (mesh.num_v <= 0 || mesh.num_f <= 0) return "has no facets";
    if (mesh.vertices.size() != 3 * size_t(mesh.num_v) || mesh.facets.size() != 3 * size_t(mesh.num_f))
        return "has tables that do not match its counts";
    for (size_t k = 0; k < mesh.facets.size(); ++k)
        if (mesh.facets[k] < 0 || mesh.facets[k] >= mesh.num_v)
            return "has a facet index outside the vertices (facet " + std::to_string(k / 3) + ")";
    for (float x : mesh.vertices)
        if (!std::isfinite(x)) return "has a coordinate that is not a finite number";
    for (int32_t f = 0; f < mesh.num_f; ++f)
        if (facetArea(mesh, f) > 0.0) return "";
    return "has no facet with a positive area";
}

std::vector<double> sampleSurface(const TriMesh& mesh, size_t count, uint64_t seed) {
    std::vector<double> cumulative(size_t(mesh.num_f));
    double total = 0.0;
    for (int32_t f = 0; f < mesh.num_f; ++f) cumulative[size_t(f)] = total += facetArea(mesh, f);
    std::mt19937_64 rng(seed);
    std::vector<double> points(3 * count);
    for (size_t k = 0; k < count; ++k) {
        // The facet with probability proportional to its area: the first
        // whose running total exceeds a uniform share of the whole. Facets
        // of zero area add nothing to the total and are never chosen.
        const double pick = uniform(rng) * total;
        const size_t f = std::min(size_t(std::upper_bound(cumulative.begin(), cumulative.end(), pick) -
                                         cumulative.begin()),
                                  cumulative.size() - 1);
        // Uniform within the triangle (square-root warp of two uniforms).
        const double s = std::sqrt(uniform(rng)), r = uniform(rng);
        const double w[3] = {1.0 - s, s * (1.0 - r), s * r};
        for (int a = 0; a < 3; ++a) {
            double x = 0.0;
            for (int v = 0; v < 3; ++v) x += w[v] * mesh.vertices[3 * size_t(mesh.facets[3 * f + v]) + a];
            points[3 * k + a] = x;
        }
    }
    return points;
}

std::vector<double> distancesToSurface(const TriMesh& mesh, const std::vector<double>& points) {
    // Degenerate facets are left out: they are no surface of their own (a
    // segment or point), and the tree's distance test wants real triangles.
    std::vector<Triangle> triangles;
    for (int32_t f = 0; f < mesh.num_f; ++f)
        if (facetArea(mesh, f) > 0.0) triangles.push_back(facetTriangle(mesh, f));
    Tree tree(triangles.begin(), triangles.end());
    // Build both hierarchies before the parallel queries.
    tree.build();
    tree.accelerate_distance_queries();
    const size_t n = points.size() / 3;
    std::vector<double> distances(n);
    // One output per point: the result does not depend on the threads.
    tbb::parallel_for(tbb::blocked_range<size_t>(0, n, 256), [&](const tbb::blocked_range<size_t>& r) {
        for (size_t k = r.begin(); k != r.end(); ++k) {
            const Point p(points[3 * k], points[3 * k + 1], points[3 * k + 2]);
            distances[k] = std::sqrt(tree.squared_distance(p));
        }
    });
    return distances;
}

DistanceStats summarise(std::vector<double> values) {
    DistanceStats stats;
    if (values.empty()) return stats;
    std::sort(values.begin(), values.end());
    double sum = 0.0;
    for (double v : values) sum += v;
    stats.mean = sum / double(values.size());
    auto percentile = [&values](double q) {
        const double h = q * double(values.size() - 1);
        const size_t lo = size_t(std::floor(h));
        const size_t hi = std::min(lo + 1, values.size() - 1);
        return values[lo] + (h - double(lo)) * (values[hi] - values[lo]);
    };
    stats.median = percentile(0.5);
    stats.p90 = percentile(0.9);
    return stats;
}

bool compareMeshes(const TriMesh& reference, const TriMesh& test, size_t samples, MeshComparison& result,
                   std::string& error) {
    if (samples == 0) {
        error = "the number of samples must be at least 1";
        return false;
    }
    for (const auto& [mesh, name] : {std::pair{&reference, "reference"}, std::pair{&test, "test"}}) {
        const std::string problem = checkMesh(*mesh);
        if (!problem.empty()) {
            error = std::string("the ") + name + " mesh " + problem;
            return false;
        }
    }
    result = MeshComparison();
    result.samples = samples;
    result.diagonal = diagonal(reference);
    // Fixed seeds, one per direction, so repeated runs agree exactly.
    result.accuracy = summarise(distancesToSurface(reference, sampleSurface(test, samples, 0x7E57ull)));
    result.completeness = summarise(distancesToSurface(test, sampleSurface(reference, samples, 0x4EFull)));
    return true;
}

std::string comparisonTable(const MeshComparison& r) {
    std::ostringstream out;
    char line[160];
    const double d = r.diagonal > 0.0 ? r.diagonal : 1.0;
    std::snprintf(line, sizeof line, "%-24s %13s %13s %13s\n", "", "mean", "median", "p90");
    out << line;
    for (const auto& [name, s] : {std::pair{"accuracy", r.accuracy}, std::pair{"completeness", r.completeness}}) {
        std::snprintf(line, sizeof line, "%-24s %13.6g %13.6g %13.6g\n", name, s.mean, s.median, s.p90);
        out << line;
        std::snprintf(line, sizeof line, "%-24s %13.6g %13.6g %13.6g\n", "  / reference diagonal", s.mean / d,
                      s.median / d, s.p90 / d);
        out << line;
    }
    std::snprintf(line, sizeof line, "(%zu samples per mesh; reference diagonal %.6g)\n", r.samples, r.diagonal);
    out << line;
    return out.str();
}

using cli::jsonNumber;
using cli::jsonString;

std::string comparisonJson(const MeshComparison& r, const std::string& referencePath, const std::string& testPath) {
    const double d = r.diagonal > 0.0 ? r.diagonal : 1.0;
    std::string out = "{\"reference\": " + jsonString(referencePath) + ", \"test\": " + jsonString(testPath) +
                      ", \"samples\": " + std::to_string(r.samples) + ", \"diagonal\": " + jsonNumber(r.diagonal);
    for (const auto& [name, s] : {std::pair{"accuracy", r.accuracy}, std::pair{"completeness", r.completeness}}) {
        const std::string key = std::string(", \"") + name + "_";
        out += key + "mean\": " + jsonNumber(s.mean) + key + "median\": " + jsonNumber(s.median) + key +
               "p90\": " + jsonNumber(s.p90);
        out += key + "mean_rel\": " + jsonNumber(s.mean / d) + key + "median_rel\": " + jsonNumber(s.median / d) +
               key + "p90_rel\": " + jsonNumber(s.p90 / d);
    }
    return out + "}";
}

}  // namespace tessaline::compare
