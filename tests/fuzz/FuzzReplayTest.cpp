// Replays the readers' fuzz inputs through the fuzz targets themselves,
// built with the ordinary compiler: every seed (real files, which must be
// accepted) and every regression input (inputs that once crashed a reader
// or broke a promise) under tests/fuzz. A broken promise throws here, so
// that the failure names the file. Each reader is held to a memory bound
// too, measured by this binary's own operator new: no single allocation
// beyond 1 MiB plus 64 bytes per input byte (the most a table of the
// readers' records grown from what the input holds can take), so that a
// declared count alone cannot size anything. The fuzzers hold them to a
// fixed 32 MB (scripts/fuzz.sh).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "ColmapInput.h"
#include "FuzzTargets.h"

namespace {

// The largest size asked of operator new since the last reset.
std::atomic<size_t> largestAllocation{0};
// Refused outright, so that a reader that sizes a table from a damaged count
// fails here at once instead of filling gigabytes.
constexpr size_t kRefusedAllocation = size_t(256) << 20;

}  // namespace

// GCC takes the free() of memory from this operator new for a mismatch.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(size_t size) {
    size_t largest = largestAllocation.load();
    while (size > largest && !largestAllocation.compare_exchange_weak(largest, size)) {
    }
    if (size >= kRefusedAllocation) throw std::bad_alloc();
    if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }

namespace tessaline_fuzz {

void reportBrokenPromise(const std::string& what) { throw std::logic_error("broken promise of the reader: " + what); }

}  // namespace tessaline_fuzz

namespace {

namespace fs = std::filesystem;
using namespace tessaline_fuzz;

struct Target {
    const char* name;  // of its folders and its fuzzer
    Outcome (*run)(const uint8_t* data, size_t size);
};

void PrintTo(const Target& target, std::ostream* out) { *out << target.name; }

const Target kTargets[] = {
    {"sfm_scene", fuzzSfmScene},     {"refiner_ply", fuzzRefinerPly},       {"mesh_reader", fuzzMeshReader},
    {"colmap_text", fuzzColmapText}, {"colmap_binary", fuzzColmapBinary},
};

// The files of tests/fuzz/<kind>/<target>, sorted; a missing folder has none.
std::vector<fs::path> inputsOf(const std::string& kind, const Target& target) {
    const fs::path folder = fs::path(TESSALINE_SOURCE_DIR) / "tests" / "fuzz" / kind / target.name;
    std::vector<fs::path> files;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(folder, ec))
        if (entry.is_regular_file()) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

size_t allocationBound(size_t inputBytes) { return (size_t(1) << 20) + 64 * inputBytes; }

// Runs the target on the file's bytes; fails the test when the reader made
// an allocation beyond the bound.
Outcome replay(const Target& target, const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    const std::string input = bytes.str();
    largestAllocation = 0;
    const Outcome outcome = target.run(reinterpret_cast<const uint8_t*>(input.data()), input.size());
    EXPECT_LE(largestAllocation.load(), allocationBound(input.size()))
        << "an allocation of this many bytes for an input of " << input.size();
    return outcome;
}

class FuzzReplay : public ::testing::TestWithParam<Target> {};

TEST_P(FuzzReplay, SeedsAreAcceptedAndKeepEveryPromise) {
    const auto seeds = inputsOf("seeds", GetParam());
    ASSERT_FALSE(seeds.empty()) << "no seed inputs for " << GetParam().name;
    for (const fs::path& file : seeds) {
        SCOPED_TRACE(file.string());
        Outcome outcome = Outcome::Refused;
        EXPECT_NO_THROW(outcome = replay(GetParam(), file));
        EXPECT_EQ(outcome, Outcome::Accepted) << "a seed is a real file the reader must read";
    }
}

TEST_P(FuzzReplay, RegressionInputsKeepEveryPromise) {
    const auto regressions = inputsOf("regressions", GetParam());
    ASSERT_FALSE(regressions.empty()) << "no regression inputs for " << GetParam().name;
    for (const fs::path& file : regressions) {
        SCOPED_TRACE(file.string());
        EXPECT_NO_THROW(replay(GetParam(), file));
    }
}

INSTANTIATE_TEST_SUITE_P(Readers, FuzzReplay, ::testing::ValuesIn(kTargets),
                         [](const ::testing::TestParamInfo<Target>& info) { return std::string(info.param.name); });

TEST(ColmapFuzzInput, SplitsIntoThreeFilesAtTheSeparatorLines) {
    const auto all = splitColmapInput("cams\n@@@\nimgs\n@@@\npts\n@@@\nmore");
    EXPECT_EQ(all.cameras, "cams");
    EXPECT_EQ(all.images, "imgs");
    EXPECT_EQ(all.points3D, "pts\n@@@\nmore");
    const auto one = splitColmapInput("cams only\n@@\n");
    EXPECT_EQ(one.cameras, "cams only\n@@\n");
    EXPECT_TRUE(one.images.empty() && one.points3D.empty());
    const auto two = splitColmapInput("\n@@@\nimgs");
    EXPECT_TRUE(two.cameras.empty() && two.points3D.empty());
    EXPECT_EQ(two.images, "imgs");
}

}  // namespace
