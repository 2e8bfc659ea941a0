// The windowed NCC entry points on every backend against a straightforward double
// reference of the whole chain on random images, and their refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <vector>

#include "DeviceTestSupport.h"

namespace {

// The chain in double from its definitions: per pixel the mask, the
// correlation and the gradient, with beside the gradient the sum of the sizes
// of its terms, the scale for a tolerance where terms cancel.
struct Reference {
    std::vector<uint8_t> mask;
    std::vector<double> cc, grad, gradScale;

    Reference(const std::vector<float>& A, const std::vector<float>& B, int W, int H, int h)
        : mask(A.size(), 0), cc(A.size(), 0.0), grad(A.size(), 0.0), gradScale(A.size(), 0.0) {
        const size_t n = A.size();
        const double N = double(2 * h + 1) * (2 * h + 1);
        std::vector<double> meanA(n, 0.0), meanB(n, 0.0), varA(n, 1.0), varB(n, 1.0);  // +1 keeps divisions finite
        auto window = [&](size_t p, auto&& f) {
            for (int i = -h; i <= h; ++i)
                for (int j = -h; j <= h; ++j) f(p + j * W + i);
        };
        for (size_t p = 0; p < n; ++p) {
            const int x = int(p % W), y = int(p / W);
            bool valid = x >= h && y >= h && x < W - h && y < H - h;
            if (valid) window(p, [&](size_t q) { valid = valid && B[q] != -1.0f; });
            if (!(mask[p] = valid)) continue;
            window(p, [&](size_t q) { meanA[p] += A[q] / N, meanB[p] += B[q] / N; });
            double cov = 0.0;
            window(p, [&](size_t q) {
                const double a = A[q] - meanA[p], b = B[q] - meanB[p];
                varA[p] += a * a / N, varB[p] += b * b / N, cov += a * b / N;
            });
            cc[p] = cov / std::sqrt(varA[p] * varB[p]);
        }
        for (size_t p = 0; p < n; ++p) {
            if (!mask[p]) continue;
            double alpha = 0.0, beta = 0.0, gamma = 0.0, betaScale = 0.0, gammaScale = 0.0, m = 0.0;
            window(p, [&](size_t q) {
                if (!mask[q]) return;
                const double r = 1.0 / std::sqrt(varA[q] * varB[q]), b = cc[q] / varB[q];
                alpha -= r, beta += b, gamma += meanA[q] * r - meanB[q] * b;
                betaScale += std::fabs(b), gammaScale += std::fabs(meanA[q] * r) + std::fabs(meanB[q] * b);
                m += 1.0;
            });
            const double t = std::min(varA[p], varB[p]), w = t / (t + 100.0) / m;
            grad[p] = w * (alpha * A[p] + beta * B[p] + gamma);
            gradScale[p] = w * (std::fabs(alpha * A[p]) + betaScale * std::fabs(B[p]) + gammaScale);
        }
    }
};

// Random grey A, with a few -1.0 values that mark nothing in A; B follows A
// with noise, and holds a few -1.0 marks and a few negative values that are
// no marks.
std::pair<std::vector<float>, std::vector<float>> randomImages(int W, int H, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::vector<float> A(size_t(W) * H), B(A.size());
    for (size_t i = 0; i < A.size(); ++i) {
        const float u = unit(rng);
        A[i] = u > 0.99f ? -1.0f : std::round(255.0f * unit(rng));
        B[i] = u < 0.015f ? (u < 0.01f ? -1.0f : -0.5f) : std::clamp(0.7f * A[i] + 80.0f * unit(rng), 0.0f, 255.0f);
    }
    return {A, B};
}

class NccEntryPoints : public tessaline::test::OnEachBackend {};

// Sizes around the block of 16, windows of half-size 0 (the pixel alone) to
// 3, images smaller than a window.
TEST_P(NccEntryPoints, MatchTheDoubleReference) {
    const struct {
        int W, H, h;
    } sizes[] = {{15, 17, 2}, {16, 16, 2}, {17, 15, 2}, {33, 31, 2}, {33, 20, 1},
                 {20, 33, 3}, {12, 10, 0}, {4, 9, 2},   {9, 4, 2}};
    for (const auto [W, H, h] : sizes) {
        SCOPED_TRACE(testing::Message() << W << "x" << H << " h " << h);
        const auto [A, B] = randomImages(W, H, 11u * W + H);
        const Reference r(A, B, W, H, h);
        std::vector<float> grad(A.size(), 5.0f), cc(A.size(), 5.0f), cc2(A.size());
        std::vector<uint8_t> mask(A.size(), 5), mask2(A.size());
        ASSERT_EQ(Compute_NCCGrad_CUDA(device(), NccGradArgs{W, H, A.data(), B.data(), grad.data(), cc.data(),
                                                             mask.data(), h}),
                  DeviceStatus::Ok);
        ASSERT_EQ(Compute_CC_CUDA(device(), CcArgs{W, H, A.data(), B.data(), cc2.data(), mask2.data(), h}),
                  DeviceStatus::Ok);
        EXPECT_EQ(mask, r.mask);
        EXPECT_EQ(mask2, r.mask);
        EXPECT_EQ(cc2, cc);
        for (size_t p = 0; p < A.size(); ++p) {
            EXPECT_NEAR(cc[p], r.cc[p], 2e-5) << "at " << p;
            EXPECT_NEAR(grad[p], r.grad[p], 2e-5 * r.gradScale[p] + 1e-12) << "at " << p;
        }
    }
}

TEST_P(NccEntryPoints, RefuseBadArgumentsWithoutTouchingTheOutputs) {
    std::vector<float> img(16, 3.0f), grad = img, cc = img;
    std::vector<uint8_t> mask(16, 3);
    const std::pair<const char*, std::function<DeviceStatus()>> cases[] = {
        {"Compute_CC_CUDA",
         [&] { return Compute_CC_CUDA(device(), CcArgs{4, 4, img.data(), nullptr, cc.data(), mask.data(), 1}); }},
        {"Compute_NCCGrad_CUDA", [&] {
             return Compute_NCCGrad_CUDA(
                 device(), NccGradArgs{4, 4, img.data(), img.data(), grad.data(), cc.data(), mask.data(), -1});
         }}};
    for (const auto& [entry, call] : cases) {
        tessaline::test::expectRefused(entry, call);
        EXPECT_TRUE(grad == img && cc == img && mask == std::vector<uint8_t>(16, 3)) << entry;
    }
}

TESSALINE_INSTANTIATE_ON_BACKENDS(NccEntryPoints);

}  // namespace
