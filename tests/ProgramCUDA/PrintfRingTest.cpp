// The device printf ring: the byte layout of a record, the text the display
// makes of it, slots under many threads, wrap-around, overflow and the
// length limit of a format behind four arguments.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "DeviceTestSupport.h"
#include "printf/cuPrintf.h"
#include "printf/cuPrintfDisplay.h"

namespace {

using namespace tessaline::test;

constexpr int kValues = 70704;

// What cuPrintfDisplay shows, and its status.
struct Shown {
    int status;
    std::string text;
};

Shown displayRing(const DeviceHandle& device, bool showThreadIds) {
    Shown s{0, ""};
    s.text = printedBy([&] { s.status = cuPrintfDisplay(device, stdout, showThreadIds); });
    return s;
}

size_t lines(const std::string& text) { return size_t(std::count(text.begin(), text.end(), '\n')); }

std::vector<float> gradient(float a, float b, float c) {
    std::vector<float> v(kValues, 0.0f);
    v[70701] = a, v[70702] = b, v[70703] = c;
    return v;
}

template <class T>
T at(const std::vector<uint8_t>& bytes, size_t offset) {
    T v;
    std::memcpy(&v, bytes.data() + offset, sizeof v);
    return v;
}

class PrintfRing : public OnEachBackend {
   protected:
    void TearDown() override { cuPrintfEnd(device()); }

