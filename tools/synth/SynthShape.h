// The synthetic object: smooth noise, the radial shape function, the albedo
// and the sphere-topology meshes built from them.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "TriMesh.h"

namespace tessaline::synth {

// Small deterministic generator (SplitMix64): the same numbers on every
// platform and standard library, unlike the std distributions.
struct SplitMix {
    uint64_t state;
    explicit SplitMix(uint64_t seed) : state(seed) {}
    uint64_t next();
    double uniform();  // in [0, 1)
};

// Gradient noise on the integer lattice, with a permutation drawn from a
// seed. Values lie in about [-1, 1], smooth (C2) everywhere, 0 at lattice
// points.
struct NoiseField {
    std::array<uint8_t, 512> perm{};
    double offset[3] = {0, 0, 0};  // shifts the lattice off the origin
};
NoiseField makeNoiseField(SplitMix& rng);
double gradientNoise(const NoiseField& field, double x, double y, double z);

// The base solid under the relief. Blob: an ellipsoid, smooth everywhere.
// Box: a box whose half sides are the semi-axes, with sharp edges and
// corners. Cylinder: an upright elliptic cylinder (axis z) with flat caps and
// sharp rims. All three are star-shaped about the origin, so each is a
// radius per direction.
enum class SynthForm { Blob, Box, Cylinder };

struct SynthShape {
    SynthForm form = SynthForm::Blob;
    // Wider than high: seen from the rings, the object then fills a 4:3 frame.
    double semiAxes[3] = {1.0, 0.9, 0.6};
    double detail = 1.0;
    // Relief octaves: frequency on the unit sphere and relative amplitude.
    static constexpr int kOctaves = 4;
    static constexpr double kFrequency[kOctaves] = {1.3, 2.9, 6.1, 12.7};
    static constexpr double kAmplitude[kOctaves] = {0.07, 0.035, 0.018, 0.009};
    NoiseField relief[kOctaves];
    NoiseField inflation;  // low-frequency variation of the initial offset
    NoiseField albedo[7];
    double finestAlbedoFrequency = 32.0;  // set from the pixel footprint
};
SynthShape makeSynthShape(uint32_t seed, double detail, SynthForm form = SynthForm::Blob);

// Distance from the origin to the base solid (no relief) along the unit
// direction d.
double baseRadius(const SynthShape& shape, const double d[3]);

// Distance from the origin to the surface along the unit direction d, with
// the relief octaves 0 .. octaves-1 (SynthShape::kOctaves for the truth).
double surfaceRadius(const SynthShape& shape, const double d[3], int octaves);

// Grey albedo in [0.08, 0.95] at a surface point.
double surfaceAlbedo(const SynthShape& shape, const double p[3]);

// Unit sphere tessellated from an icosahedron, `level` times split into four;
// outward winding (e1 x e2 points away from the centre). 20 * 4^level facets.
void makeIcosphere(TriMesh& mesh, int level);

// Moves every vertex of a unit-sphere mesh to radius(direction) times its
// direction.
template <class RadiusFn>
void displaceSphere(TriMesh& mesh, RadiusFn radius) {
    for (int32_t i = 0; i < mesh.num_v; ++i) {
        const double d[3] = {mesh.vertices[3 * i], mesh.vertices[3 * i + 1], mesh.vertices[3 * i + 2]};
        const double r = radius(d);
        for (int a = 0; a < 3; ++a) mesh.vertices[3 * i + a] = float(d[a] * r);
    }
}

// Moves every vertex along its direction from the origin by an amount drawn
// uniformly from [-amplitude, amplitude], independently per vertex, from a
// generator seeded with `seed` (a stream of its own, so the shape and texture
// of a seed do not change). Vertices at the origin stay.
void addRadialNoise(TriMesh& mesh, double amplitude, uint32_t seed);

// Area-weighted vertex normals, unit length, 3 per vertex.
std::vector<double> vertexNormals(const TriMesh& mesh);

// Rounds every coordinate to what the PLY writer prints (six significant
// digits), so the mesh in memory is the mesh in the file.
void roundToFileDigits(TriMesh& mesh);

}  // namespace tessaline::synth
