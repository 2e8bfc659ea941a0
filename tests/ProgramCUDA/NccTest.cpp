// The windowed NCC chain: every statistic against a straightforward double
// reference on random images, kernel by kernel on the CPU backend and through
// the public wrapper on every backend, and the identities the chain promises.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "CpuBackend.h"
#include "DeviceTestSupport.h"
#include "wrappers/NccWrappers.h"

namespace {

using namespace tessaline;

enum Stat { kMeanA, kMeanB, kVarA, kVarB, kCov, kCC, kAlpha, kBeta, kGamma, kGrad, kStats };

// The chain in double from the definitions. Beside each value, the sum of
// the sizes of its terms: the scale for a tolerance where terms cancel.
struct Reference {
    std::vector<uint8_t> mask;
    std::vector<double> value[kStats], scale[kStats];

    Reference(const std::vector<float>& A, const std::vector<float>& B, int W, int H, int h) : mask(A.size(), 0) {
        for (int s = 0; s < kStats; ++s) value[s].assign(A.size(), 0.0), scale[s].assign(A.size(), 0.0);
        const double N = double(2 * h + 1) * (2 * h + 1);
        auto window = [&](size_t p, auto&& f) {
            for (int i = -h; i <= h; ++i)
                for (int j = -h; j <= h; ++j) f(p + j * W + i);
        };
        auto interior = [&](size_t p) {
            const int x = int(p % W), y = int(p / W);
            return x >= h && y >= h && x < W - h && y < H - h;
        };
        auto* v = value;
        for (size_t p = 0; p < A.size(); ++p) {
            if (!interior(p)) continue;
            v[kVarA][p] = v[kVarB][p] = 1.0;
            bool ok = true;
            window(p, [&](size_t q) { ok = ok && B[q] != -1.0f; });
            if (!(mask[p] = ok)) continue;
            window(p, [&](size_t q) { v[kMeanA][p] += A[q] / N, v[kMeanB][p] += B[q] / N; });
            window(p, [&](size_t q) {
                const double a = A[q] - v[kMeanA][p], b = B[q] - v[kMeanB][p];
                v[kVarA][p] += a * a / N, v[kVarB][p] += b * b / N, v[kCov][p] += a * b / N;
                scale[kCov][p] += std::fabs(a * b) / N;
            });
            v[kCC][p] = v[kCov][p] / std::sqrt(v[kVarA][p] * v[kVarB][p]);
        }
        for (size_t p = 0; p < A.size(); ++p) {
            if (!mask[p]) continue;
            double m = 0;
            window(p, [&](size_t q) {
                if (!mask[q]) return;
                const double r = 1.0 / std::sqrt(v[kVarA][q] * v[kVarB][q]), b = v[kCC][q] / v[kVarB][q];
                v[kAlpha][p] -= r, v[kBeta][p] += b, v[kGamma][p] += v[kMeanA][q] * r - v[kMeanB][q] * b;
                scale[kBeta][p] += std::fabs(b);
                scale[kGamma][p] += std::fabs(v[kMeanA][q] * r) + std::fabs(v[kMeanB][q] * b);
                m += 1;
            });
            const double t = std::min(v[kVarA][p], v[kVarB][p]), w = t / (t + 100.0) / m;
            for (Stat s : {kAlpha, kBeta, kGamma}) v[s][p] *= w, scale[s][p] *= w;
            v[kGrad][p] = v[kAlpha][p] * A[p] + v[kBeta][p] * B[p] + v[kGamma][p];
            scale[kGrad][p] = std::fabs(v[kAlpha][p] * A[p]) + scale[kBeta][p] * std::fabs(B[p]) + scale[kGamma][p];
        }
        for (size_t p = 0; p < A.size(); ++p) {
            scale[kMeanA][p] = scale[kMeanB][p] = 255.0;
            scale[kCC][p] = 1.0;
            for (Stat s : {kVarA, kVarB, kAlpha}) scale[s][p] = std::fabs(v[s][p]);
        }
    }
};

// Random grey A; B follows A with noise, and holds a few -1.0 marks and a
// few negative values that are no marks.
std::pair<std::vector<float>, std::vector<float>> randomImages(int W, int H, unsigned seed, float marks = 0.01f) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::vector<float> A(size_t(W) * H), B(A.size());
    for (size_t i = 0; i < A.size(); ++i) {
        A[i] = std::round(255.0f * unit(rng));
        const float u = unit(rng);
        B[i] = std::clamp(0.7f * A[i] + 80.0f * unit(rng), 0.0f, 255.0f);
        if (u < 1.5f * marks) B[i] = u < marks ? -1.0f : -0.5f;
    }
    return {A, B};
}

// The chain kernel by kernel on the CPU, from stale work images.
struct Chain {
    std::vector<uint8_t> mask;
    std::vector<float> out[kStats];
    Chain(const std::vector<float>& A, const std::vector<float>& B, int W, int H, int h) : mask(A.size(), 7) {
        for (auto& o : out) o.assign(A.size(), 99.0f);
        NccWorkImages w{mask.data(),       out[kMeanA].data(), out[kMeanB].data(), out[kVarA].data(),
                        out[kVarB].data(), out[kCov].data(),   out[kCC].data(),    out[kAlpha].data(),
                        out[kBeta].data(), out[kGamma].data(), out[kGrad].data()};
        CpuBackend be;
        launchNccChain(be, W, H, A.data(), B.data(), w, h, true);
    }
};

