#include "processPlacement.h"

#include <tbb/info.h>

#include <algorithm>

#include "ProgramCUDA.h"

int placeProcess(RunContext& context, const ProcessStart& processes, int deviceIndex) {
    context.processes = processes.group;
    if (!processes.group.distributed()) return deviceIndex;
    if (context.threads == 0)
        context.threads = std::max(1, tbb::info::default_concurrency() / std::max(1, processes.localSize));
    const int devices = cudaDeviceCount();
    return devices > 0 ? processes.localRank % devices : 0;
}
