// The optimisation's fast schedule against the reference: the same vertices
// bit for bit, on every backend and thread count; and the pieces it is made
// of (the CPU's row routines, the one-pass band render, renders with a
// facet's columns shared among threads) against the per-element bodies
// they stand in for.
#include <gtest/gtest.h>

#include <tbb/task_arena.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "DeviceTestSupport.h"
#include "PlaneSceneSupport.h"
#include "backend/CpuBackend.h"
#include "ncc/NccFusedKernels.h"
#include "zbuffer/ZBufferRender.h"

namespace {

using namespace tessaline;
using tessaline::test::PlaneScene;

template <class T>
bool sameBits(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0);
}

// The optimisation of the bumpy plane scene under TESSALINE_SCHEDULE.
std::vector<float> optimise(const DeviceHandle& device, const PlaneScene& s, const char* schedule, bool firstOrder) {
    setenv("TESSALINE_SCHEDULE", schedule, 1);
    std::vector<float> v = s.mesh.vertices;
    const std::vector<uint8_t> pairs(9, 1);
    const MeshOptimizationArgs args = tessaline::test::optimizationArgs(s, v, pairs, 4, firstOrder);
    DeviceStatus status = DeviceStatus::Failed;
    tessaline::test::printedBy([&] { status = Integrated_Mesh_Optimization_CUDA(device, args); });
    unsetenv("TESSALINE_SCHEDULE");
    EXPECT_EQ(status, DeviceStatus::Ok);
    return v;
}

class FastSchedule : public tessaline::test::OnEachBackend {};

TEST_P(FastSchedule, GivesTheReferenceVerticesBitForBit) {
    const PlaneScene s(3, 0.03, 0.02f);
    for (bool firstOrder : {true, false}) {
        const std::vector<float> reference = optimise(device(), s, "reference", firstOrder);
        const std::vector<float> fast = optimise(device(), s, "fast", firstOrder);
        EXPECT_TRUE(sameBits(reference, fast)) << (firstOrder ? "first" : "second") << " order";
        EXPECT_FALSE(sameBits(reference, s.mesh.vertices)) << "nothing moved";
        if (device().backend == DeviceBackend::Cpu) {
            std::vector<float> oneThread;
            tbb::task_arena(1).execute([&] { oneThread = optimise(device(), s, "fast", firstOrder); });
            EXPECT_TRUE(sameBits(oneThread, fast)) << "one thread";
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
            const size_t n = size_t(W) * H;
            std::vector<float> A(n), B(n);
            for (size_t e = 0; e < n; ++e) {
                A[e] = grey(rng);
                B[e] = u(rng) < 0.02f ? -1.0f : 0.7f * A[e] + 0.3f * grey(rng);
            }
            std::vector<uint8_t> mask[2];
            std::vector<float> planes[2][5];
            for (int way : {0, 1}) {
                mask[way].assign(n, 7);
                for (auto& p : planes[way]) p.assign(n, 7.0f);
                const Kernel_Ncc_WindowStatistics k{W,
                                                    H,
                                                    A.data(),
                                                    B.data(),
                                                    mask[way].data(),
                                                    planes[way][0].data(),
                                                    planes[way][1].data(),
                                                    planes[way][2].data(),
                                                    planes[way][3].data(),
                                                    planes[way][4].data(),
                                                    h};
                if (way == 0) {
                    for (int y = 0; y < H; ++y)
                        for (int x = 0; x < W; ++x) k(x, y);
                } else {
                    cpuRows(k, 0, H);
                }
            }
            EXPECT_TRUE(sameBits(mask[0], mask[1])) << W << "x" << H << " h " << h;
            for (int p = 0; p < 5; ++p) EXPECT_TRUE(sameBits(planes[0][p], planes[1][p])) << W << "x" << H << " plane " << p;
        }
}

// Overlapping random facets, front and back, many at equal depth: the
// one-pass band render and the two-pass render with a facet's columns
// shared among 4 threads leave the bytes of the two-pass render with one
// thread per facet.
TEST(FastScheduleParts, BandAndSharedColumnRendersLeaveTheReferenceBytes) {
    const int W = 160, H = 121;
    const double centre[3] = {0, 0, 0}, target[3] = {0, 0, 1}, up[3] = {0, -1, 0};
    const mycamera_cuda cam = tessaline::test::lookAtCamera(centre, target, up, 150.0, 150.0, 80.3, 60.2);
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> U(-1.0f, 1.0f), Z(2.0f, 5.0f);
    std::vector<float> v;
    std::vector<int> f;
    for (int t = 0; t < 700; ++t) {
        const float cx = 0.45f * U(rng), cy = 0.35f * U(rng), cz = float(int(Z(rng)));  // whole depths: ties
        const float size = t % 7 == 0 ? 0.5f : 0.08f;                                     // a few large facets
        for (int k = 0; k < 3; ++k) {
            v.insert(v.end(), {(cx + size * U(rng)) * cz, (cy + size * U(rng)) * cz, cz});
            f.push_back(int(v.size() / 3) - 1);
        }
    }
    const int nv = int(v.size() / 3), nf = int(f.size() / 3);
    const size_t n = size_t(W) * H;
    CpuBackend be;
    std::vector<float> projected(3 * size_t(nv));
    be.launch(WideRun{nv}, Kernel_Project_Vertices{nv, v.data(), cam, projected.data()});
    struct Render {
        std::vector<unsigned long long> keys;
        std::vector<float> depth, b, c;
        std::vector<int> facet;
    } r[3];
    for (int way = 0; way < 3; ++way) {
        r[way] = Render{std::vector<unsigned long long>(n, depthFacetKey(kDepthClear, 0)), std::vector<float>(n, kDepthClear),
                        std::vector<float>(n, 5.0f), std::vector<float>(n, 6.0f), std::vector<int>(n, -1)};
        Render& x = r[way];
        std::vector<uint8_t> candidates(static_cast<size_t>(nf), 0);
        if (way == 0)
            renderDepthKeys(be, v.data(), nf, f.data(), cam, 0, 0, W, H, x.keys.data(), x.depth.data(), x.facet.data(),
                            x.b.data(), x.c.data());
        else if (way == 1)
            renderDepthKeys(be, v.data(), nf, f.data(), cam, 0, 0, W, H, x.keys.data(), x.depth.data(), x.facet.data(),
                            x.b.data(), x.c.data(), 4, projected.data(), candidates.data());
        else
            renderInBands(be, v.data(), nf, f.data(), cam, W, H, x.keys.data(), x.depth.data(), x.facet.data(),
                          x.b.data(), x.c.data(), projected.data(), 7);
    }
    int covered = 0;
    for (size_t e = 0; e < n; ++e) covered += r[0].facet[e] >= 0;
    EXPECT_GT(covered, int(n / 8));
    for (int way : {1, 2}) {
        EXPECT_TRUE(sameBits(r[0].depth, r[way].depth)) << "way " << way;
        EXPECT_TRUE(sameBits(r[0].facet, r[way].facet)) << "way " << way;
        EXPECT_TRUE(sameBits(r[0].b, r[way].b) && sameBits(r[0].c, r[way].c)) << "way " << way;
    }
}

}  // namespace
