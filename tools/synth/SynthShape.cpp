#include "SynthShape.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <sstream>
#include <utility>

namespace tessaline::synth {

uint64_t SplitMix::next() {
    uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

double SplitMix::uniform() { return double(next() >> 11) * 0x1.0p-53; }

NoiseField makeNoiseField(SplitMix& rng) {
    NoiseField field;
    for (int i = 0; i < 256; ++i) field.perm[i] = uint8_t(i);
    for (int i = 255; i > 0; --i) std::swap(field.perm[i], field.perm[rng.next() % uint64_t(i + 1)]);
    for (int i = 0; i < 256; ++i) field.perm[256 + i] = field.perm[i];
    for (double& o : field.offset) o = 256.0 * rng.uniform();
    return field;
}

namespace {

double fade(double t) { return t * t * t * (t * (t * 6.0 - 15.0) + 10.0); }

double lerp(double a, double b, double t) { return a + t * (b - a); }

// Dot product of the offset with one of twelve edge directions of a cube.
double gradient(int hash, double x, double y, double z) {
    const int h = hash & 15;
    const double u = h < 8 ? x : y;
    const double v = h < 4 ? y : (h == 12 || h == 14 ? x : z);
    return ((h & 1) ? -u : u) + ((h & 2) ? -v : v);
}

}  // namespace

double gradientNoise(const NoiseField& field, double x, double y, double z) {
    x += field.offset[0];
    y += field.offset[1];
    z += field.offset[2];
    const double fx = std::floor(x), fy = std::floor(y), fz = std::floor(z);
    const int X = int(int64_t(fx) & 255), Y = int(int64_t(fy) & 255), Z = int(int64_t(fz) & 255);
    x -= fx;
    y -= fy;
    z -= fz;
    const double u = fade(x), v = fade(y), w = fade(z);
    const auto& p = field.perm;
    const int A = p[X] + Y, AA = p[A] + Z, AB = p[A + 1] + Z;
    const int B = p[X + 1] + Y, BA = p[B] + Z, BB = p[B + 1] + Z;
    return lerp(lerp(lerp(gradient(p[AA], x, y, z), gradient(p[BA], x - 1, y, z), u),
                     lerp(gradient(p[AB], x, y - 1, z), gradient(p[BB], x - 1, y - 1, z), u), v),
                lerp(lerp(gradient(p[AA + 1], x, y, z - 1), gradient(p[BA + 1], x - 1, y, z - 1), u),
                     lerp(gradient(p[AB + 1], x, y - 1, z - 1), gradient(p[BB + 1], x - 1, y - 1, z - 1), u), v),
                w);
}

SynthShape makeSynthShape(uint32_t seed, double detail, SynthForm form) {
    SplitMix rng(0x5EED0000ull ^ uint64_t(seed));
    SynthShape shape;
    shape.form = form;
    shape.detail = detail;
    for (NoiseField& f : shape.relief) f = makeNoiseField(rng);
    shape.inflation = makeNoiseField(rng);
    for (NoiseField& f : shape.albedo) f = makeNoiseField(rng);
    return shape;
}

double baseRadius(const SynthShape& shape, const double d[3]) {
    double s[3];
    for (int a = 0; a < 3; ++a) s[a] = d[a] / shape.semiAxes[a];
    switch (shape.form) {
        case SynthForm::Box:
            return 1.0 / std::max({std::abs(s[0]), std::abs(s[1]), std::abs(s[2])});
        case SynthForm::Cylinder:
            return 1.0 / std::max(std::sqrt(s[0] * s[0] + s[1] * s[1]), std::abs(s[2]));
        case SynthForm::Blob:
            break;
    }
    double q = 0.0;
    for (int a = 0; a < 3; ++a) q += s[a] * s[a];
    return 1.0 / std::sqrt(q);
}

double surfaceRadius(const SynthShape& shape, const double d[3], int octaves) {
    const double base = baseRadius(shape, d);
    double relief = 0.0;
    for (int k = 0; k < std::min(octaves, SynthShape::kOctaves); ++k) {
        const double f = SynthShape::kFrequency[k];
        relief += SynthShape::kAmplitude[k] * gradientNoise(shape.relief[k], f * d[0], f * d[1], f * d[2]);
    }
    return base * (1.0 + shape.detail * relief);
}

double surfaceAlbedo(const SynthShape& shape, const double p[3]) {
    // Seven octaves of equal weight, from 1/64 of the finest frequency up to
    // it: every image level sees texture at its own scale. Independent
    // octaves add in quadrature, hence the square root.
    constexpr int kAlbedoOctaves = 7;
    double sum = 0.0, f = shape.finestAlbedoFrequency / 64.0;
    for (int k = 0; k < kAlbedoOctaves; ++k, f *= 2.0)
        sum += gradientNoise(shape.albedo[k], f * p[0], f * p[1], f * p[2]);
    sum /= std::sqrt(double(kAlbedoOctaves));
    // A soft checker with cells of about 8 finest wavelengths adds sharp,
    // high-contrast edges that survive the coarse levels.
    const double fc = 3.14159265358979323846 * shape.finestAlbedoFrequency / 8.0;
    const double s = std::sin(fc * p[0]) * std::sin(fc * p[1]) * std::sin(fc * p[2]);
    const double checker = std::tanh(6.0 * s);
    return std::clamp(0.5 + 0.6 * sum + 0.12 * checker, 0.08, 0.95);
}

void makeIcosphere(TriMesh& mesh, int level) {
    const double g = (1.0 + std::sqrt(5.0)) / 2.0;
    std::vector<double> v = {-1, g, 0, 1, g, 0, -1, -g, 0, 1, -g, 0, 0, -1, g, 0, 1, g,
                             0, -1, -g, 0, 1, -g, g, 0, -1, g, 0, 1, -g, 0, -1, -g, 0, 1};
    std::vector<int32_t> f = {0, 11, 5, 0, 5, 1, 0, 1, 7, 0, 7, 10, 0, 10, 11, 1, 5, 9, 5, 11, 4, 11, 10, 2, 10, 7, 6,
                              7, 1, 8, 3, 9, 4, 3, 4, 2, 3, 2, 6, 3, 6, 8, 3, 8, 9, 4, 9, 5, 2, 4, 11, 6, 2, 10,
                              8, 6, 7, 9, 8, 1};
    auto normalise = [&v](size_t i) {
        const double n = std::sqrt(v[3 * i] * v[3 * i] + v[3 * i + 1] * v[3 * i + 1] + v[3 * i + 2] * v[3 * i + 2]);
        for (int a = 0; a < 3; ++a) v[3 * i + a] /= n;
    };
    for (size_t i = 0; i < v.size() / 3; ++i) normalise(i);
    for (int l = 0; l < level; ++l) {
        std::map<std::pair<int32_t, int32_t>, int32_t> midpoints;
        auto midpoint = [&](int32_t a, int32_t b) {
            const auto key = std::minmax(a, b);
            const auto found = midpoints.find(key);
            if (found != midpoints.end()) return found->second;
            const int32_t m = int32_t(v.size() / 3);
            for (int k = 0; k < 3; ++k) v.push_back(0.5 * (v[3 * a + k] + v[3 * b + k]));
            normalise(size_t(m));
            midpoints.emplace(key, m);
            return m;
        };
        std::vector<int32_t> next;
        next.reserve(4 * f.size());
        for (size_t k = 0; k < f.size(); k += 3) {
            const int32_t a = f[k], b = f[k + 1], c = f[k + 2];
            const int32_t ab = midpoint(a, b), bc = midpoint(b, c), ca = midpoint(c, a);
            next.insert(next.end(), {a, ab, ca, b, bc, ab, c, ca, bc, ab, bc, ca});
        }
        f.swap(next);
    }
    // The icosahedron above is wound outwards; check every facet anyway, so
    // that a slip in the table cannot turn facets inside out.
    for (size_t k = 0; k < f.size(); k += 3) {
        const double* a = &v[3 * f[k]];
        const double* b = &v[3 * f[k + 1]];
        const double* c = &v[3 * f[k + 2]];
        const double e1[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]};
        const double e2[3] = {c[0] - a[0], c[1] - a[1], c[2] - a[2]};
        const double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                             e1[0] * e2[1] - e1[1] * e2[0]};
        if (n[0] * (a[0] + b[0] + c[0]) + n[1] * (a[1] + b[1] + c[1]) + n[2] * (a[2] + b[2] + c[2]) < 0.0)
            std::swap(f[k + 1], f[k + 2]);
    }