    // CHECK_FUNC_CUDA on n threads over the gradient g; must not be refused.
    void checkFunc(const std::vector<float>& g, int n, int callIndex) {
        EXPECT_EQ(CHECK_FUNC_CUDA(device(), CheckFuncArgs{g.data(), int(g.size()), n, callIndex}), DeviceStatus::Ok);
    }
    Shown display(bool showThreadIds) { return displayRing(device(), showThreadIds); }
};

TEST_P(PrintfRing, CheckFuncRecordHasTheRecordLayout) {
    ASSERT_EQ(cuPrintfInit(device(), 1048576), 0);
    const std::vector<float> g = gradient(1.5f, -2.25f, 0.125f);
    checkFunc(g, 1, 7);
    std::vector<uint8_t> ring(512, 0xEE);
    ASSERT_EQ(cuPrintfCopyRing(device(), ring.data(), ring.size()), 0);

    EXPECT_EQ(at<uint16_t>(ring, 0), 0xC811);
    EXPECT_EQ(at<uint16_t>(ring, 2), 72);  // fmtOffset
    EXPECT_EQ(at<uint32_t>(ring, 4), 0u);  // blockId, threadId
    for (size_t c : {8, 24, 40, 56}) EXPECT_EQ(at<int32_t>(ring, c), 4) << "size of cell at " << c;
    EXPECT_EQ(at<int32_t>(ring, 16), 7);
    for (auto [c, v] : {std::pair{32, 1.5f}, {48, -2.25f}, {64, 0.125f}}) EXPECT_EQ(at<float>(ring, c), v) << c;
    EXPECT_EQ(at<uint32_t>(ring, 72), 32u);  // 28 characters, the zero, 3 bytes of padding
    const char text[] = "Call %d GRAD_PHOTO %f %f %f\n";
    ASSERT_EQ(sizeof text, 29u);
    EXPECT_EQ(std::memcmp(ring.data() + 80, text, sizeof text), 0);
    for (size_t i = 80 + sizeof text; i < ring.size(); ++i) ASSERT_EQ(ring[i], 0) << "byte " << i;  // and slot 2

    const Shown s = display(true);
    EXPECT_EQ(s.status, 0);
    EXPECT_EQ(s.text, "[0, 0]: Call 7 GRAD_PHOTO 1.500000 -2.250000 0.125000\n");
    // The display clears the ring.
    ASSERT_EQ(cuPrintfCopyRing(device(), ring.data(), ring.size()), 0);
    EXPECT_EQ(ring, std::vector<uint8_t>(ring.size(), 0));
}

TEST_P(PrintfRing, EveryThreadGetsItsOwnSlot) {
    ASSERT_EQ(cuPrintfInit(device(), 1048576), 0);
    const std::vector<float> g = gradient(0.5f, 0.25f, -1.0f);
    const int n = 1300;  // three blocks of 512
    checkFunc(g, n, 2);
    std::multiset<std::string> shown, expected;
    std::istringstream text(display(true).text);
    for (std::string line; std::getline(text, line);) shown.insert(line);
    for (int id = 0; id < n; ++id)
        expected.insert("[" + std::to_string(id / 512) + ", " + std::to_string(id % 512) +
                        "]: Call 2 GRAD_PHOTO 0.500000 0.250000 -1.000000");
    EXPECT_TRUE(shown == expected) << shown.size() << " lines shown";
}

// Lengths round up to whole slots of 256 bytes, at least one. A ring filled
// exactly has its cursor back at the start and shows every record; an
// overrun one shows the newest it holds, oldest first.
TEST_P(PrintfRing, RingHoldsTheNewestWholeSlots) {
    const std::vector<float> g = gradient(1, 2, 3);
    for (auto [bytes, printed, shown] : {std::array{0, 2, 1}, {257, 3, 2}, {1024, 4, 4}, {1024, 6, 4}}) {
        ASSERT_EQ(cuPrintfInit(device(), size_t(bytes)), 0);
        checkFunc(g, printed, 1);
        EXPECT_EQ(lines(display(false).text), size_t(shown)) << bytes << " bytes, " << printed << " records";
    }
    ASSERT_EQ(cuPrintfInit(device(), 512), 0);
    for (int call : {1, 2, 3}) checkFunc(g, 1, call);
    EXPECT_EQ(display(false).text, "Call 2 GRAD_PHOTO 1.000000 2.000000 3.000000\n"
                                   "Call 3 GRAD_PHOTO 1.000000 2.000000 3.000000\n");
}

TEST_P(PrintfRing, EmptyAndRepeatedDisplaysAndRefusedCallsPrintNothing) {
    EXPECT_EQ(display(true).status, 1);  // no ring armed
    ASSERT_EQ(cuPrintfInit(device(), 1048576), 0);
    const std::vector<float> g = gradient(1, 2, 3);
    // One value short of vertex 23567: refused before any launch.
    expectRefused("CHECK_FUNC_CUDA", [&] { return CHECK_FUNC_CUDA(device(), CheckFuncArgs{g.data(), kValues - 1, 1, 0}); });
    const Shown none = display(true);
    EXPECT_EQ(none.status, 0);
    EXPECT_EQ(none.text, "");
    checkFunc(g, 3, 9);
    EXPECT_EQ(lines(display(false).text), 3u);
    // The cursor stays where it was, and the first slot, which the display
    // tests, stays empty until the cursor comes round again.
    checkFunc(g, 3, 9);
    EXPECT_EQ(display(false).text, "");
    cuPrintfEnd(device());
    EXPECT_EQ(display(true).status, 1);
}

TESSALINE_INSTANTIATE_ON_BACKENDS(PrintfRing);

// ---------------------------------------------------------------------------
// Records written from host code into the CPU ring: the record writer is
// the same function on the device.

class CpuPrintf : public ::testing::Test {
   protected:
    void SetUp() override { ASSERT_EQ(cuPrintfInit(cpuDevice(), 1048576), 0); }
    void TearDown() override { cuPrintfEnd(cpuDevice()); }
    Shown display(bool showThreadIds) { return displayRing(cpuDevice(), showThreadIds); }
};

TEST_F(CpuPrintf, FormatOf167CharactersFitsBehindFourArgumentsAnd168DoesNot) {
    const std::string fits(167, 'a'), overflows(168, 'b');
    // Cells at 8..71, text from 80: 167 characters and the zero pad to 168,
    // ending at 248; 168 characters pad to 176 and reach the slot's end.
    EXPECT_EQ(cuPrintf(fits.c_str(), 1, 2.0f, 3.0f, 4.0f), 248);
    EXPECT_EQ(cuPrintf(overflows.c_str(), 1, 2.0f, 3.0f, 4.0f), 0);
    const Shown s = display(true);
    EXPECT_EQ(s.text, "[0, 0]: " + fits + "[0, 0]: printf buffer overflow\n");
    // With ids hidden the overflow record loses its thread prefix.
    ASSERT_EQ(cuPrintfInit(cpuDevice(), 1048576), 0);
    EXPECT_EQ(cuPrintf(std::string(300, 'x').c_str(), 1, 2, 3, 4), 0);
    EXPECT_EQ(display(false).text, "printf buffer overflow\n");
}

TEST_F(CpuPrintf, ConversionsUseOneCellEachAndALonePercentNone) {
    cuPrintf("%d%%%d|%5.2f\n", 1, 2, 3, 2.5);
    cuPrintf("%x %c\n", 255, 65);
    cuPrintf("100%");
    cuPrintf(" %.3f", 0.1);  // a double is read as a double
    cuPrintf(" %ld %lld\n", 5, 6);  // length modifiers are dropped: the cell holds 32 bits
    const Shown s = display(false);
    // "%%" takes the second cell, so the next %d prints the third.
    EXPECT_EQ(s.text, "1%3| 2.50\nff A\n100% 0.100 5 6\n");
}

TEST_F(CpuPrintf, RestrictFiltersThreadsAndBlocks) {
    auto& origin = tessaline::printfring::currentPrintfOrigin();
    origin = tessaline::printfring::PrintfOrigin{1, 5, 32, 4};
    cuPrintfRestrict(5, 1);
    EXPECT_GT(cuPrintf("mine\n"), 0);
    cuPrintfRestrict(4, -1);
    EXPECT_EQ(cuPrintf("not mine\n"), 0);
    cuPrintfRestrict(99, 7);  // outside the launch: both filters stay
    EXPECT_EQ(cuPrintf("still not\n"), 0);
    cuPrintfRestrict(-1, -1);
    EXPECT_GT(cuPrintf("all\n"), 0);
    origin = tessaline::printfring::PrintfOrigin{};
    EXPECT_EQ(display(true).text, "[1, 5]: mine\n[1, 5]: all\n");
    cuPrintfEnd(cpuDevice());  // a closed ring takes no slot
    EXPECT_EQ(cuPrintf("lost\n"), 0);
}

TEST(PrintfFormat, CorruptArgumentSizeStopsTheRecord) {
    alignas(256) unsigned char slot[2 * tessaline::printfring::kSlotBytes] = {0};
    ASSERT_GT(tessaline::printfring::writeRecord(slot, 0, 0, "a=%d b=%d\n", 1, 2), 0);
    const int corrupt = 300;
    std::memcpy(slot + 24, &corrupt, sizeof corrupt);
    bool complete = true;
    const std::string out = printedBy([&] { complete = tessaline::printfring::formatPrintfRecord(stdout, slot, 40); });
    EXPECT_FALSE(complete);
    EXPECT_EQ(out, "a=1 b=Corrupt printf buffer data - aborting\n");
}

}  // namespace
