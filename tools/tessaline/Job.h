// The processes `tessaline` runs as: one, or the processes of an MPI job
// when a launcher (mpirun, or srun under SLURM) started several. `refine`
// then shares the run among them as tessaline_refine does; every other
// sub-command runs whole in each.
#pragma once

#include <string>

#include "processStart.h"
#include "rankOutput.h"

namespace tessaline::frontend {

// The job's size as the launcher announced it in the environment; 1 when
// no launcher did.
int launchedProcesses();

// This process's job, as main() joined it (one process until then).
const ProcessStart& jobProcesses();
void setJobProcesses(const ProcessStart& processes);

// The steps of a run that every process of a shared run gets through
// together: a process that fails one prints why, its line is repeated with
// its rank, and every process stops there. One process: its own result.
class AgreedSteps {
   public:
    AgreedSteps(const ProcessGroup& group, RankOutput& output) : group_(group), output_(output) {}

    // True when every process got through the step; `error` (when not empty)
    // is this process's "Error: " line when it did not.
    bool passed(bool ok, const std::string& error = "");

   private:
    const ProcessGroup& group_;
    RankOutput& output_;
};

}  // namespace tessaline::frontend
