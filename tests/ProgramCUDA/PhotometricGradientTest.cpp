// Photometric gradient on the CPU backend: the direction of the gradient
// against finite differences of the summed NCC score on a plane scene, the
// cosine limit, and the per-vertex pair counting and normalisation.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "CpuBackend.h"
#include "PlaneSceneSupport.h"
#include "wrappers/IntegratedOptimization.h"

namespace {

using namespace tessaline;
using tessaline::test::GridMesh;

// Three cameras over the textured plane z = 0 and a grid mesh `offset` away
// from it, held by the optimiser's own call record on the CPU backend.
struct PlaneScenePipeline {
    static constexpr int W = 96, H = 80, cams = 3;
    GridMesh mesh;
    tessaline::test::OneRings rings;
    std::vector<mycamera_cuda> cameras;
    std::vector<uint8_t> images;
    std::vector<uint8_t> pairMask;
    MeshOptimizationArgs args;
    CpuBackend be;
    MeshOptimizationCall<CpuBackend> call;

    explicit PlaneScenePipeline(double offset)
        : mesh(tessaline::test::makeGridMesh(4, 0.5, offset)),
          rings(tessaline::test::oneRingsOf(mesh.numV(), mesh.facets)),
          cameras(makeCameras()),
          images(makeImages(cameras)),
          pairMask(cams * cams, 1),
          args{mesh.numV(),   mesh.vertices.data(), mesh.numF(), mesh.facets.data(), int(rings.list.size()),
               rings.list.data(), rings.counts.data(), rings.offsets.data(), cams, W, H, cameras.data(),
               images.data(), 1, pairMask.data(), true},
          call(be, args) {
        call.allocate();
        call.meanDepthPass();
    }

    static std::vector<mycamera_cuda> makeCameras() {
        return {tessaline::test::planeCamera(-0.3, 0.0, -2.0, 100.0, W, H),
                tessaline::test::planeCamera(0.3, 0.05, -2.0, 100.0, W, H),
                tessaline::test::planeCamera(0.0, 0.3, -1.9, 100.0, W, H)};
    }
    static std::vector<uint8_t> makeImages(const std::vector<mycamera_cuda>& cs) {
        std::vector<uint8_t> all;
        for (const auto& c : cs) {
            const auto img = tessaline::test::renderPlaneImage(c, W, H);
            all.insert(all.end(), img.begin(), img.end());
        }
        return all;
    }

    // Runs all pairs on the current device vertices; returns the summed
    // correlation of all valid windows and leaves the normalised gradient.
    double scoreAndGradient(int* validPixels = nullptr) {
        call.beginIteration();
        double score = 0.0;
        int valid = 0;
        for (int i = 0; i < cams; ++i)
            for (int j = 0; j < cams; ++j) {
                if (!call.isPair(i, j)) continue;
                call.pairChain(i, j);
                for (int p = 0; p < W * H; ++p)
                    if (call.ncc.mask[p] == 1) score += call.ncc.cc[p], ++valid;
            }
        call.normalizeGradient();
        if (validPixels) *validPixels = valid;
        return score;
    }
    float* vertex(int v) { return call.d_vertices + 3 * v; }
    const float* gradient(int v) const { return call.GRAD_PHOTO + 3 * v; }

