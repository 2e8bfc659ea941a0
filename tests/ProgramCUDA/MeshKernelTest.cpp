// The array fills on the CPU backend, whose launch runs the idle tail of the
// last block: each must stop at its count. (The other mesh kernels are checked
// through the mesh optimisation: the umbrella passes against a hand
// computation, the facet normals by the photometric gradient they gate.)
#include <gtest/gtest.h>

#include <vector>

#include "backend/CpuBackend.h"
#include "optimization/MeshKernels.h"

namespace {

using namespace tessaline;

TEST(ArrayFills, FillExactlyTheirCount) {
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
