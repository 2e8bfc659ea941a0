// The optimisation's fast schedule against the reference: the same vertices
// bit for bit, on every backend and thread count; and the pieces it is made
// of (the CPU's row routines, the one-pass band render, renders with a
// facet's columns shared among threads) against the per-element bodies
// they stand in for.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <vector>

#include "DeviceTestSupport.h"
#include "PlaneSceneSupport.h"
#include "backend/CpuBackend.h"
#include "backend/cpu/BandRender.h"
#include "backend/cpu/RowRoutines.h"
#include "zbuffer/ZBufferRender.h"

namespace {

using namespace tessaline;
using namespace tessaline::test;

// The optimisation of the bumpy plane scene on `device` under `schedule`
// and `threads` (0: every core).
std::vector<float> optimise(DeviceHandle device, const PlaneScene& s, OptimizationSchedule schedule, bool firstOrder,
                            int threads = 0) {
    device.context.schedule = schedule;
    device.context.threads = threads;
    std::vector<float> v = s.mesh.vertices;
    const std::vector<uint8_t> pairs(9, 1);
    DeviceStatus status = DeviceStatus::Failed;
    printedBy([&] { status = Integrated_Mesh_Optimization_CUDA(device, optimizationArgs(s, v, pairs, 4, firstOrder)); });
    EXPECT_EQ(status, DeviceStatus::Ok);
    return v;
}

class FastSchedule : public OnEachBackend {};

TEST_P(FastSchedule, GivesTheReferenceVerticesBitForBit) {
    const PlaneScene s(3, 0.03, 0.02f);
    for (bool firstOrder : {true, false}) {
        SCOPED_TRACE(firstOrder ? "first order" : "second order");
        const std::vector<float> reference = optimise(device(), s, OptimizationSchedule::Reference, firstOrder);
        const std::vector<float> fast = optimise(device(), s, OptimizationSchedule::Fast, firstOrder);
        EXPECT_TRUE(sameBits(reference, fast));
        EXPECT_FALSE(sameBits(reference, s.mesh.vertices)) << "nothing moved";
        if (device().backend == DeviceBackend::Cpu) {
            for (int threads : {1, 3}) {
                const std::vector<float> v = optimise(device(), s, OptimizationSchedule::Fast, firstOrder, threads);
                EXPECT_TRUE(sameBits(v, fast)) << threads << " threads";
            }
        }
    }
}

TESSALINE_INSTANTIATE_ON_BACKENDS(FastSchedule);

// The window statistics row by row (8 pixels at once, then the row's tail)
// leave the bytes of the per-pixel body, for sizes around the 8-pixel steps
// and windows that reach holes of the warped image.
TEST(FastScheduleParts, WindowStatisticsRowsLeaveThePerPixelBytes) {
    std::mt19937 rng(17);
    std::uniform_real_distribution<float> grey(0.0f, 255.0f), u(0.0f, 1.0f);
    for (auto [W, H] : {std::pair{5, 5}, {13, 9}, {20, 12}, {64, 48}, {97, 33}})
        for (int h : {1, 2}) {
            SCOPED_TRACE(testing::Message() << W << "x" << H << " h " << h);
            const size_t n = size_t(W) * H;
            std::vector<float> A(n), B(n);
            for (size_t e = 0; e < n; ++e) {
                A[e] = grey(rng);
                B[e] = u(rng) < 0.02f ? -1.0f : 0.7f * A[e] + 0.3f * grey(rng);
            }
            std::vector<uint8_t> mask[2];
            std::vector<float> p[2][5];
            for (int way : {0, 1}) {
                mask[way].assign(n, 7);
                for (auto& plane : p[way]) plane.assign(n, 7.0f);
                const WindowTerms terms{imageView(mask[way].data(), W, H),   imageView(p[way][0].data(), W, H),
                                        imageView(p[way][1].data(), W, H), imageView(p[way][2].data(), W, H),
                                        imageView(p[way][3].data(), W, H), imageView(p[way][4].data(), W, H)};
                const Kernel_Ncc_WindowStatistics k{{imageView<const float>(A.data(), W, H),
                                                     imageView<const float>(B.data(), W, H)},
                                                    terms, h};
                if (way == 1) cpuRows(k, 0, H);
                for (int y = 0; y < H && way == 0; ++y)
                    for (int x = 0; x < W; ++x) k(x, y);
            }
            EXPECT_TRUE(sameBits(mask[0], mask[1]));
            for (int i = 0; i < 5; ++i) EXPECT_TRUE(sameBits(p[0][i], p[1][i])) << "plane " << i;
        }
}

// Overlapping random facets, front and back, many at equal depth, a few
// large: the one-pass band render and the two-pass render with a facet's
// columns shared among 4 threads leave the bytes of the two-pass render
// with one thread per facet.
TEST(FastScheduleParts, BandAndSharedColumnRendersLeaveTheReferenceBytes) {
    const int W = 160, H = 121;
    const mycamera_cuda cam = frontCamera(150.0, 80.3, 60.2);
    std::mt19937 rng(5);
    std::vector<float> v;
    std::vector<int> f;
    addRandomFacets(rng, 600, 0.45f, 0.35f, 0.08f, 2.0f, 5.0f, 0.0f, true, v, f);
    addRandomFacets(rng, 100, 0.45f, 0.35f, 0.5f, 2.0f, 5.0f, 0.0f, true, v, f);
    const int nv = int(v.size() / 3), nf = int(f.size() / 3);
    const size_t n = size_t(W) * H;
    CpuBackend be;
    std::vector<float> projected(3 * size_t(nv));
    be.launch(WideRun{nv}, Kernel_Project_Vertices{nv, v.data(), cam, projected.data()});
    ZRender r[3];
    for (int way = 0; way < 3; ++way) {
        ZRender& x = r[way] = ZRender{std::vector<float>(n, kDepthClear), std::vector<float>(n, 5.0f),
                                      std::vector<float>(n, 6.0f), std::vector<int>(n, -1)};
        std::vector<unsigned long long> keys(n, depthFacetKey(kDepthClear, 0));
        std::vector<uint8_t> candidates(size_t(nf), 0);
        const MeshGeometry mesh{v.data(), nf, f.data()};
        const RenderImages out{imageView(x.depth.data(), W, H), imageView(x.facet.data(), W, H),
                               imageView(x.b.data(), W, H), imageView(x.c.data(), W, H)};
        const ImageView<unsigned long long> keyImage = imageView(keys.data(), W, H);
        if (way == 2)
            renderInBands(be, mesh, cam, keyImage, out, projected.data(), 7);
        else if (way == 1)
            renderDepthKeys(be, mesh, cam, RenderArea{0, 0, W, H}, keyImage, out,
                            FacetWork{4, projected.data(), candidates.data()});
        else
            renderDepthKeys(be, mesh, cam, RenderArea{0, 0, W, H}, keyImage, out);
    }
    EXPECT_GT(std::count_if(r[0].facet.begin(), r[0].facet.end(), [](int id) { return id >= 0; }), long(n / 8));
    for (int way : {1, 2}) {
        EXPECT_TRUE(sameBits(r[0].depth, r[way].depth)) << "way " << way;
        EXPECT_TRUE(sameBits(r[0].facet, r[way].facet)) << "way " << way;
        EXPECT_TRUE(sameBits(r[0].b, r[way].b) && sameBits(r[0].c, r[way].c)) << "way " << way;
    }
}

}  // namespace