    ~PlaneScenePipeline() { call.release(); }
};

TEST(PhotometricGradient, DescentDirectionAgreesWithFiniteDifferencesOfTheScore) {
    PlaneScenePipeline scene(0.03);
    int valid = 0;
    scene.scoreAndGradient(&valid);
    ASSERT_GT(valid, 3000);
    const int nv = scene.mesh.numV();
    std::vector<float> G(scene.call.GRAD_PHOTO, scene.call.GRAD_PHOTO + 3 * nv);
    float largest = 0.0f;
    for (int v = 0; v < nv; ++v) {
        // The mesh is flat with normals -z: the gradient is along z alone.
        EXPECT_EQ(G[3 * v], 0.0f);
        EXPECT_EQ(G[3 * v + 1], 0.0f);
        largest = std::max(largest, std::fabs(G[3 * v + 2]));
    }
    ASSERT_GT(largest, 0.0f);

    // Central differences of the score for each interior vertex moved in z.
    const float eps = 0.004f;
    int checked = 0;
    for (int j = 1; j < scene.mesh.side - 1; ++j)
        for (int i = 1; i < scene.mesh.side - 1; ++i) {
            const int v = scene.mesh.at(i, j);
            if (std::fabs(G[3 * v + 2]) < 0.2f * largest) continue;
            float* z = scene.vertex(v) + 2;
            const float z0 = *z;
            *z = z0 + eps;
            const double up = scene.scoreAndGradient();
            *z = z0 - eps;
            const double down = scene.scoreAndGradient();
            *z = z0;
            const double slope = (up - down) / (2.0 * eps);
            // Moving along -GRAD_PHOTO raises the score.
            EXPECT_GT(-G[3 * v + 2] * slope, 0.0) << "vertex " << i << "," << j << " slope " << slope;
            ++checked;
        }
    EXPECT_GE(checked, 4);

    // And a small step of all vertices along -GRAD_PHOTO raises it overall.
    const double before = scene.scoreAndGradient();
    for (int v = 0; v < nv; ++v) scene.vertex(v)[2] -= 0.01f * G[3 * v + 2] / largest;
    EXPECT_GT(scene.scoreAndGradient(), before);
}

TEST(PhotometricGradient, PointsTowardTheTrueSurfaceFromEitherSide) {
    for (double offset : {0.03, -0.03}) {
        PlaneScenePipeline scene(offset);
        scene.scoreAndGradient();
        double along = 0.0;
        for (int v = 0; v < scene.mesh.numV(); ++v) along += scene.gradient(v)[2];
        // The step -GRAD_PHOTO moves z toward 0: the gradient has the offset's sign.
        EXPECT_GT(along * offset, 0.0) << "offset " << offset;
    }
}

// A one-pixel gradient setup: the reference looks along +z from the origin
// with its principal point at pixel (px, py), so that pixel's ray is exactly
// (0, 0, 1) and the cosine with a normal (0, 0, nz) is exactly nz.
struct OnePixelGradient {
    static constexpr int W = 40, H = 40, px = 20, py = 20;
    std::vector<int> facets{0, 1, 2};
    std::vector<float> normals{0.0f, 0.0f, -1.0f};
    std::vector<float> depth, baryB, baryC, ncc;
    std::vector<int> facetRef;
    std::vector<uint8_t> mask, stack;
    std::vector<float> grad = std::vector<float>(9, 0.0f), hits = std::vector<float>(3, 0.0f);
    mycamera_cuda ref{}, tar{};

    OnePixelGradient() {
        const size_t n = size_t(W) * H;
        depth.assign(n, 4.0f);
        baryB.assign(n, 0.25f);
        baryC.assign(n, 0.5f);
        ncc.assign(n, 1.0f);
        facetRef.assign(n, 0);
        mask.assign(n, 0);
        mask[size_t(py) * W + px] = 1;
        ref.R[0] = ref.R[4] = ref.R[8] = 1.0f;
        ref.K[0] = ref.K[4] = ref.K[8] = 1.0f;
        ref.K[2] = float(px);
        ref.K[5] = float(py);
        ref.fx = ref.fy = 1.0f;
        // Target: X = (0, 0, z) lands at u = 16.3 + 4/z, v = 17.6, with pw = z.
        tar.P[2] = 16.3f;
        tar.P[3] = 4.0f;
        tar.P[6] = 17.6f;
        tar.P[10] = 1.0f;
        // A ramp in x in the target: a non-zero image gradient there.
        stack.resize(n);
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x) stack[size_t(y) * W + x] = uint8_t(5 * x);
    }

    void run(const uint8_t* maskData = nullptr) {
        CpuBackend be;
        LayeredTexture tex = be.makeLayeredTexture(stack.data(), W, H, 1);
        Kernel_Integrated_AddPhotometricGradient_ImagePair_CUDA k{
            1,           facets.data(), normals.data(), W,           H,        ref,         depth.data(),
            facetRef.data(), 0,         tar,            nullptr,     nullptr,  0,           baryB.data(),
            baryC.data(), ncc.data(),   maskData ? maskData : mask.data(), 1.0f, 1.0f, 3, grad.data(),
            hits.data(), tex};
        be.launch2D(W, H, kImageBlock, kImageBlock, k);
        be.releaseLayeredTexture(tex);
    }
};

