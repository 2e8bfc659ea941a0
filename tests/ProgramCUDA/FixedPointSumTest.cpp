// Fixed-point sums: the same bits in any order of the terms, close to the
// exact sum, and defined for terms a float sum would turn into NaN or
// overflow.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "FixedPointSum.h"

namespace {

using namespace tessaline;

TEST(FixedPointSum, GivesTheSameBitsInAnyOrderAndStaysCloseToTheExactSum) {
    std::mt19937 rng(5);
    // Terms over nine orders of magnitude and both signs, as the photometric
    // contributions of a vertex are, on scenes of very different size.
    for (float magnitude : {1e-4f, 0.37f, 1.0f, 850.0f, 3e6f}) {
        const FixedPointScale scale = fixedPointScaleFor(magnitude);
        std::vector<float> terms;
        std::uniform_real_distribution<float> mantissa(-1.0f, 1.0f), decade(-9.0f, -1.0f);
        for (int i = 0; i < 20000; ++i) terms.push_back(magnitude * mantissa(rng) * std::pow(10.0f, decade(rng)));
        double exact = 0.0, absolute = 0.0;
        for (float t : terms) exact += double(t), absolute += std::fabs(double(t));
        float first = 0.0f;
        for (int order = 0; order < 4; ++order) {
            std::shuffle(terms.begin(), terms.end(), rng);
            unsigned long long sum = 0;
            for (float t : terms) sum += toFixedPoint(t, scale.toFixed);
            const float value = fromFixedPoint(sum, scale.toFloat);
            if (order == 0) first = value;
            EXPECT_EQ(value, first) << "order " << order << ", magnitude " << magnitude;
        }
        // Each term is rounded to a unit of at most 2^-49 of the magnitude,
        // and the sum once to float.
        EXPECT_NEAR(double(first), exact,
                    terms.size() * std::ldexp(double(magnitude), -49) + std::fabs(exact) * 1e-7 + 1e-30 * absolute)
            << "magnitude " << magnitude;
    }
}

TEST(FixedPointSum, ScaleIsAPowerOfTwoThatFollowsTheMagnitude) {
    for (float magnitude : {0.0f, 1e-30f, 0.75f, 1.0f, 1.5f, 1e30f, std::numeric_limits<float>::infinity(),
                            std::numeric_limits<float>::quiet_NaN()}) {
        const FixedPointScale s = fixedPointScaleFor(magnitude);
        EXPECT_EQ(s.toFixed * s.toFloat, 1.0f) << magnitude;
        int e;
        EXPECT_EQ(std::frexp(s.toFixed, &e), 0.5f) << magnitude;  // a power of two
        EXPECT_TRUE(std::isnormal(s.toFixed) && std::isnormal(s.toFloat)) << magnitude;
    }
    // A whole unit of 2^-50 of a magnitude in [0.5, 1).
    EXPECT_EQ(fixedPointScaleFor(0.75f).toFloat, std::ldexp(1.0f, -50));
    EXPECT_EQ(fixedPointScaleFor(1.0f).toFloat, std::ldexp(1.0f, -49));
}

TEST(FixedPointSum, RoundsToNearestEvenUnitAndClampsOrDropsWhatDoesNotFit) {
    const float unit = std::ldexp(1.0f, -49), toFixed = std::ldexp(1.0f, 49);
    EXPECT_EQ(toFixedPoint(2.5f * unit, toFixed), 2ull);
    EXPECT_EQ(toFixedPoint(3.5f * unit, toFixed), 4ull);
    EXPECT_EQ((long long)toFixedPoint(-2.5f * unit, toFixed), -2);
    EXPECT_EQ((long long)toFixedPoint(-1.75f * unit, toFixed), -2);
    EXPECT_EQ(toFixedPoint(std::numeric_limits<float>::quiet_NaN(), toFixed), 0ull);
    EXPECT_EQ((long long)toFixedPoint(std::numeric_limits<float>::infinity(), toFixed), 1LL << 62);
    EXPECT_EQ((long long)toFixedPoint(-1e30f, toFixed), -(1LL << 62));
    EXPECT_EQ(fromFixedPoint((unsigned long long)(-(3LL << 40)), 1.0f), -3.0f * std::ldexp(1.0f, 40));
}

}  // namespace
