// The memory check of `tessaline refine`: the estimate of MemoryEstimate.h
// for the scene, mesh and settings of a request, printed, and weighed
// against the memory the run can have.
#pragma once

#include <ostream>
#include <string>

#include "MemoryEstimate.h"
#include "ProgramCUDA.h"
#include "RefineRequest.h"
#include "TriMesh.h"

namespace tessaline::frontend {

struct MemoryVerdict {
    memory::MemoryNeed need;
    uint64_t hostAvailable = 0, deviceAvailable = 0;
    bool fits = false;
};

// Reads the scene file and the photographs' headers (no photograph is
// decoded), estimates the run on `setup`'s backend, prints the estimate on
// `out` and, when it does not fit, one "Error: " line on std::cout with what
// it needs, what there is and what would make it fit. False, with `error`,
// when the scene cannot be read.
bool checkMemory(const RefineRequest& request, const std::string& scenePath, const TriMesh& mesh,
                 const DeviceSetup& setup, std::ostream& out, MemoryVerdict& verdict, std::string& error);

}  // namespace tessaline::frontend
