// Accuracy and completeness against cases with known answers, the summary
// statistics, the meshes that cannot be measured, and the command line.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "../../scene/SceneTestSupport.h"
#include "MeshCompare.h"
#include "SynthShape.h"
#include "plyIO.h"

using namespace tessaline::compare;

namespace {

TriMesh sphere(int level, double radius) {
    TriMesh mesh;
    tessaline::synth::makeIcosphere(mesh, level);
    for (float& x : mesh.vertices) x = float(x * radius);
    return mesh;
}

// `extra` facets (3 indices each) after an n x n grid of squares, two facets
// each, over [0, size]^2 at height z; `extraVertices` after its vertices.
TriMesh grid(int n, double size, double z, std::vector<float> extraVertices = {}, std::vector<int32_t> extra = {}) {
    TriMesh mesh;
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i)
            mesh.vertices.insert(mesh.vertices.end(), {float(size * i / n), float(size * j / n), float(z)});
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const int32_t a = j * (n + 1) + i, b = a + 1, c = a + n + 1, d = c + 1;
            mesh.facets.insert(mesh.facets.end(), {a, b, d, a, d, c});
        }
    mesh.vertices.insert(mesh.vertices.end(), extraVertices.begin(), extraVertices.end());
    mesh.facets.insert(mesh.facets.end(), extra.begin(), extra.end());
    mesh.num_v = int32_t(mesh.vertices.size() / 3);
    mesh.num_f = int32_t(mesh.facets.size() / 3);
    return mesh;
}

MeshComparison compare(const TriMesh& reference, const TriMesh& test, size_t samples = 20000) {
    MeshComparison result;
    std::string error;
    EXPECT_TRUE(compareMeshes(reference, test, samples, result, error)) << error;
    return result;
}

TEST(MeshCompare, KnownDistancesInEachDirectionAndTheSameNumbersOnEveryRun) {
    // Every point of the sphere scaled by 1.01 lies 0.01 times its facet's
    // distance from the centre (within 0.1% of 1 here) outside the unit
    // sphere. Zero-area facets are neither sampled (a point far off the test
    // plane) nor surface (a segment on the reference, nearer to some test
    // points than its plane). The square [0, 1/2]^2 lies on the unit square,
    // whose points are on average (0 + 1/4 + 1/4 + (sqrt(2) + asinh(1)) / 6) / 4
    // = 0.2207 from it.
    struct Case { const char* name; TriMesh reference, test; double accuracy, completeness, tolerance, diagonal; };
    const std::vector<Case> cases = {
        {"scaled sphere", sphere(5, 1.0), sphere(5, 1.01), 0.01, 0.01, 2e-5, 2.0 * std::sqrt(3.0)},
        {"offset plane", grid(8, 1, 0, {0, 0.5f, 0.125f, 1, 0.5f, 0.125f}, {81, 82, 81}),
         grid(5, 1, 0.125, {5, 5, 5, 6, 6, 6}, {36, 37, 36}), 0.125, 0.125, 1e-12, std::sqrt(2.0 + 1.0 / 64)},
        {"quarter", grid(4, 1.0, 0.0), grid(2, 0.5, 0.0), 0.0, 0.2207, 3e-3, std::sqrt(2.0)}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const MeshComparison r = compare(c.reference, c.test), again = compare(c.reference, c.test);
        for (double v : {r.accuracy.mean, r.accuracy.median, r.accuracy.p90}) EXPECT_NEAR(v, c.accuracy, c.tolerance);
        EXPECT_NEAR(r.completeness.mean, c.completeness, c.tolerance);
        EXPECT_NEAR(r.diagonal, c.diagonal, 1e-3);
        EXPECT_TRUE(r.accuracy.mean == again.accuracy.mean && r.completeness.p90 == again.completeness.p90);
    }
}

TEST(MeshCompare, SamplesFollowFacetArea) {
    // Test facets: one of area 1/2 on the reference plane, one of area 3/2 at
    // height 1 above it. Sampling by area puts 3/4 of the points at
    // distance 1; sampling per facet would put half of them there.
    TriMesh test;
    test.vertices = {0.2f, 0.2f, 0, 1.2f, 0.2f, 0, 0.2f, 1.2f, 0, 0, 0, 1, 3, 0, 1, 0, 1, 1};
    test.facets = {0, 1, 2, 3, 4, 5};
    test.num_v = 6, test.num_f = 2;
    const MeshComparison r = compare(grid(2, 4.0, 0.0), test, 100000);
    EXPECT_NEAR(r.accuracy.mean, 0.75, 0.01);
    EXPECT_NEAR(r.accuracy.median, 1.0, 1e-12);
}

