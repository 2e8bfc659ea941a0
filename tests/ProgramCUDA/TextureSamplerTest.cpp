// The CPU texture sampler against hand-computed values of the fetch rule.
// (Its 8-bit weights are checked against the hardware's by the backend
// parity tests.)
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "DeviceCommon.h"

namespace {

TEST(TextureSampler, FollowsTheFetchRule) {
    const std::vector<uint8_t> ramp = {0, 10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 110};  // 4 x 3
    const std::vector<uint8_t> bars = {0, 255, 0, 255}, quad = {10, 20, 30, 40}, edges = {7, 9, 11, 13};  // 2 x 2
    const std::vector<uint8_t> pitched = {1, 2, 3, 99, 99, 99, 99, 99, 4, 5, 6, 99, 99, 99, 99, 99};  // 3 x 2, pitch 8
    const struct {
        const char* what;
        const std::vector<uint8_t>& img;
        int w, h, pitch;
        float x, y, expected;
    } cases[] = {
        {"a pixel centre gives its byte", ramp, 4, 3, 4, 2.5f, 1.5f, 60.0f / 255},
        {"a pixel centre gives its byte", ramp, 4, 3, 4, 3.5f, 2.5f, 110.0f / 255},
        {"halfway: weight 1/2", bars, 2, 2, 2, 1.0f, 0.5f, 0.5f},
        {"fractions 1/4 and 3/4 in both directions", quad, 2, 2, 2, 0.75f, 1.25f,
         (0.75f * 0.25f * 10 + 0.25f * 0.25f * 20 + 0.75f * 0.75f * 30 + 0.25f * 0.75f * 40) / 255},
        {"clamped to the top left", edges, 2, 2, 2, -5.0f, -5.0f, 7.0f / 255},
        {"clamped to the top right", edges, 2, 2, 2, 50.0f, -5.0f, 9.0f / 255},
        {"clamped far to the bottom right", edges, 2, 2, 2, 1e30f, 1e30f, 13.0f / 255},
        {"clamped far to the left", edges, 2, 2, 2, -1e30f, 1.5f, 11.0f / 255},
        {"pitched rows", pitched, 3, 2, 8, 2.5f, 1.5f, 6.0f / 255},
        {"pitched rows, clamped to the row's end", pitched, 3, 2, 8, 10.0f, 1.5f, 6.0f / 255}};
    for (const auto& c : cases)
        EXPECT_NEAR(tessaline::sampleBilinearU8(c.img.data(), c.w, c.h, c.pitch, c.x, c.y), c.expected, 1e-7f)
            << c.what << " at " << c.x << "," << c.y;
}

}  // namespace