struct Size {
    int W, H, h;
};

class NccStatistics : public ::testing::TestWithParam<Size> {};

TEST_P(NccStatistics, EveryKernelMatchesTheDoubleReference) {
    const Size s = GetParam();
    const auto [A, B] = randomImages(s.W, s.H, 11u * s.W + s.H);
    const Chain c(A, B, s.W, s.H, s.h);
    const Reference r(A, B, s.W, s.H, s.h);
    EXPECT_EQ(c.mask, r.mask);
    for (int st = 0; st < kStats; ++st)
        for (size_t p = 0; p < A.size(); ++p)
            EXPECT_NEAR(c.out[st][p], r.value[st][p], 2e-5 * r.scale[st][p] + 1e-12) << "stat " << st << " at " << p;
}

INSTANTIATE_TEST_SUITE_P(Sizes, NccStatistics,
                         ::testing::Values(Size{15, 17, 2}, Size{16, 16, 2}, Size{17, 15, 2}, Size{33, 31, 2},
                                           Size{33, 20, 1}, Size{20, 33, 3}, Size{4, 9, 2}, Size{9, 4, 2}));

TEST(NccIdentities, MarksBorderAndZeroWindow) {
    const int W = 16, H = 15, h = 2;
    auto [A, B] = randomImages(W, H, 5, 0.0f);
    B[7 * W + 8] = -1.0f;  // masks its 5 x 5 square
    A[3 * W + 4] = -1.0f;  // masks nothing
    const Chain c(A, B, W, H, h);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            const size_t e = size_t(y) * W + x;
            const bool interior = x >= h && y >= h && x < W - h && y < H - h;
            EXPECT_EQ(c.mask[e], interior && !(std::abs(x - 8) <= h && std::abs(y - 7) <= h)) << x << "," << y;
            for (int s = 0; s < kStats; ++s)
                if (!c.mask[e]) EXPECT_EQ(c.out[s][e], (s == kVarA || s == kVarB) && interior ? 1.0f : 0.0f);
        }
    // Half window 0: the pixel itself, N = 1, the whole image interior.
    const Chain zero(A, B, W, H, 0);
    for (size_t e = 0; e < A.size(); ++e) {
        EXPECT_EQ(zero.mask[e], B[e] != -1.0f);
        if (zero.mask[e]) EXPECT_EQ(zero.out[kMeanA][e], A[e]);
        if (zero.mask[e]) EXPECT_EQ(zero.out[kCC][e], 0.0f);
    }
}

TEST(NccIdentities, IdenticalAndConstantImages) {
    const int W = 33, H = 17;
    auto [A, B] = randomImages(W, H, 9, 0.0f);
    const Chain same(A, A, W, H, 2);
    for (size_t e = 0; e < A.size(); ++e) {
        const double v = double(same.out[kVarA][e]) - 1.0;
        if (same.mask[e]) EXPECT_NEAR(same.out[kCC][e], v / (v + 1.0), 1e-6);
    }
    std::fill(A.begin(), A.end(), 77.0f);
    const Chain flat(A, B, W, H, 2);
    for (size_t e = 0; e < A.size(); ++e)
        if (flat.mask[e]) {
            EXPECT_EQ(flat.out[kVarA][e], 1.0f);
            EXPECT_EQ(flat.out[kCC][e], 0.0f);
            EXPECT_TRUE(std::isfinite(flat.out[kGrad][e]));
        }
}

class NccWrappers : public tessaline::test::OnEachBackend {};

TEST_P(NccWrappers, MatchTheDoubleReference) {
    for (Size s : {Size{15, 16, 2}, Size{16, 17, 2}, Size{33, 33, 2}, Size{17, 15, 1}}) {
        const auto [A, B] = randomImages(s.W, s.H, 31u * s.W + s.H);
        const Reference r(A, B, s.W, s.H, s.h);
        std::vector<float> grad(A.size(), 5.0f), cc(A.size(), 5.0f), cc2(A.size());
        std::vector<uint8_t> mask(A.size(), 5), mask2(A.size());
        Compute_NCCGrad_CUDA(s.W, s.H, A.data(), B.data(), grad.data(), cc.data(), mask.data(), s.h);
        Compute_CC_CUDA(s.W, s.H, A.data(), B.data(), cc2.data(), mask2.data(), s.h);
        EXPECT_EQ(mask, r.mask);
        EXPECT_EQ(mask2, r.mask);
        EXPECT_EQ(cc2, cc);
        for (size_t p = 0; p < A.size(); ++p) {
            EXPECT_NEAR(cc[p], r.value[kCC][p], 2e-5) << p;
            EXPECT_NEAR(grad[p], r.value[kGrad][p], 2e-5 * r.scale[kGrad][p] + 1e-12) << p;
        }
    }
    std::vector<float> cc(16, 3.0f);
    ::testing::internal::CaptureStdout();
    Compute_CC_CUDA(4, 4, cc.data(), nullptr, cc.data(), nullptr, 1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout().rfind("Error: ", 0), 0u);
    EXPECT_EQ(cc, std::vector<float>(16, 3.0f));
}

TESSALINE_INSTANTIATE_ON_BACKENDS(NccWrappers);

}  // namespace