TEST(PhotometricGradient, CosineLimitIsTheDoubleMinusOneTenth) {
    // The float nearest -0.1 lies just below the double -0.1: it contributes.
    const float nearest = -0.1f;
    ASSERT_LT(double(nearest), -0.1);
    OnePixelGradient in;
    in.normals[2] = nearest;
    in.run();
    EXPECT_EQ(in.hits, std::vector<float>(3, 1.0f));
    EXPECT_NE(in.grad[2], 0.0f);

    // The next float toward zero is above the limit: no gradient, no hit.
    OnePixelGradient out;
    out.normals[2] = std::nextafter(nearest, 0.0f);
    out.run();
    EXPECT_EQ(out.hits, std::vector<float>(3, 0.0f));
    EXPECT_EQ(out.grad, std::vector<float>(9, 0.0f));
}

TEST(PhotometricGradient, ScattersAlongTheNormalWithBarycentricWeights) {
    OnePixelGradient in;
    in.run();
    // Vertices 0, 1, 2 carry weights 0.25, 0.25, 0.5, all along the normal.
    for (int v = 0; v < 3; ++v) {
        EXPECT_EQ(in.grad[3 * v], 0.0f);
        EXPECT_EQ(in.grad[3 * v + 1], 0.0f);
    }
    EXPECT_NE(in.grad[2], 0.0f);
    EXPECT_FLOAT_EQ(in.grad[5], in.grad[2]);
    EXPECT_FLOAT_EQ(in.grad[8], 2.0f * in.grad[2]);
    // g > 0 says a brighter B lowers the score. The ramp brightens with x,
    // and u = 16.3 + 4/z grows as the point comes toward the camera, so the
    // score rises when the point moves away (+z): the gradient's z, which the
    // descent subtracts, is negative.
    EXPECT_LT(in.grad[2], 0.0f);
}

TEST(PhotometricGradient, ZeroNccGradientStillCountsAHit) {
    OnePixelGradient in;
    in.ncc.assign(in.ncc.size(), 0.0f);
    in.run();
    EXPECT_EQ(in.hits, std::vector<float>(3, 1.0f));
    for (float g : in.grad) EXPECT_EQ(std::fabs(g), 0.0f);
}

TEST(PhotometricGradient, MaskedOutPixelReadsNothingBeyondTheMask) {
    OnePixelGradient in;
    std::vector<uint8_t> none(in.mask.size(), 0);
    none[0] = 2;  // only 1 lets a pixel through
    // Every other per-pixel array is gone: reading one would fault.
    in.depth.clear(), in.baryB.clear(), in.baryC.clear(), in.ncc.clear(), in.facetRef.clear();
    in.run(none.data());
    EXPECT_EQ(in.hits, std::vector<float>(3, 0.0f));
}

TEST(PairCounting, CountsEachVertexOncePerPairAndAveragesOverPairs) {
    CpuBackend be;
    const int nv = 4;
    std::vector<float> count(nv, 0.0f), grad = {3, 6, 9, 1, 1, 1, 5, 5, 5, 2, 4, 8};
    std::vector<uint8_t> updateMask(nv, 9);
    // Pair 1 reached vertices 0 (many pixels) and 2; pair 2 reached vertex 0.
    for (const std::vector<float>& hits : {std::vector<float>{7, 0, 1, 0}, std::vector<float>{2, 0, 0, 0}})
        be.launch1D(nv, kWideBlock, Kernel_Update_Vt_Image_Pair_Count{nv, count.data(), hits.data()});
    EXPECT_EQ(count, (std::vector<float>{2, 0, 1, 0}));
    be.launch1D(nv, kWideBlock, Kernel_Normalize_GRAD_PHOTO{nv, grad.data(), count.data(), updateMask.data()});
    EXPECT_EQ(grad, (std::vector<float>{1.5f, 3, 4.5f, 0, 0, 0, 5, 5, 5, 0, 0, 0}));
    EXPECT_EQ(updateMask, (std::vector<uint8_t>{1, 0, 1, 0}));
}

}  // namespace