    mesh = TriMesh();
    mesh.num_v = int32_t(v.size() / 3);
    mesh.num_f = int32_t(f.size() / 3);
    mesh.vertices.assign(v.begin(), v.end());
    for (size_t i = 0; i < v.size(); ++i) mesh.vertices[i] = float(v[i]);
    mesh.facets = std::move(f);
    // The same per-vertex tables as a mesh read from a file.
    mesh.vertex_attributes.assign(3 * size_t(mesh.num_v), 0);
    mesh.vertex_records.assign(size_t(mesh.num_v), VertexRecord{});
}

void addRadialNoise(TriMesh& mesh, double amplitude, uint32_t seed) {
    SplitMix rng(0x0A15E000ull ^ uint64_t(seed));
    for (size_t i = 0; i < mesh.vertices.size(); i += 3) {
        float* v = &mesh.vertices[i];
        const double r = std::sqrt(double(v[0]) * v[0] + double(v[1]) * v[1] + double(v[2]) * v[2]);
        const double shift = amplitude * (2.0 * rng.uniform() - 1.0);
        if (r > 0.0)
            for (int a = 0; a < 3; ++a) v[a] = float(v[a] * ((r + shift) / r));
    }
}

std::vector<double> vertexNormals(const TriMesh& mesh) {
    std::vector<double> n(3 * size_t(mesh.num_v), 0.0);
    for (int32_t k = 0; k < mesh.num_f; ++k) {
        const int32_t* idx = &mesh.facets[3 * size_t(k)];
        const float* a = &mesh.vertices[3 * size_t(idx[0])];
        const float* b = &mesh.vertices[3 * size_t(idx[1])];
        const float* c = &mesh.vertices[3 * size_t(idx[2])];
        const double e1[3] = {double(b[0]) - a[0], double(b[1]) - a[1], double(b[2]) - a[2]};
        const double e2[3] = {double(c[0]) - a[0], double(c[1]) - a[1], double(c[2]) - a[2]};
        // The cross product's length is twice the facet's area: area weights.
        const double fn[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                              e1[0] * e2[1] - e1[1] * e2[0]};
        for (int v = 0; v < 3; ++v)
            for (int a2 = 0; a2 < 3; ++a2) n[3 * size_t(idx[v]) + a2] += fn[a2];
    }
    for (size_t i = 0; i < n.size(); i += 3) {
        const double l = std::sqrt(n[i] * n[i] + n[i + 1] * n[i + 1] + n[i + 2] * n[i + 2]);
        if (l > 0.0)
            for (int a = 0; a < 3; ++a) n[i + a] /= l;
    }
    return n;
}

void roundToFileDigits(TriMesh& mesh) {
    std::ostringstream text;
    for (float& x : mesh.vertices) {
        text.str("");
        text << x;
        x = std::strtof(text.str().c_str(), nullptr);
    }
}

}  // namespace tessaline::synth
