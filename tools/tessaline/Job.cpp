#include "Job.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>

namespace tessaline::frontend {

int launchedProcesses() {
    for (const char* name : {"OMPI_COMM_WORLD_SIZE", "PMI_SIZE", "SLURM_STEP_NUM_TASKS"})
        if (const char* value = std::getenv(name)) return std::max(1, std::atoi(value));
    return 1;
}

namespace {

ProcessStart& job() {
    static ProcessStart processes;
    return processes;
}

}  // namespace

const ProcessStart& jobProcesses() { return job(); }

void setJobProcesses(const ProcessStart& processes) { job() = processes; }

bool AgreedSteps::passed(bool ok, const std::string& error) {
    if (!ok && !error.empty()) std::cout << "Error: " << error << std::endl;
    std::string failedRanks;
    if (everyProcessSucceeded(group_, output_, ok, failedRanks)) return true;
    if (ok && group_.rank == 0)
        std::cout << "Error: the run stopped on rank " << failedRanks << "; nothing was written" << std::endl;
    return false;
}

}  // namespace tessaline::frontend
