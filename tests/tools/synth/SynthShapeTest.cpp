// The generator's solids and the noisy start: scenes made without the new
// options are those of the earlier generator, box and cylinder are the
// solids they claim to be (flat faces meeting at sharp edges), and the noise
// moves each initial vertex along its direction from the centre by at most
// the amplitude, the same way for the same seed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "../../scene/SceneTestSupport.h"
#include "SynthScene.h"

using namespace tessaline::synth;

namespace {

int runSynth(const std::vector<std::string>& args, std::string& out) {
    return scene_test::runMain(runSynthCommand, "tessaline_synth", args, out);
}

// A tiny scene: three views of 96 x 72, a coarse truth, one ray per pixel.
SynthOptions tinyOptions() {
    SynthOptions o;
    o.views = 3, o.width = 96, o.height = 72, o.truthLevel = 3, o.supersample = 1;
    return o;
}

SynthScene makeScene(const SynthOptions& o) {
    SynthScene scene;
    std::string error;
    EXPECT_TRUE(makeSynthScene(o, scene, error)) << error;
    return scene;
}

// FNV-1a over everything a scene writes: scene file text, both meshes and
// every photograph's pixels.
uint64_t sceneHash(const SynthScene& s) {
    uint64_t h = 0xcbf29ce484222325ull;
    auto add = [&h](const void* data, size_t bytes) {
        for (size_t i = 0; i < bytes; ++i) h = (h ^ static_cast<const uint8_t*>(data)[i]) * 0x100000001b3ull;
    };
    const std::string text = sfmText(s);
    add(text.data(), text.size());
    for (const TriMesh* m : {&s.truth, &s.initial}) {
        add(m->vertices.data(), m->vertices.size() * sizeof(float));
        add(m->facets.data(), m->facets.size() * sizeof(int32_t));
    }
    for (const cv::Mat& image : s.images)
        for (int y = 0; y < image.rows; ++y) add(image.ptr(y), size_t(image.cols));
    return h;
}

TEST(SynthShapes, ScenesWithoutTheNewOptionsAreThoseOfTheEarlierGenerator) {
    // Hashes of the scenes the generator made before it had solids and
    // noise: one with the defaults, one with two rings, another seed and
    // deeper relief. Naming the defaults explicitly changes nothing.
    SynthOptions o = tinyOptions();
    EXPECT_EQ(sceneHash(makeScene(o)), 0x2e442470f303c131ull);
    o.views = 5, o.rings = 2, o.seed = 3, o.detail = 2.0;
    EXPECT_EQ(sceneHash(makeScene(o)), 0x55b7530937694695ull);
    o.form = SynthForm::Blob, o.initialNoise = 0.0;
    EXPECT_EQ(sceneHash(makeScene(o)), 0x55b7530937694695ull);
}

// The largest of |x|/a, |y|/b, |z|/c (box) or of the radial and axial
// ratios (cylinder): 1 on the solid's surface.
double solidGauge(SynthForm form, const double s[3], const float* v) {
    const double q[3] = {v[0] / s[0], v[1] / s[1], v[2] / s[2]};
    if (form == SynthForm::Box) return std::max({std::abs(q[0]), std::abs(q[1]), std::abs(q[2])});
    return std::max(std::sqrt(q[0] * q[0] + q[1] * q[1]), std::abs(q[2]));
}

// Share of the facets whose unit normal lies within 1 degree of `axis`
// (0, 1, 2) either way; axis 3 stands for "perpendicular to z".
double shareOfFacetsFacing(const TriMesh& m, int axis) {
    int count = 0;
    for (int32_t f = 0; f < m.num_f; ++f) {
        const float* a = &m.vertices[3 * size_t(m.facets[3 * f])];
        const float* b = &m.vertices[3 * size_t(m.facets[3 * f + 1])];
        const float* c = &m.vertices[3 * size_t(m.facets[3 * f + 2])];
        const double e1[3] = {double(b[0]) - a[0], double(b[1]) - a[1], double(b[2]) - a[2]};
        const double e2[3] = {double(c[0]) - a[0], double(c[1]) - a[1], double(c[2]) - a[2]};
        const double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                             e1[0] * e2[1] - e1[1] * e2[0]};
        const double l = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
        const double along = axis == 3 ? std::sqrt(std::max(0.0, 1.0 - (n[2] / l) * (n[2] / l))) : std::abs(n[axis]) / l;
        count += along > std::cos(3.14159265358979323846 / 180.0);
    }
    return double(count) / m.num_f;
}

