// The processes of a run: one when the tool is started on its own, several
// when an MPI launcher (mpirun, or srun under SLURM) starts it as a job. The
// group adds integer arrays over all of them (MPI_Allreduce); every process
// runs the same steps on its share of the cameras.
#pragma once

#include "RunContext.h"

struct ProcessStart {
    ProcessGroup group;  // rank and size, and the sum over the job's processes
    int localRank = 0;   // this process among those on the same machine
    int localSize = 1;
};

// Joins the job the launcher started (a process started on its own is a job
// of one). Call once, first thing in main.
ProcessStart startProcesses(int& argc, char**& argv);

// Leaves the job; every process calls it once before it exits.
void endProcesses();

// Ends every process of the job at once with `status`: for a failure that
// the processes cannot agree on in order (an exception in one of them).
void abortProcesses(int status);
