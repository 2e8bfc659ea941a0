// Photometric gradient on the CPU backend: its direction against finite
// differences of the summed NCC score on a plane scene, the cosine limits of
// the integrated and the per-pair kernel, and the per-vertex pair counting
// and normalisation.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "PlaneSceneSupport.h"
#include "backend/CpuBackend.h"
#include "backend/DeviceMemory.h"
#include "backend/cpu/BandRender.h"
#include "optimization/MeshOptimization.h"
#include "optimization/PhotometricGradientKernels.h"

namespace {

using namespace tessaline;

// All pairs on the call's current vertices: the summed correlation of all
// valid windows; GRAD_PHOTO is left normalised.
double score(MeshOptimizationCall<CpuBackend>& call) {
    call.beginIteration();
    double sum = 0.0;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            if (!call.isPair(i, j)) continue;
            call.pairChain(i, j);
            for (int p = 0; p < tessaline::test::PlaneScene::W * tessaline::test::PlaneScene::H; ++p)
                sum += call.ncc.mask[p] == 1 ? call.ncc.cc[p] : 0.0f;
        }
    call.normalizeGradient();
    return sum;
}

TEST(PhotometricGradient, DescentDirectionAgreesWithFiniteDifferencesOfTheScore) {
    // Three cameras and the grid mesh 0.03 behind the plane, in the
    // optimiser's own call record.
    tessaline::test::PlaneScene s(3, 0.03);
    const std::vector<uint8_t> pairs(9, 1);
    const MeshOptimizationArgs args = tessaline::test::optimizationArgs(s, s.mesh.vertices, pairs, 1, true);
    CpuBackend be;
    MeshOptimizationCall<CpuBackend> call(be, args);  // keeps a reference to args
    call.allocate();
    call.meanDepthPass();
    const double start = score(call);
    const int nv = s.mesh.numV();
    const std::vector<float> G(call.GRAD_PHOTO.get(), call.GRAD_PHOTO.get() + 3 * nv);
    float* vertices = call.d_vertices.get();  // host memory on the CPU backend
    float largest = 0.0f, sum = 0.0f;
    for (int v = 0; v < nv; ++v) {
        EXPECT_TRUE(G[3 * v] == 0.0f && G[3 * v + 1] == 0.0f) << v;  // flat mesh, normals along z: so is the gradient
        largest = std::max(largest, std::fabs(G[3 * v + 2]));
        sum += G[3 * v + 2];
    }
    EXPECT_GT(sum, 0.0f);  // the descent moves the mesh toward the plane, -z
    int checked = 0;
    for (int j = 1; j < 4; ++j)
        for (int i = 1; i < 4; ++i) {
            const int v = s.mesh.at(i, j);
            if (std::fabs(G[3 * v + 2]) < 0.2f * largest) continue;
            float& z = vertices[3 * v + 2];
            const float z0 = z;
            z = z0 + 0.004f;
            const double up = score(call);
            z = z0 - 0.004f;
            const double down = score(call);
            z = z0;
            EXPECT_GT(-G[3 * v + 2] * (up - down), 0.0) << "vertex " << i << "," << j;
            ++checked;
        }
    EXPECT_GE(checked, 4);
    for (int v = 0; v < nv; ++v) vertices[3 * v + 2] -= 0.01f * G[3 * v + 2] / largest;
    EXPECT_GT(score(call), start);
    EXPECT_FALSE(be.failed);
}

// One pixel whose ray is exactly (0, 0, 1): the reference looks along +z
// from the origin with its principal point on pixel (20, 20). The target
// sends X = (0, 0, z) to u = 16.3 + 4/z, v = 17.6, over a ramp brightening
// with x. Facet 0 has normal (0, 0, nz), so the cosine is exactly nz. Run by
// the integrated kernel, or by the per-pair one with the ramp bound alone.
struct OnePixel {
    std::vector<float> grad = std::vector<float>(9, 0.0f), hits = std::vector<float>(3, 0.0f);

