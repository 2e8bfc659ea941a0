// The windowed NCC chain: every statistic against a straightforward double
// reference on random images (kernel by kernel on the CPU backend, and the
// public wrappers on every backend), and the identities the chain promises.
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
using tessaline::test::OnEachBackend;

// The chain in double, from the definitions. `scale` holds, per statistic
// and pixel, the sum of the sizes of the terms, so that a tolerance can be
// relative to the magnitudes that went into a value that cancels to near 0.
struct NccReference {
    int W, H, h;
    std::vector<uint8_t> mask;
    std::vector<double> meanA, meanB, varA, varB, cov, cc, alpha, beta, gamma, grad;
    std::vector<double> covScale, betaScale, gammaScale, gradScale;

    NccReference(const std::vector<float>& A, const std::vector<float>& B, int W_, int H_, int h_)
        : W(W_), H(H_), h(h_) {
        const size_t n = size_t(W) * H;
        mask.assign(n, 0);
        for (auto* v : {&meanA, &meanB, &varA, &varB, &cov, &cc, &alpha, &beta, &gamma, &grad, &covScale,
                        &betaScale, &gammaScale, &gradScale})
            v->assign(n, 0.0);
        const double N = double(2 * h + 1) * double(2 * h + 1);
        auto interior = [&](int x, int y) { return x >= h && y >= h && x < W - h && y < H - h; };
        auto window = [&](int x, int y, auto&& f) {
            for (int i = -h; i <= h; ++i)
                for (int j = -h; j <= h; ++j) f(size_t(y + j) * W + (x + i));
        };
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x) {
                const size_t p = size_t(y) * W + x;
                if (!interior(x, y)) continue;
                bool ok = true;
                window(x, y, [&](size_t q) { ok = ok && B[q] != -1.0f; });
                mask[p] = ok;
                varA[p] = varB[p] = 1.0;
                if (!ok) continue;
                double sa = 0, sb = 0;
                window(x, y, [&](size_t q) { sa += A[q], sb += B[q]; });
                meanA[p] = sa / N;
                meanB[p] = sb / N;
                double va = 0, vb = 0, c = 0, cs = 0;
                window(x, y, [&](size_t q) {
                    const double da = A[q] - meanA[p], db = B[q] - meanB[p];
                    va += da * da, vb += db * db, c += da * db, cs += std::fabs(da * db);
                });
                varA[p] = va / N + 1.0;
                varB[p] = vb / N + 1.0;
                cov[p] = c / N;
                covScale[p] = cs / N;
                cc[p] = cov[p] / std::sqrt(varA[p] * varB[p]);
            }
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x) {
                const size_t p = size_t(y) * W + x;
                if (!mask[p]) continue;
                double a = 0, b = 0, c = 0, m = 0, bs = 0, gs = 0;
                window(x, y, [&](size_t q) {
                    if (!mask[q]) return;
                    const double r = 1.0 / std::sqrt(varA[q] * varB[q]);
                    a -= r;
                    b += cc[q] / varB[q];
                    c += meanA[q] * r - meanB[q] * cc[q] / varB[q];
                    bs += std::fabs(cc[q] / varB[q]);
                    gs += std::fabs(meanA[q] * r) + std::fabs(meanB[q] * cc[q] / varB[q]);
                    m += 1;
                });
                const double t = std::min(varA[p], varB[p]), w = t / (t + 100.0);
                alpha[p] = w * a / m;
                beta[p] = w * b / m;
                gamma[p] = w * c / m;
                betaScale[p] = w * bs / m;
                gammaScale[p] = w * gs / m;
                grad[p] = alpha[p] * A[p] + beta[p] * B[p] + gamma[p];
                gradScale[p] = std::fabs(alpha[p] * A[p]) + betaScale[p] * std::fabs(B[p]) + gammaScale[p];
            }
    }
};

// Random grey images: B follows A with noise, holds a few -1.0 marks and a
// few negative values that are not marks.
struct ImagePair {
    std::vector<float> A, B;
};

ImagePair randomPair(int W, int H, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> grey(0.0f, 255.0f), noise(-40.0f, 40.0f), unit(0.0f, 1.0f);
    ImagePair p;
    p.A.resize(size_t(W) * H);
    p.B.resize(p.A.size());
    for (size_t i = 0; i < p.A.size(); ++i) {
        p.A[i] = std::round(grey(rng));
        p.B[i] = std::clamp(0.7f * p.A[i] + noise(rng) + 20.0f, 0.0f, 255.0f);
        const float u = unit(rng);
        if (u < 0.01f) p.B[i] = -1.0f;
        else if (u < 0.015f) p.B[i] = -0.5f;
    }
    return p;
}

