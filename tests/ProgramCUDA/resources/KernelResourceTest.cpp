// Every kernel of the CUDA build fits the block it is launched with: read
// from ptxas's report of the build (registers per thread, static shared
// memory), with the block taken from the launch trampoline's template
// arguments. Runs where the CUDA backend is built; needs no GPU.
//
// The reports read are exactly those of the module's CUDA units, named by
// the build (TESSALINE_KERNEL_RESOURCE_REPORTS, a list separated by ';'):
// a report left behind by a unit that no longer exists is not read, and a
// unit without its report fails the test.
#include <gtest/gtest.h>

#include <cxxabi.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

// Per streaming multiprocessor of the target (compute capability 9.0), as
// a block must find them to launch at all.
constexpr long long kRegistersPerBlock = 65536;
constexpr long long kStaticSharedPerBlock = 48 * 1024;

// Registers are given out per warp, in steps of 256 (8 per thread): 64 a
// thread fit a block of 1024, 65 (72 once rounded) do not.
bool registersFit(long long registersPerThread, long long threadsPerBlock) {
    const long long perWarp = (registersPerThread * 32 + 255) / 256 * 256;
    const long long warps = (threadsPerBlock + 31) / 32;
    return perWarp * warps <= kRegistersPerBlock;
}

struct KernelResources {
    std::string name;  // the kernel body's type, e.g. tessaline::Kernel_Compute_Mean_CUDA
    long long threads = 0;
    long long registers = -1;
    long long sharedBytes = 0;
    std::string report;
};

std::string demangle(const std::string& mangled) {
    int status = 0;
    char* text = abi::__cxa_demangle(mangled.c_str(), nullptr, nullptr, &status);
    std::string result = status == 0 && text ? text : mangled;
    std::free(text);
    return result;
}

// The report files the build names, in its order.
std::vector<std::string> expectedReports() {
    std::vector<std::string> names;
    std::istringstream list(TESSALINE_KERNEL_RESOURCE_REPORTS);
    for (std::string name; std::getline(list, name, ';');)
        if (!name.empty()) names.push_back(name);
    return names;
}

// The entries of the named report files in `dir`: "Compiling entry function
// '<name>'" followed by "Used N registers, ..., S bytes smem, ...". A file
// that is missing or cannot be read is a problem.
std::map<std::string, KernelResources> readReports(const fs::path& dir, const std::vector<std::string>& files,
                                                   std::string& problems) {
    std::map<std::string, KernelResources> kernels;
    const std::regex entry(R"(Compiling entry function '([^']+)' for 'sm_\d+')");
    const std::regex used(R"(Used (\d+) registers)");
    const std::regex smem(R"((\d+) bytes smem)");
    const std::regex launch1D(R"(launchKernel1D<(\d+), ([\w:]+)>)");
    const std::regex launch2D(R"(launchKernel2D<(\d+), (\d+), ([\w:]+)>)");
    for (const std::string& file : files) {
        const fs::path path = dir / file;
        std::ifstream in(path);
        if (!fs::is_regular_file(path) || !in) {
            problems += "no resource report " + path.string() + " (is the CUDA build complete?)\n";
            continue;
        }
        std::string line, current;
        while (std::getline(in, line)) {
            std::smatch m;
            if (std::regex_search(line, m, entry)) {
                const std::string name = demangle(m[1]);
                KernelResources k;
                k.report = file;
                std::smatch b;
                if (std::regex_search(name, b, launch1D)) {
                    k.threads = std::stoll(b[1]);
                    k.name = b[2];
                } else if (std::regex_search(name, b, launch2D)) {
                    k.threads = std::stoll(b[1]) * std::stoll(b[2]);
                    k.name = b[3];
                } else {
                    problems += "a kernel not launched through a trampoline, block unknown: " + name + "\n";
                }
                current = name;
                kernels[current] = k;
            } else if (!current.empty() && std::regex_search(line, m, used)) {
                kernels[current].registers = std::stoll(m[1]);
                if (std::regex_search(line, m, smem)) kernels[current].sharedBytes = std::stoll(m[1]);
                current.clear();
            }
        }
    }
    return kernels;
}

TEST(KernelResources, EveryKernelFitsItsBlock) {
    const fs::path dir = TESSALINE_KERNEL_RESOURCE_DIR;
    ASSERT_TRUE(fs::is_directory(dir)) << "no resource report: " << dir << " (is the CUDA build complete?)";
    const std::vector<std::string> files = expectedReports();
    ASSERT_FALSE(files.empty()) << "the build names no resource report";
    std::string problems;
    const auto kernels = readReports(dir, files, problems);
    EXPECT_EQ(problems, "");
    std::set<std::string> names;
    for (const auto& [entry, k] : kernels) {
        names.insert(k.name);
        ASSERT_GE(k.registers, 0) << "no register count reported for " << entry;
        EXPECT_TRUE(registersFit(k.registers, k.threads))
            << k.name << ": " << k.registers << " registers a thread do not fit a block of " << k.threads
            << " threads (" << k.report << ")";
        EXPECT_LE(k.sharedBytes, kStaticSharedPerBlock) << k.name << " (" << k.report << ")";
    }
    // The report must cover the kernels the device module launches.
    for (const char* kernel :
         {"Kernel_TriMesh_Image_ZBuffering_CUDA", "Kernel_TriMesh_Image_ZBuffering_Store",
          "Kernel_Integrated_Perspective_Image_Model_Image_Warp_CUDA", "Kernel_Compute_VisibleMask_CUDA",
          "Kernel_Compute_Mean_CUDA", "Kernel_Compute_Var_CUDA", "Kernel_Compute_Cov_CUDA", "Kernel_Compute_CC_CUDA",
          "Kernel_Compute_AlphaBetaGamma_CUDA", "Kernel_Compute_NCCGrad_FromAlphaBetaGamma_CUDA",
          "Kernel_Integrated_AddPhotometricGradient_ImagePair_CUDA", "Kernel_Update_Vt_Image_Pair_Count",
          "Kernel_Normalize_GRAD_PHOTO", "Kernel_ComputeSmoothnessGradient", "Kernel_Compute_FacetNormal",
          "Kernel_Set_FloatArray", "Kernel_Set_IntArray", "Kernel_GradientDescent",
          "Kernel_Perspective_Image_Model_Image_Warp_CUDA", "Kernel_AddPhotometricGradient_ImagePair_CUDA",
          "Kernel_GradientDescent_UpdateMask", "Kernel_CHECK_FUNC", "Kernel_PlaneSweep_InvDepth_CUDA",
          "Kernel_PlaneSweep_Height_CUDA", "Kernel_Homography_Image_Warp_CUDA", "Kernel_Add_MultiResolution_NCC_CUDA",
          "Kernel_Take_Best_Depth"})
        EXPECT_TRUE(names.count(std::string("tessaline::") + kernel)) << kernel << " missing from the report";
}

}  // namespace
