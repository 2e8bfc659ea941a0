// The device printf ring: the byte layout of a record, the text the display
// makes of it, slots under many threads, wrap-around, overflow and the
// length limit of a format behind four arguments.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "DeviceTestSupport.h"
#include "cuPrintf/cuPrintf.h"
#include "cuPrintf/cuPrintfDisplay.h"

namespace {

using tessaline::test::OnEachBackend;

constexpr int kValues = 70704;

// Runs cuPrintfDisplay into a temporary file and returns its status and text.
struct Shown {
    int status;
    std::string text;
};

Shown display(bool showThreadIds) {
    FILE* f = std::tmpfile();
    Shown s{cuPrintfDisplay(f, showThreadIds), ""};
    std::fflush(f);
    std::rewind(f);
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) s.text.append(buf, n);
    std::fclose(f);
    return s;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

std::vector<float> gradient(float a, float b, float c) {
    std::vector<float> v(kValues, 0.0f);
    v[70701] = a;
    v[70702] = b;
    v[70703] = c;
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
    void TearDown() override {
        cuPrintfEnd();
        OnEachBackend::TearDown();
    }
};

TEST_P(PrintfRing, CheckFuncRecordHasTheRecordLayout) {
    ASSERT_EQ(cuPrintfInit(1048576), 0);
    const std::vector<float> g = gradient(1.5f, -2.25f, 0.125f);
    CHECK_FUNC_CUDA(g.data(), kValues, 1, 7);
    std::vector<uint8_t> ring(512, 0xEE);
    ASSERT_EQ(cuPrintfCopyRing(ring.data(), ring.size()), 0);

    EXPECT_EQ(at<uint16_t>(ring, 0), 0xC811);
    EXPECT_EQ(at<uint16_t>(ring, 2), 72);  // fmtOffset
    EXPECT_EQ(at<uint32_t>(ring, 4), 0u);  // blockId, threadId
    for (size_t c : {8, 24, 40, 56}) EXPECT_EQ(at<int32_t>(ring, c), 4) << "size of cell at " << c;
    EXPECT_EQ(at<int32_t>(ring, 16), 7);
    EXPECT_EQ(at<float>(ring, 32), 1.5f);
    EXPECT_EQ(at<float>(ring, 48), -2.25f);
    EXPECT_EQ(at<float>(ring, 64), 0.125f);
    EXPECT_EQ(at<uint32_t>(ring, 72), 32u);  // 28 characters, the zero, 3 bytes of padding
    const char text[] = "Call %d GRAD_PHOTO %f %f %f\n";
    ASSERT_EQ(sizeof text, 29u);
    EXPECT_EQ(std::memcmp(ring.data() + 80, text, sizeof text), 0);
    for (size_t i = 80 + sizeof text; i < 256; ++i) EXPECT_EQ(ring[i], 0) << "byte " << i;
    for (size_t i = 256; i < 512; ++i) ASSERT_EQ(ring[i], 0) << "second slot byte " << i;

    const Shown s = display(true);
    EXPECT_EQ(s.status, 0);
    EXPECT_EQ(s.text, "[0, 0]: Call 7 GRAD_PHOTO 1.500000 -2.250000 0.125000\n");
    // The display clears the ring.
    ASSERT_EQ(cuPrintfCopyRing(ring.data(), ring.size()), 0);
    for (size_t i = 0; i < ring.size(); ++i) ASSERT_EQ(ring[i], 0) << "byte " << i;
}

TEST_P(PrintfRing, EveryThreadGetsItsOwnSlot) {
    ASSERT_EQ(cuPrintfInit(1048576), 0);
    const std::vector<float> g = gradient(0.5f, 0.25f, -1.0f);
    const int n = 1300;  // three blocks of 512
    CHECK_FUNC_CUDA(g.data(), kValues, n, 2);
    const Shown s = display(true);
    const std::vector<std::string> l = lines(s.text);
    ASSERT_EQ(int(l.size()), n);
    std::set<int> ids;
    for (const std::string& line : l) {
        int block = -1, thread = -1;
        char rest[128] = {0};
        ASSERT_EQ(std::sscanf(line.c_str(), "[%d, %d]: %127[^\n]", &block, &thread, rest), 3) << line;
        EXPECT_STREQ(rest, "Call 2 GRAD_PHOTO 0.500000 0.250000 -1.000000");
        ids.insert(block * 512 + thread);
    }
    EXPECT_EQ(int(ids.size()), n);
    EXPECT_EQ(*ids.rbegin(), n - 1);
}

TEST_P(PrintfRing, RingLengthsRoundUpToWholeSlots) {
    const std::vector<float> g = gradient(1, 2, 3);
    // 0 bytes give one slot: of two records only one is left.
    ASSERT_EQ(cuPrintfInit(0), 0);
    CHECK_FUNC_CUDA(g.data(), kValues, 2, 0);
    EXPECT_EQ(lines(display(false).text).size(), 1u);
    // 257 bytes give two slots.
    ASSERT_EQ(cuPrintfInit(257), 0);
    CHECK_FUNC_CUDA(g.data(), kValues, 3, 0);
    EXPECT_EQ(lines(display(false).text).size(), 2u);
}

TEST_P(PrintfRing, FullRingShowsEveryRecordAndWrappedRingTheNewest) {
    const std::vector<float> g = gradient(1, 2, 3);
    ASSERT_EQ(cuPrintfInit(4 * 256), 0);
    CHECK_FUNC_CUDA(g.data(), kValues, 4, 1);  // exactly full: the cursor is back at the start
    EXPECT_EQ(lines(display(false).text).size(), 4u);

    ASSERT_EQ(cuPrintfInit(4 * 256), 0);
    CHECK_FUNC_CUDA(g.data(), kValues, 6, 1);  // two records overwritten
    EXPECT_EQ(lines(display(true).text).size(), 4u);
}

TEST_P(PrintfRing, EmptyAndRepeatedDisplaysPrintNothing) {
    EXPECT_EQ(display(true).status, 1);  // no ring armed
    ASSERT_EQ(cuPrintfInit(1048576), 0);
    Shown s = display(true);
    EXPECT_EQ(s.status, 0);
    EXPECT_EQ(s.text, "");
    const std::vector<float> g = gradient(1, 2, 3);
    CHECK_FUNC_CUDA(g.data(), kValues, 3, 9);
    EXPECT_EQ(lines(display(false).text).size(), 3u);
    // The cursor stays where it was, and the first slot, which the display
    // tests, stays empty until the cursor comes round again.
    CHECK_FUNC_CUDA(g.data(), kValues, 3, 9);
    s = display(false);
    EXPECT_EQ(s.status, 0);
    EXPECT_EQ(s.text, "");
    cuPrintfEnd();
    EXPECT_EQ(display(true).status, 1);
}

TEST_P(PrintfRing, WrappersLeaveTheRingClosedAndPrintNoRecords) {
    // A plane sweep opens, shows and closes the ring: nothing but its own
    // progress lines appears, and no ring is armed afterwards.
    const int w = 8, h = 8;
    std::vector<uint8_t> stack(size_t(w) * h * 2, 100);
    const double c0[3] = {0, 0, -2}, c1[3] = {0.1, 0, -2}, target[3] = {0, 0, 0}, up[3] = {0, -1, 0};
    const mycamera_cuda cams[2] = {tessaline::test::lookAtCamera(c0, target, up, 10, 10, 4, 4),
                                   tessaline::test::lookAtCamera(c1, target, up, 10, 10, 4, 4)};
    std::vector<float> depth(w * h), score(w * h);
    testing::internal::CaptureStdout();
    PlaneSweep_InvDepth_CUDA(1, w, h, stack.data(), cams, w, h, 1, depth.data(), score.data(), 0.4f, 0.01f, 4);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "run kernel...\nthreads per block: 32 32\nnumber of blocks: 1 1\ncopy back data...\n");
    EXPECT_EQ(display(true).status, 1);
}

