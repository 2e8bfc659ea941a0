// The CPU texture sampler against hand-computed values of the fetch rule.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "DeviceCommon.h"
#include "kernels/ZBufferKernel.h"

namespace {

using tessaline::sampleBilinearU8;

TEST(TextureSampler, PixelCentresReturnTheByteOver255) {
    const std::vector<uint8_t> img = {0, 10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 110};  // 4 x 3
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 4; ++x)
            EXPECT_EQ(sampleBilinearU8(img.data(), 4, 3, 4, x + 0.5f, y + 0.5f), float(img[y * 4 + x]) / 255.0f);
}

TEST(TextureSampler, BlendsWithWeightsOfEightFractionalBits) {
    const std::vector<uint8_t> img = {0, 255, 0, 255};  // 2 x 2
    // Halfway between the two columns: weight exactly 1/2.
    EXPECT_FLOAT_EQ(sampleBilinearU8(img.data(), 2, 2, 2, 1.0f, 0.5f), 0.5f);
    // A fraction of 0.3 is kept as 77/256, not 0.3.
    const float v = sampleBilinearU8(img.data(), 2, 2, 2, 0.8f, 0.5f);
    EXPECT_FLOAT_EQ(v, 77.0f / 256.0f);
    // 0.001 rounds to weight 0: the left texel alone.
    EXPECT_EQ(sampleBilinearU8(img.data(), 2, 2, 2, 0.501f, 0.5f), 0.0f);
    // Both directions: the four texels (10, 20; 30, 40) at fractions 1/4 and 3/4.
    const std::vector<uint8_t> q = {10, 20, 30, 40};
    const float expect = ((1 - 0.25f) * (1 - 0.75f) * 10 + 0.25f * (1 - 0.75f) * 20 + (1 - 0.25f) * 0.75f * 30 +
                          0.25f * 0.75f * 40) / 255.0f;
    EXPECT_NEAR(sampleBilinearU8(q.data(), 2, 2, 2, 0.75f, 1.25f), expect, 1e-7);
}

TEST(TextureSampler, ClampsOutsideTheImageToTheEdge) {
    const std::vector<uint8_t> img = {7, 9, 11, 13};  // 2 x 2
    EXPECT_EQ(sampleBilinearU8(img.data(), 2, 2, 2, -5.0f, -5.0f), 7.0f / 255.0f);
    EXPECT_EQ(sampleBilinearU8(img.data(), 2, 2, 2, 50.0f, -5.0f), 9.0f / 255.0f);
    EXPECT_EQ(sampleBilinearU8(img.data(), 2, 2, 2, 1e30f, 1e30f), 13.0f / 255.0f);
    EXPECT_EQ(sampleBilinearU8(img.data(), 2, 2, 2, -1e30f, 1.5f), 11.0f / 255.0f);
}

TEST(TextureSampler, ReadsPitchedRows) {
    // Two rows of 3 bytes, 8 bytes apart.
    const std::vector<uint8_t> img = {1, 2, 3, 99, 99, 99, 99, 99, 4, 5, 6, 99, 99, 99, 99, 99};
    EXPECT_EQ(sampleBilinearU8(img.data(), 3, 2, 8, 2.5f, 1.5f), 6.0f / 255.0f);
    EXPECT_EQ(sampleBilinearU8(img.data(), 3, 2, 8, 10.0f, 1.5f), 6.0f / 255.0f);
}

TEST(AtomicMinimum, TiesAreAcceptedAndLargerValuesRefused) {
    float cell = 5.0f;
    EXPECT_TRUE(tessaline::float_Atomic_Assign_If_Smaller(&cell, 3.0f));
    EXPECT_EQ(cell, 3.0f);
    EXPECT_TRUE(tessaline::float_Atomic_Assign_If_Smaller(&cell, 3.0f));
    EXPECT_FALSE(tessaline::float_Atomic_Assign_If_Smaller(&cell, 4.0f));
    EXPECT_EQ(cell, 3.0f);
}

}  // namespace
