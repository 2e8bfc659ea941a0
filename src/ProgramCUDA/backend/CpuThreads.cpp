#include "backend/CpuThreads.h"

#include <tbb/info.h>

namespace tessaline {

int cpuThreadCount(const RunContext& context) {
    return context.threads > 0 ? context.threads : tbb::info::default_concurrency();
}

}  // namespace tessaline