    explicit OnePixel(float nz, bool perPair = false) {
        const int W = 40, H = 40, n = W * H;
        const std::vector<int> facets{0, 1, 2}, facetRef(n, 0);
        const std::vector<float> normal{0.0f, 0.0f, nz}, depth(n, 4.0f), b(n, 0.25f), c(n, 0.5f), g(n, 1.0f);
        std::vector<uint8_t> mask(n, 0), ramp(n);
        mask[20 * W + 20] = 1;
        for (int e = 0; e < n; ++e) ramp[e] = uint8_t(5 * (e % W));
        mycamera_cuda ref{}, tar{};
        ref.R[0] = ref.R[4] = ref.R[8] = ref.K[0] = ref.K[4] = ref.K[8] = ref.fx = ref.fy = 1.0f;
        ref.K[2] = ref.K[5] = 20.0f;
        tar.P[2] = 16.3f, tar.P[3] = 4.0f, tar.P[6] = 17.6f, tar.P[10] = 1.0f;
        CpuBackend be;
        const FixedPointScale scale = fixedPointScaleFor(1.0f);
        std::vector<unsigned long long> sums(9, 0);
        const FacetNormals mesh{1, facets.data(), normal.data()};
        const RenderedCamera reference{ref, imageView(depth.data(), W, H), imageView(facetRef.data(), W, H),
                                       imageView(b.data(), W, H), imageView(c.data(), W, H)};
        const RenderedCamera target{tar, {}, {}, {}, {}};
        const ConstImageView<float> nccGrad = imageView(g.data(), W, H);
        const ConstImageView<uint8_t> visible = imageView<const uint8_t>(mask.data(), W, H);
        const GradientSums sum{sums.data(), scale.toFixed};
        if (perPair) {
            const auto image = makeImageTexture(be, ramp.data(), W, H);
            const PairSurface<ImageFetch> surface{mesh, {reference, target, ImageFetch{image.view()}}, 1.0f, 1.0f};
            be.launch(ImageGrid{W, H},
                      Kernel_AddPhotometricGradient_ImagePair_CUDA{{surface, nccGrad, visible, sum, hits.data()}});
        } else {
            const auto stack = makeImageStack(be, ramp.data(), W, H, 1);
            const PairSurface<StackLayerFetch> surface{
                mesh, {reference, target, StackLayerFetch{stack.view(), 0}}, 1.0f, 1.0f};
            be.launch(ImageGrid{W, H}, Kernel_Integrated_AddPhotometricGradient_ImagePair_CUDA{
                                           {surface, nccGrad, visible, sum, hits.data()}});
        }
        for (int i = 0; i < 9; ++i) grad[i] = fromFixedPoint(sums[i], scale.toFloat);
    }
};

// The integrated kernel ends a pixel at a cosine above the double -0.1; the
// per-pair kernel lets more grazing pixels through, up to the double -0.01.
// The floats nearest those limits lie on either side of them.
TEST(PhotometricGradient, CosineLimitsAreTheDoublesMinusOneTenthAndMinusOneHundredth) {
    ASSERT_LT(double(-0.1f), -0.1);
    ASSERT_GT(double(-0.01f), -0.01);
    const struct {
        float nz;
        bool perPair, reached;
    } cases[] = {{-0.1f, false, true},  {std::nextafter(-0.1f, 0.0f), false, false},
                 {-0.05f, false, false}, {-0.05f, true, true},
                 {std::nextafter(-0.01f, -1.0f), true, true}, {-0.01f, true, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "cosine " << c.nz << (c.perPair ? ", per pair" : ", integrated"));
        const OnePixel p(c.nz, c.perPair);
        EXPECT_EQ(p.hits, std::vector<float>(3, c.reached ? 1.0f : 0.0f));
        if (!c.reached) {
            EXPECT_EQ(p.grad, std::vector<float>(9, 0.0f));
        }
    }
    // Weights 0.25, 0.25, 0.5 scale one motion along the normal. Moving away
    // (+z) darkens B, which g = 1 says raises the score: the gradient that
    // the descent subtracts has a negative z.
    const OnePixel in(-0.1f);
    EXPECT_LT(in.grad[2], 0.0f);
    EXPECT_EQ(in.grad[5], in.grad[2]);
    EXPECT_FLOAT_EQ(in.grad[8], 2.0f * in.grad[2]);
}

TEST(PairCounting, CountsEachVertexOncePerPairAndAveragesOverPairs) {
    CpuBackend be;
    const FixedPointScale scale = fixedPointScaleFor(1.0f);
    std::vector<float> count(4, 0.0f), grad(12, 7.0f);
    std::vector<unsigned long long> sums;
    for (float g : {3, 6, 9, 1, 1, 1, 5, 5, 5, 2, 4, 8}) sums.push_back(toFixedPoint(g, scale.toFixed));
    std::vector<uint8_t> updateMask(4, 9);
    for (const std::vector<float>& hits : {std::vector<float>{7, 0, 1, 0}, {2, 0, 0, 0}})
        be.launch(WideRun{4}, Kernel_Update_Vt_Image_Pair_Count{4, count.data(), hits.data()});
    be.launch(WideRun{4}, Kernel_Normalize_GRAD_PHOTO{4, grad.data(), count.data(), updateMask.data(), sums.data(),
                                            scale.toFloat});
    EXPECT_EQ(count, (std::vector<float>{2, 0, 1, 0}));
    EXPECT_EQ(grad, (std::vector<float>{1.5f, 3, 4.5f, 0, 0, 0, 5, 5, 5, 0, 0, 0}));
    EXPECT_EQ(updateMask, (std::vector<uint8_t>{1, 0, 1, 0}));
}

}  // namespace
