// Small synthetic scenes for the refinement engine's tests: a textured plane
// z = 0, cameras in front of it, a grid mesh near it, and the flattened
// one-rings of a mesh. Images are ray cast in double, apart from device code.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <set>
#include <vector>

#include "DeviceTestSupport.h"

namespace tessaline::test {

// cells x cells squares over [-half, half]^2 at height z, two facets per
// square, wound so that the normals point to -z, toward the cameras.
struct GridMesh {
    std::vector<float> vertices;
    std::vector<int> facets;
    int side = 0;  // vertices per row
    int numV() const { return int(vertices.size() / 3); }
    int numF() const { return int(facets.size() / 3); }
    int at(int i, int j) const { return j * side + i; }
};

inline GridMesh makeGridMesh(int cells, double half, double z) {
    GridMesh m;
    m.side = cells + 1;
    for (int j = 0; j <= cells; ++j)
        for (int i = 0; i <= cells; ++i)
            m.vertices.insert(m.vertices.end(),
                              {float(-half + 2.0 * half * i / cells), float(-half + 2.0 * half * j / cells), float(z)});
    for (int j = 0; j < cells; ++j)
        for (int i = 0; i < cells; ++i) {
            const int a = m.at(i, j), b = m.at(i + 1, j), c = m.at(i, j + 1), d = m.at(i + 1, j + 1);
            m.facets.insert(m.facets.end(), {a, c, b, b, c, d});
        }
    return m;
}

// One-ring neighbours (vertices sharing an edge), ascending, flattened.
struct OneRings {
    std::vector<int> list, counts, offsets;
};

inline OneRings oneRingsOf(int numV, const std::vector<int>& facets) {
    std::vector<std::set<int>> ring(numV);
    for (size_t f = 0; f + 2 < facets.size(); f += 3)
        for (int k = 0; k < 3; ++k) {
            ring[facets[f + k]].insert(facets[f + (k + 1) % 3]);
            ring[facets[f + (k + 1) % 3]].insert(facets[f + k]);
        }
    OneRings r;
    for (int v = 0; v < numV; ++v) {
        r.offsets.push_back(int(r.list.size()));
        r.counts.push_back(int(ring[v].size()));
        r.list.insert(r.list.end(), ring[v].begin(), ring[v].end());
    }
    return r;
}

// Camera at (x, y, z) looking at the origin, rows along +y of the world.
inline mycamera_cuda planeCamera(double x, double y, double z, double f, int W, int H) {
    const double c[3] = {x, y, z}, target[3] = {0, 0, 0}, up[3] = {0, -1, 0};
    return lookAtCamera(c, target, up, f, f, 0.5 * (W - 1), 0.5 * (H - 1));
}

// Centre and unit ray of pixel (x, y) of a float camera, in double.
inline void pixelRayD(const mycamera_cuda& cam, double x, double y, double C[3], double r[3]) {
    const double nx = (x - cam.K[2]) / cam.K[0], ny = (y - cam.K[5]) / cam.K[4];
    double len = 0.0;
    for (int k = 0; k < 3; ++k) {
        C[k] = -(double(cam.R[k]) * cam.t[0] + double(cam.R[3 + k]) * cam.t[1] + double(cam.R[6 + k]) * cam.t[2]);
        r[k] = double(cam.R[k]) * nx + double(cam.R[3 + k]) * ny + double(cam.R[6 + k]);
        len += r[k] * r[k];
    }
    for (int k = 0; k < 3; ++k) r[k] /= std::sqrt(len);
}

// Distance along the ray of pixel (x, y) to the plane z = 0.
inline double planeDepth(const mycamera_cuda& cam, int x, int y) {
    double C[3], r[3];
    pixelRayD(cam, x, y, C, r);
    return -C[2] / r[2];
}

// Photograph of the plane with a smooth grey albedo a few pixels across.
inline std::vector<uint8_t> renderPlaneImage(const mycamera_cuda& cam, int W, int H) {
    std::vector<uint8_t> img(size_t(W) * H, 0);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            double C[3], r[3];
            pixelRayD(cam, x, y, C, r);
            const double d = -C[2] / r[2], X = C[0] + d * r[0], Y = C[1] + d * r[1];
            const double g = 128.0 + 55.0 * std::sin(23.0 * X + 3.0) * std::cos(19.0 * Y - 1.0) +
                             35.0 * std::sin(31.0 * X - 17.0 * Y);
            if (d > 0) img[size_t(y) * W + x] = uint8_t(std::lround(std::clamp(g, 0.0, 255.0)));
        }
    return img;
}

// A 4 x 4 grid mesh `offset` from the textured plane z = 0, with random
// bumps in z of up to `bumps`, and up to three 96 x 80 cameras on it.
struct PlaneScene {
    static constexpr int W = 96, H = 80;
    GridMesh mesh;
    OneRings rings;
    std::vector<mycamera_cuda> cameras;
    std::vector<uint8_t> images;

    PlaneScene(int numCameras, double offset, float bumps = 0.0f) : mesh(makeGridMesh(4, 0.5, offset)) {
        unsigned seed = 3;
        for (size_t i = 2; i < mesh.vertices.size(); i += 3, seed = seed * 1103515245u + 12345u)
            mesh.vertices[i] += bumps * (float((seed >> 8) % 2001) / 1000.0f - 1.0f);
        rings = oneRingsOf(mesh.numV(), mesh.facets);
        for (auto c : {std::array{-0.3, 0.0, -2.0}, {0.3, 0.05, -2.0}, {0.0, 0.3, -1.9}})
            if (int(cameras.size()) < numCameras) {
                cameras.push_back(planeCamera(c[0], c[1], c[2], 100.0, W, H));
                const auto img = renderPlaneImage(cameras.back(), W, H);
                images.insert(images.end(), img.begin(), img.end());
            }
    }
};

// The optimisation of scene `s` on `vertices` (the mesh's, or a copy).
inline MeshOptimizationArgs optimizationArgs(const PlaneScene& s, std::vector<float>& vertices,
                                             const std::vector<uint8_t>& pairs, int iterations, bool firstOrder,
                                             int width = PlaneScene::W) {
    MeshOptimizationArgs a;
    a.num_v = s.mesh.numV();
    a.vertices = vertices.data();
    a.num_f = s.mesh.numF();
    a.facets = s.mesh.facets.data();
    a.num_valence_entries = int(s.rings.list.size());
    a.valence_list = s.rings.list.data();
    a.valence_counts = s.rings.counts.data();
    a.valence_offsets = s.rings.offsets.data();
    a.num_cameras = int(s.cameras.size());
    a.width = width;
    a.height = PlaneScene::H;
    a.cameras = s.cameras.data();
    a.images = s.images.data();
    a.iterations = iterations;
    a.pair_mask = pairs.data();
    a.first_order_smoothing = firstOrder;
    return a;
}

}  // namespace tessaline::test