TEST(SynthShapes, BoxAndCylinderAreFlatFacedSolidsWithSharpEdges) {
    SynthOptions o = tinyOptions();
    o.truthLevel = 5, o.detail = 0.0;
    const SynthShape solid;
    const double* s = solid.semiAxes;
    for (const SynthForm form : {SynthForm::Box, SynthForm::Cylinder}) {
        SCOPED_TRACE(form == SynthForm::Box ? "box" : "cylinder");
        o.form = form;
        const SynthScene scene = makeScene(o);
        // Every truth vertex lies on the solid (to the file's six digits) ...
        for (size_t i = 0; i < scene.truth.vertices.size(); i += 3)
            ASSERT_NEAR(solidGauge(form, s, &scene.truth.vertices[i]), 1.0, 2e-6) << "vertex " << i / 3;
        // ... and most facets lie flat in one of its faces: a rounded solid
        // would have few normals within a degree of the face normals.
        const double flat = form == SynthForm::Box ? shareOfFacetsFacing(scene.truth, 0) +
                                                         shareOfFacetsFacing(scene.truth, 1) +
                                                         shareOfFacetsFacing(scene.truth, 2)
                                                   : shareOfFacetsFacing(scene.truth, 2) +
                                                         shareOfFacetsFacing(scene.truth, 3);
        EXPECT_GT(flat, 0.8);
        // The faces reach the half sides: the box's bounding box is the solid's.
        EXPECT_NEAR(scene.boundingBox[5] - scene.boundingBox[2], 2.0 * s[2] + 0.1 * scene.truthDiagonal, 1e-5);
    }
    // Relief still shows on the solids.
    o.form = SynthForm::Box, o.detail = 1.0;
    const SynthScene bumpy = makeScene(o);
    EXPECT_LT(shareOfFacetsFacing(bumpy.truth, 0) + shareOfFacetsFacing(bumpy.truth, 1) +
                  shareOfFacetsFacing(bumpy.truth, 2),
              0.5);
}

// Signed radial shift of each vertex of `noisy` from `smooth`, and the
// largest sideways departure from the smooth vertex's direction.
void radialShifts(const TriMesh& smooth, const TriMesh& noisy, std::vector<double>& shift, double& sideways) {
    shift.clear();
    sideways = 0.0;
    for (size_t i = 0; i < smooth.vertices.size(); i += 3) {
        const float *a = &smooth.vertices[i], *b = &noisy.vertices[i];
        const double ra = std::sqrt(double(a[0]) * a[0] + double(a[1]) * a[1] + double(a[2]) * a[2]);
        double along = 0.0;
        for (int k = 0; k < 3; ++k) along += double(b[k]) * a[k] / ra;
        double side = 0.0;
        for (int k = 0; k < 3; ++k) side += (b[k] - along * a[k] / ra) * (b[k] - along * a[k] / ra);
        shift.push_back(along - ra);
        sideways = std::max(sideways, std::sqrt(side));
    }
}

TEST(SynthShapes, NoiseMovesInitialVerticesAlongTheirDirectionsWithinTheAmplitudeAndRepeats) {
    SynthOptions o = tinyOptions();
    const SynthScene smooth = makeScene(o);
    o.initialNoise = 0.01;
    const SynthScene noisy = makeScene(o), again = makeScene(o);
    ASSERT_EQ(noisy.initial.facets, smooth.initial.facets);
    EXPECT_EQ(noisy.truth.vertices, smooth.truth.vertices);
    EXPECT_EQ(noisy.initial.vertices, again.initial.vertices);

    std::vector<double> shift;
    double sideways = 0.0;
    radialShifts(smooth.initial, noisy.initial, shift, sideways);
    const double amplitude = 0.01 * smooth.truthDiagonal;
    double meanAbs = 0.0, lowest = 0.0, highest = 0.0;
    for (const double d : shift) {
        meanAbs += std::abs(d) / shift.size();
        lowest = std::min(lowest, d), highest = std::max(highest, d);
    }
    EXPECT_LT(sideways, 1e-5);
    EXPECT_LE(highest, amplitude * (1 + 1e-4));
    EXPECT_GE(lowest, -amplitude * (1 + 1e-4));
    // Uniform over [-amplitude, amplitude]: both ways, half the amplitude on
    // average (642 vertices).
    EXPECT_GT(highest, 0.8 * amplitude);
    EXPECT_LT(lowest, -0.8 * amplitude);
    EXPECT_NEAR(meanAbs, 0.5 * amplitude, 0.1 * amplitude);

    o.seed += 1;
    const SynthScene other = makeScene(o);
    std::vector<double> otherShift;
    radialShifts(makeScene([&] { SynthOptions p = o; p.initialNoise = 0.0; return p; }()).initial, other.initial,
                 otherShift, sideways);
    EXPECT_NE(otherShift, shift);
}

TEST(SynthShapes, CommandTakesShapeAndNoiseAndRefusesOthers) {
    const scene_test::TempFolder dir;
    std::string printed;
    ASSERT_EQ(runSynth({dir.path("box"), "--views", "3", "--width", "96", "--height", "72", "--truth-level", "3",
                        "--supersample", "1", "--shape", "box", "--initial-noise", "0.01"},
                       printed),
              0) << printed;
    EXPECT_NE(printed.find("noise up to 0.01"), std::string::npos) << printed;
    EXPECT_TRUE(std::filesystem::exists(dir / "box" / "scene.sfm"));
    const std::vector<std::pair<std::vector<std::string>, std::string>> refused = {
        {{dir.path("a"), "--shape", "torus"}, "--shape"},
        {{dir.path("b"), "--initial-noise", "0.06"}, "--initial-noise must be between 0 and 0.05"},
        {{dir.path("c"), "--initial-noise", "-0.01"}, "--initial-noise must be between 0 and 0.05"}};
    for (const auto& [args, message] : refused) {
        EXPECT_EQ(runSynth(args, printed), 2) << message;
        EXPECT_EQ(printed.rfind("Error: ", 0), 0u) << printed;
        EXPECT_NE(printed.find(message), std::string::npos) << printed;
        EXPECT_FALSE(std::filesystem::exists(args[0]));
    }
}

}  // namespace