// All outputs of a kernel-by-kernel run on the CPU backend.
struct ChainOutputs {
    std::vector<uint8_t> mask;
    std::vector<float> meanA, meanB, varA, varB, cov, cc, alpha, beta, gamma, grad;
};

ChainOutputs runChainOnCpu(const ImagePair& p, int W, int H, int h) {
    ChainOutputs o;
    const size_t n = size_t(W) * H;
    // Stale content everywhere: each kernel must write all of its output.
    o.mask.assign(n, 7);
    for (auto* v : {&o.meanA, &o.meanB, &o.varA, &o.varB, &o.cov, &o.cc, &o.alpha, &o.beta, &o.gamma, &o.grad})
        v->assign(n, 99.0f);
    NccWorkImages w{o.mask.data(), o.meanA.data(), o.meanB.data(), o.varA.data(), o.varB.data(), o.cov.data(),
                    o.cc.data(),   o.alpha.data(), o.beta.data(),  o.gamma.data(), o.grad.data()};
    CpuBackend be;
    launchNccChain(be, W, H, p.A.data(), p.B.data(), w, h, true);
    return o;
}

constexpr double kRel = 2e-5;

void expectChainMatchesReference(const ChainOutputs& o, const NccReference& r) {
    int valid = 0;
    for (size_t p = 0; p < o.mask.size(); ++p) {
        ASSERT_EQ(o.mask[p], r.mask[p]) << "pixel " << p;
        valid += r.mask[p];
        EXPECT_NEAR(o.meanA[p], r.meanA[p], kRel * 255.0) << p;
        EXPECT_NEAR(o.meanB[p], r.meanB[p], kRel * 255.0) << p;
        EXPECT_NEAR(o.varA[p], r.varA[p], kRel * r.varA[p]) << p;
        EXPECT_NEAR(o.varB[p], r.varB[p], kRel * r.varB[p]) << p;
        EXPECT_NEAR(o.cov[p], r.cov[p], kRel * r.covScale[p] + 1e-6) << p;
        EXPECT_NEAR(o.cc[p], r.cc[p], kRel) << p;
        EXPECT_NEAR(o.alpha[p], r.alpha[p], kRel * std::fabs(r.alpha[p]) + 1e-12) << p;
        EXPECT_NEAR(o.beta[p], r.beta[p], kRel * r.betaScale[p] + 1e-12) << p;
        EXPECT_NEAR(o.gamma[p], r.gamma[p], kRel * r.gammaScale[p] + 1e-12) << p;
        EXPECT_NEAR(o.grad[p], r.grad[p], kRel * r.gradScale[p] + 1e-12) << p;
    }
    EXPECT_GT(valid, 0);
}

struct Size {
    int W, H, h;
};

class NccStatistics : public ::testing::TestWithParam<Size> {};

TEST_P(NccStatistics, EveryKernelMatchesDoubleReference) {
    const Size s = GetParam();
    const ImagePair p = randomPair(s.W, s.H, 11u * s.W + s.H);
    expectChainMatchesReference(runChainOnCpu(p, s.W, s.H, s.h), NccReference(p.A, p.B, s.W, s.H, s.h));
}

INSTANTIATE_TEST_SUITE_P(Sizes, NccStatistics,
                         ::testing::Values(Size{15, 17, 2}, Size{16, 16, 2}, Size{17, 15, 2}, Size{33, 31, 2},
                                           Size{33, 20, 1}, Size{20, 33, 3}));

TEST(NccIdentities, BorderPixelsHoldZerosWhateverTheImages) {
    const int W = 17, H = 16, h = 2;
    ImagePair p = randomPair(W, H, 3);
    std::fill(p.B.begin(), p.B.end(), 50.0f);
    p.B[5 * W + 6] = 90.0f;
    const ChainOutputs o = runChainOnCpu(p, W, H, h);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            if (x >= h && y >= h && x < W - h && y < H - h) continue;
            const size_t e = size_t(y) * W + x;
            EXPECT_EQ(o.mask[e], 0);
            for (const auto* v : {&o.meanA, &o.meanB, &o.varA, &o.varB, &o.cov, &o.cc, &o.alpha, &o.beta, &o.gamma,
                                  &o.grad})
                EXPECT_EQ((*v)[e], 0.0f) << x << "," << y;
        }
}