TEST(MeshCompare, SummaryInterpolatesBetweenOrderStatistics) {
    const DistanceStats s = summarise({7, 3, 10, 1, 5, 2, 9, 4, 8, 6}), one = summarise({3.0});
    EXPECT_DOUBLE_EQ(s.mean, 5.5);
    EXPECT_DOUBLE_EQ(s.median, 5.5);
    EXPECT_DOUBLE_EQ(s.p90, 9.1);
    EXPECT_TRUE(one.median == 3.0 && one.p90 == 3.0 && summarise({}).mean == 0.0);
}

TEST(MeshCompare, RefusesMeshesThatCannotBeMeasured) {
    const TriMesh good = grid(1, 1.0, 0.0);
    EXPECT_EQ(checkMesh(good), "");
    TriMesh bad[5] = {TriMesh(), good, good, good, good};
    bad[1].facets[4] = good.num_v, bad[2].facets[4] = -1, bad[3].vertices[2] = std::nanf("");
    for (size_t i = 0; i < good.vertices.size(); i += 3) bad[4].vertices[i] = 0.0f;  // all on one line
    const char* messages[5] = {"has no facets", "has a facet index outside the vertices (facet 1)",
                               "has a facet index outside the vertices (facet 1)",
                               "has a coordinate that is not a finite number", "has no facet with a positive area"};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(checkMesh(bad[i]), messages[i]) << "case " << i;
    MeshComparison result;
    std::string error;  // the command line refuses 0 samples before this
    EXPECT_FALSE(compareMeshes(good, good, 0, result, error));
    EXPECT_EQ(error, "the number of samples must be at least 1");
}

// ------------------------------------------------------------ command line

int runCompare(const std::vector<std::string>& args, std::string& out) {
    return scene_test::runMain(runCompareCommand, "tessaline_compare", args, out);
}

TEST(CompareCommand, PrintsATableOrJsonAndRefusesBadInput) {
    const scene_test::TempFolder dir;
    const std::string unit = dir.path("unit.ply"), larger = dir.path("larger.ply"), points = dir.path("points.ply"),
                      missing = dir.path("missing.ply");
    TriMesh mesh = sphere(3, 1.0), noFacets = mesh;
    noFacets.num_f = 0, noFacets.facets.clear();
    scene_test::printedBy([&] { savePly(mesh, unit), savePly(noFacets, points), savePly(sphere(3, 1.02), larger); });

    std::string out;
    ASSERT_EQ(runCompare({unit, larger, "--samples", "2000"}, out), 0) << out;
    for (const char* word : {"accuracy", "completeness", "2000 samples"}) EXPECT_NE(out.find(word), std::string::npos);
    ASSERT_EQ(runCompare({unit, larger, "--samples", "2000", "--json"}, out), 0) << out;
    const std::string json = out.substr(out.rfind("\n{") + 1);  // the last line
    EXPECT_EQ(json.substr(json.size() - 2), "}\n") << out;
    for (const char* key : {"\"accuracy_mean\": 0.0", "\"accuracy_median\": ", "\"accuracy_p90\": ",
                            "\"accuracy_mean_rel\": ", "\"completeness_mean\": 0.0", "\"completeness_p90_rel\": ",
                            "\"samples\": 2000", "\"diagonal\": "})
        EXPECT_NE(json.find(key), std::string::npos) << key << " in " << json;

    // Sample counts out of range are refused as a command line (2); meshes
    // that cannot be read or measured fail the run (1).
    struct Case { std::vector<std::string> args; int status; std::string message; };
    const std::vector<Case> bad = {
        {{unit, unit, "--samples", "0"}, 2, "--samples"}, {{unit, unit, "--samples", "-5"}, 2, "--samples"},
        {{unit, missing}, 1, "Error: cannot read the test mesh " + missing + ": the mesh " + missing + " does not exist\n"},
        {{unit, points}, 1, "Error: the test mesh has no facets\n"}};
    for (const Case& c : bad) {
        EXPECT_EQ(runCompare(c.args, out), c.status) << out;
        EXPECT_NE(out.find(c.message, out.find("Error: ")), std::string::npos) << out;  // on the error line
    }
}

}  // namespace
