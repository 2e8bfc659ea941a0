// Worker threads of the CPU backend.
#pragma once

#include "RunContext.h"

namespace tessaline {

// The number of threads the CPU backend's launches use under `context`: its
// `threads` when positive, otherwise every core the process may use.
int cpuThreadCount(const RunContext& context);

}  // namespace tessaline