TEST(NccIdentities, NoValueInImageBMasksItsWindowSquareOnly) {
    const int W = 16, H = 15, h = 2, mx = 8, my = 7;
    ImagePair p = randomPair(W, H, 5);
    for (float& b : p.B) b = std::max(b, 0.0f);  // no marks but ours
    p.B[size_t(my) * W + mx] = -1.0f;
    p.A[size_t(3) * W + 4] = -1.0f;  // a -1.0 in A masks nothing
    const ChainOutputs o = runChainOnCpu(p, W, H, h);
    for (int y = h; y < H - h; ++y)
        for (int x = h; x < W - h; ++x) {
            const bool near = std::abs(x - mx) <= h && std::abs(y - my) <= h;
            const size_t e = size_t(y) * W + x;
            EXPECT_EQ(o.mask[e], near ? 0 : 1) << x << "," << y;
            if (near) {
                EXPECT_EQ(o.varA[e], 1.0f);  // interior, not valid
                EXPECT_EQ(o.varB[e], 1.0f);
                EXPECT_EQ(o.cc[e], 0.0f);
                EXPECT_EQ(o.grad[e], 0.0f);
            }
        }
}

TEST(NccIdentities, IdenticalImagesGiveVarianceOverVariancePlusOne) {
    const int W = 33, H = 17, h = 2;
    ImagePair p = randomPair(W, H, 9);
    p.B = p.A;
    const ChainOutputs o = runChainOnCpu(p, W, H, h);
    for (size_t e = 0; e < o.mask.size(); ++e) {
        if (!o.mask[e]) continue;
        const double v = double(o.varA[e]) - 1.0;
        EXPECT_NEAR(o.cc[e], v / (v + 1.0), 1e-6);
        EXPECT_LT(o.cc[e], 1.0f);
    }
}

TEST(NccIdentities, ConstantWindowGivesZeroCorrelationAndUnitVariance) {
    const int W = 16, H = 17, h = 2;
    ImagePair p = randomPair(W, H, 13);
    std::fill(p.A.begin(), p.A.end(), 77.0f);
    for (float& b : p.B) b = std::max(b, 0.0f);
    const ChainOutputs o = runChainOnCpu(p, W, H, h);
    const NccReference r(p.A, p.B, W, H, h);
    for (size_t e = 0; e < o.mask.size(); ++e) {
        if (!o.mask[e]) continue;
        EXPECT_EQ(o.varA[e], 1.0f);
        EXPECT_EQ(o.cov[e], 0.0f);
        EXPECT_EQ(o.cc[e], 0.0f);
        // The texture weight is 1/101 there: alpha is -(1/101) times the
        // mean of 1/sqrt(varB) over the valid windows around the pixel.
        EXPECT_NEAR(o.alpha[e], r.alpha[e], kRel * std::fabs(r.alpha[e]));
        EXPECT_TRUE(std::isfinite(o.grad[e]));
    }
}

TEST(NccIdentities, HalfWindowZeroIsThePixelItself) {
    const int W = 15, H = 16;
    const ImagePair p = randomPair(W, H, 21);
    const ChainOutputs o = runChainOnCpu(p, W, H, 0);
    for (size_t e = 0; e < o.mask.size(); ++e) {
        EXPECT_EQ(o.mask[e], p.B[e] != -1.0f ? 1 : 0) << e;
        if (!o.mask[e]) continue;
        EXPECT_EQ(o.meanA[e], p.A[e]);
        EXPECT_EQ(o.meanB[e], p.B[e]);
        EXPECT_EQ(o.varA[e], 1.0f);
        EXPECT_EQ(o.cov[e], 0.0f);
        EXPECT_EQ(o.cc[e], 0.0f);
    }
}

TEST(NccIdentities, ImageSmallerThanTheWindowHasNoInterior) {
    for (auto [W, H] : {std::pair{4, 9}, std::pair{9, 4}, std::pair{1, 1}}) {
        const ImagePair p = randomPair(W, H, 2);
        const ChainOutputs o = runChainOnCpu(p, W, H, 2);
        for (size_t e = 0; e < o.mask.size(); ++e) {
            EXPECT_EQ(o.mask[e], 0);
            EXPECT_EQ(o.varA[e], 0.0f);
            EXPECT_EQ(o.cc[e], 0.0f);
            EXPECT_EQ(o.grad[e], 0.0f);
        }
    }
}