TEST_P(PrintfRing, CheckFuncRefusesAShortArray) {
    ASSERT_EQ(cuPrintfInit(1048576), 0);
    std::vector<float> g(kValues - 1, 0.0f);
    testing::internal::CaptureStdout();
    CHECK_FUNC_CUDA(g.data(), kValues - 1, 1, 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("Error: ", 0), 0u);
    EXPECT_EQ(display(true).text, "");
}

TESSALINE_INSTANTIATE_ON_BACKENDS(PrintfRing);

// ---------------------------------------------------------------------------
// Records written from host code into the CPU ring: the record writer is
// the same function on the device.

class CpuPrintf : public ::testing::Test {
   protected:
    void SetUp() override {
        ASSERT_TRUE(setActiveDeviceBackend(DeviceBackend::Cpu));
        ASSERT_EQ(cuPrintfInit(1048576), 0);
    }
    void TearDown() override { cuPrintfEnd(); }
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
    ASSERT_EQ(cuPrintfInit(1048576), 0);
    EXPECT_EQ(cuPrintf(std::string(300, 'x').c_str(), 1, 2, 3, 4), 0);
    EXPECT_EQ(display(false).text, "printf buffer overflow\n");
}

TEST_F(CpuPrintf, RecordsOfAWrappedRingComeOldestFirst) {
    ASSERT_EQ(cuPrintfInit(512), 0);
    cuPrintf("first\n");
    cuPrintf("second\n");
    cuPrintf("third\n");  // takes the first slot again
    EXPECT_EQ(display(false).text, "second\nthird\n");
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
    cuPrintfEnd();  // a closed ring takes no slot
    EXPECT_EQ(cuPrintf("lost\n"), 0);
}

TEST(PrintfFormat, CorruptArgumentSizeStopsTheRecord) {
    alignas(256) unsigned char slot[2 * tessaline::printfring::kSlotBytes] = {0};
    ASSERT_GT(tessaline::printfring::writeRecord(slot, 0, 0, "a=%d b=%d\n", 1, 2), 0);
    const int corrupt = 300;
    std::memcpy(slot + 24, &corrupt, sizeof corrupt);
    FILE* f = std::tmpfile();
    EXPECT_FALSE(tessaline::printfring::formatPrintfRecord(f, slot, 40));
    std::rewind(f);
    char buf[256] = {0};
    EXPECT_GT(std::fread(buf, 1, sizeof buf - 1, f), 0u);
    std::fclose(f);
    EXPECT_STREQ(buf, "a=1 b=Corrupt printf buffer data - aborting\n");
}

}  // namespace
