// `tessaline refine`, once its command line is complete: the import of a
// COLMAP model into a work folder, the memory check, the refinement through
// the tool's own level loop, and the output in the format of its extension.
#pragma once

#include "ProgramCUDA.h"
#include "RefineRequest.h"

namespace tessaline::frontend {

// The device the request asks for, under the environment's run context and
// the request's thread count; false, with the reason, when it asks for CUDA
// and no device answers.
bool chooseDevice(const RefineRequest& request, DeviceSetup& setup, std::string& error);

// Runs the request; returns the exit status (0 success, 1 failure).
int runRefine(const RefineRequest& request);

}  // namespace tessaline::frontend
