// Where a process of a run computes: the processes of a shared run on one
// machine take its CUDA devices in turn, or share its cores.
#pragma once

#include "RunContext.h"
#include "processStart.h"

// Puts `processes` into `context` and, in a shared run, gives this process
// its share of the machine's CPU threads (unless the context names a thread
// count). Returns the CUDA device index it should use: `deviceIndex` for a
// process on its own, else its place among the processes on its machine.
int placeProcess(RunContext& context, const ProcessStart& processes, int deviceIndex);
