// The run context of a program, from the environment variables the README
// documents. A program's entry reads it once and hands it down in the
// DeviceHandle; nothing below the entry reads the environment.
//
//   TESSALINE_SCHEDULE  reference | fast (default)
//   TESSALINE_GRAPHS    0 turns the replay of CUDA graphs off
//   TESSALINE_PROFILE   anything but empty or 0 turns the kernel profile on
//   TESSALINE_THREADS   threads of the CPU backend, a whole number 1..4096
//   TESSALINE_BACKEND   cpu keeps the kernels on the CPU
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "RunContext.h"

// A variable's value, or null when it is not set.
using EnvironmentLookup = std::function<const char*(const char* name)>;

// The context that the variables given by `lookup` ask for. An unusable
// value leaves its field at the default and adds one "Warning: " line to
// `warnings`.
RunContext runContextFromVariables(const EnvironmentLookup& lookup, std::vector<std::string>& warnings);

// The same from the process's environment.
RunContext runContextFromEnvironment(std::vector<std::string>& warnings);
