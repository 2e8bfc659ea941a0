// The CPU backend's launches split the index space among worker threads:
// every element of the grid, idle tail included, must run exactly once,
// on the serial path of small launches and the parallel path of large ones;
// kernels must therefore stop at their count, as the array fills do.
#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "backend/CpuBackend.h"
#include "optimization/MeshKernels.h"

namespace {

using namespace tessaline;

TEST(CpuBackendLaunch, EveryThreadOfTheGridRunsExactlyOnce) {
    for (int n : {1, 4095, 4096, 100000, 100001}) {
        const long long total = (long long)gridBlocks(n, kWideBlock) * kWideBlock;
        std::vector<std::atomic<int>> runs(size_t(total) + 1);
        CpuBackend().launch(WideRun{n}, [&](int id) { runs[size_t(id)]++; });
        for (long long id = 0; id <= total; ++id) ASSERT_EQ(runs[size_t(id)], id < total ? 1 : 0) << n << " " << id;
    }
    for (auto [w, h] : {std::pair{20, 30}, {64, 64}, {641, 481}, {1000, 7}}) {
        const int spanX = int(gridBlocks(w, kImageBlock)) * kImageBlock;
        const int spanY = int(gridBlocks(h, kImageBlock)) * kImageBlock;
        std::vector<std::atomic<int>> runs(size_t(spanX) * spanY);
        CpuBackend().launch(ImageGrid{w, h}, [&](int x, int y) {
            ASSERT_TRUE(x >= 0 && x < spanX && y >= 0 && y < spanY);
            runs[size_t(y) * spanX + x]++;
        });
        for (size_t e = 0; e < runs.size(); ++e) ASSERT_EQ(runs[e], 1) << w << "x" << h << " " << e;
    }
}

TEST(CpuBackendLaunch, ArrayFillsFillExactlyTheirCount) {
    for (int n : {0, 1, 511, 512, 513}) {
        std::vector<float> f(size_t(n) + 4, -3.0f);
        std::vector<int> i(size_t(n) + 4, -3);
        CpuBackend().launch(WideRun{n}, Kernel_Set_FloatArray{n, f.data(), 2.5f});
        CpuBackend().launch(WideRun{n}, Kernel_Set_IntArray{n, i.data(), 9});
        for (int k = 0; k < n + 4; ++k) {
            ASSERT_EQ(f[k], k < n ? 2.5f : -3.0f) << n << " " << k;
            ASSERT_EQ(i[k], k < n ? 9 : -3) << n << " " << k;
        }
    }
}

}  // namespace
