#include "backend/CpuThreads.h"

#include <tbb/global_control.h>
#include <tbb/info.h>

#include <cstdlib>
#include <iostream>
#include <memory>

namespace tessaline {

int threadCountFromSetting(const char* setting, int cores, std::string& warning) {
    warning.clear();
    if (!setting) return cores;
    char* end = nullptr;
    const long wanted = std::strtol(setting, &end, 10);
    if (end == setting || *end != '\0' || wanted < 1 || wanted > 4096) {
        warning = "Warning: TESSALINE_THREADS=" + std::string(setting) + " is not a whole number from 1 to 4096; " +
                  std::to_string(cores) + " threads are used";
        return cores;
    }
    return int(wanted);
}

namespace {

int startThreads() {
    std::string warning;
    const int threads = threadCountFromSetting(std::getenv("TESSALINE_THREADS"), tbb::info::default_concurrency(),
                                               warning);
    if (!warning.empty()) std::cout << warning << std::endl;
    // Kept for the life of the process: the limit lasts as long as this object.
    static std::unique_ptr<tbb::global_control> limit;
    limit = std::make_unique<tbb::global_control>(tbb::global_control::max_allowed_parallelism, size_t(threads));
    return threads;
}

}  // namespace

int cpuThreadCount() {
    static const int threads = startThreads();
    return threads;
}

}  // namespace tessaline
