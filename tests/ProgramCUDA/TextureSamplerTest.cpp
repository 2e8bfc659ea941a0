// The CPU texture sampler against what the hardware's texture unit returned
// for 216,384 fetches of a 64 x 64 byte texture (measured on an H100, kept
// in ../shared/data/texture_probe), and against hand cases of clamping and
// pitched rows.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "TextureSampler.h"

namespace {

std::vector<char> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(TextureSampler, ReturnsEveryValueTheHardwareReturned) {
    const std::string dir = std::string(TESSALINE_SOURCE_DIR) + "/../shared/data/texture_probe/";
    const std::vector<char> texture = readFile(dir + "texture_64x64.u8");
    const std::vector<char> records = readFile(dir + "fetches_x_y_value.f32");
    ASSERT_EQ(texture.size(), 64u * 64u) << "the measured texture is missing: " << dir;
    ASSERT_EQ(records.size(), 216384u * 12u) << "the measured fetches are missing: " << dir;
    const uint8_t* bytes = reinterpret_cast<const uint8_t*>(texture.data());
    int differ = 0;
    for (size_t i = 0; i < records.size() / 12; ++i) {
        float xyv[3];
        std::memcpy(xyv, records.data() + 12 * i, sizeof xyv);
        const float got = tessaline::sampleBilinearU8(bytes, 64, 64, 64, xyv[0], xyv[1]);
        if (std::memcmp(&got, &xyv[2], sizeof got) != 0 && ++differ <= 5)
            ADD_FAILURE() << "fetch " << i << " at (" << xyv[0] << ", " << xyv[1] << "): hardware " << xyv[2]
                          << ", sampler " << got;
    }
    EXPECT_EQ(differ, 0) << "fetches that differ from the hardware's";
}

TEST(TextureSampler, ClampsToTheEdgesAndFollowsThePitch) {
    const std::vector<uint8_t> ramp = {0, 10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 110};  // 4 x 3
    const std::vector<uint8_t> edges = {7, 9, 11, 13};                                     // 2 x 2
    const std::vector<uint8_t> pitched = {1, 2, 3, 99, 99, 99, 99, 99, 4, 5, 6, 99, 99, 99, 99, 99};  // 3 x 2, pitch 8
    const struct {
        const char* what;
        const std::vector<uint8_t>& img;
        int w, h, pitch;
        float x, y;
        int byte;
    } cases[] = {{"a pixel centre gives its byte", ramp, 4, 3, 4, 2.5f, 1.5f, 60},
                 {"a pixel centre gives its byte", ramp, 4, 3, 4, 3.5f, 2.5f, 110},
                 {"clamped to the top left", edges, 2, 2, 2, -5.0f, -5.0f, 7},
                 {"clamped to the top right", edges, 2, 2, 2, 50.0f, -5.0f, 9},
                 {"clamped far to the bottom right", edges, 2, 2, 2, 1e30f, 1e30f, 13},
                 {"clamped far to the left", edges, 2, 2, 2, -1e30f, 1.5f, 11},
                 {"not a number goes to an edge", edges, 2, 2, 2, std::nanf(""), 0.5f, 7},
                 {"pitched rows", pitched, 3, 2, 8, 2.5f, 1.5f, 6},
                 {"pitched rows, clamped to the row's end", pitched, 3, 2, 8, 10.0f, 1.5f, 6}};
    for (const auto& c : cases)
        EXPECT_EQ(tessaline::sampleBilinearU8(c.img.data(), c.w, c.h, c.pitch, c.x, c.y), float(c.byte) / 255.0f)
            << c.what << " at " << c.x << "," << c.y;
}

}  // namespace