TEST(NccIdentities, MaskedPixelWithoutMaskedNeighboursAveragesItsOwnWindowOnly) {
    // Marks at distance 3 on both sides leave pixel 8 valid among invalid
    // neighbours: m = 1, so its alpha is -w / sqrt(varA varB) of itself.
    const int W = 17, H = 5, h = 2;
    ImagePair p = randomPair(W, H, 17);
    for (float& b : p.B) b = std::max(b, 0.0f);
    p.B[size_t(2) * W + 5] = -1.0f;
    p.B[size_t(2) * W + 11] = -1.0f;
    const ChainOutputs o = runChainOnCpu(p, W, H, h);
    const size_t e = size_t(2) * W + 8;
    ASSERT_EQ(o.mask[e], 1);
    for (int x = 2; x < W - 2; ++x) EXPECT_EQ(o.mask[size_t(2) * W + x], x == 2 || x == 8 || x == 14 ? 1 : 0);
    const double vA = o.varA[e], vB = o.varB[e], t = std::min(vA, vB);
    EXPECT_NEAR(o.alpha[e], -(t / (t + 100.0)) / std::sqrt(vA * vB), 1e-6 * std::fabs(o.alpha[e]));
}

// The public wrappers on every backend, against the same reference.
class NccWrappers : public OnEachBackend {};

TEST_P(NccWrappers, GradientWrapperMatchesDoubleReference) {
    for (Size s : {Size{15, 16, 2}, Size{16, 17, 2}, Size{33, 33, 2}, Size{17, 15, 1}}) {
        const ImagePair p = randomPair(s.W, s.H, 31u * s.W + s.H);
        const NccReference r(p.A, p.B, s.W, s.H, s.h);
        const size_t n = p.A.size();
        std::vector<float> grad(n, 5.0f), cc(n, 5.0f);
        std::vector<uint8_t> mask(n, 5);
        Compute_NCCGrad_CUDA(s.W, s.H, p.A.data(), p.B.data(), grad.data(), cc.data(), mask.data(), s.h);
        for (size_t e = 0; e < n; ++e) {
            ASSERT_EQ(mask[e], r.mask[e]) << e;
            EXPECT_NEAR(cc[e], r.cc[e], kRel) << e;
            EXPECT_NEAR(grad[e], r.grad[e], kRel * r.gradScale[e] + 1e-12) << e;
        }
    }
}

TEST_P(NccWrappers, CorrelationWrapperMatchesGradientWrapper) {
    const int W = 33, H = 16, h = 2;
    const ImagePair p = randomPair(W, H, 41);
    const size_t n = p.A.size();
    std::vector<float> grad(n), cc1(n), cc2(n, 3.0f);
    std::vector<uint8_t> mask1(n), mask2(n, 3);
    Compute_NCCGrad_CUDA(W, H, p.A.data(), p.B.data(), grad.data(), cc1.data(), mask1.data(), h);
    Compute_CC_CUDA(W, H, p.A.data(), p.B.data(), cc2.data(), mask2.data(), h);
    EXPECT_EQ(cc1, cc2);
    EXPECT_EQ(mask1, mask2);
}

TEST_P(NccWrappers, RefusedArgumentsLeaveOutputsAlone) {
    std::vector<float> A(16, 1.0f), cc(16, 3.0f);
    std::vector<uint8_t> mask(16, 3);
    ::testing::internal::CaptureStdout();
    Compute_CC_CUDA(4, 4, A.data(), nullptr, cc.data(), mask.data(), 1);
    Compute_CC_CUDA(-4, 4, A.data(), A.data(), cc.data(), mask.data(), 1);
    Compute_CC_CUDA(4, 4, A.data(), A.data(), cc.data(), mask.data(), -1);
    Compute_NCCGrad_CUDA(4, 4, A.data(), A.data(), nullptr, cc.data(), mask.data(), 1);
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 4) << out;
    EXPECT_EQ(out.rfind("Error: ", 0), 0u) << out;
    EXPECT_EQ(cc, std::vector<float>(16, 3.0f));
    EXPECT_EQ(mask, std::vector<uint8_t>(16, 3));
}

TESSALINE_INSTANTIATE_ON_BACKENDS(NccWrappers);

}  // namespace
