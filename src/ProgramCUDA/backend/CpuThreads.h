// Worker threads of the CPU backend.
#pragma once

#include <string>

namespace tessaline {

// The number of threads the CPU backend's launches use: TESSALINE_THREADS
// when it holds a whole number from 1 to 4096, otherwise every core the
// process may use. The limit is set on the first call and holds for the
// whole process; an unusable value is reported once with a "Warning: " line.
int cpuThreadCount();

// The thread count a setting asks for (`setting` null when the variable is
// unset), or `cores` with a warning line when it is not usable.
int threadCountFromSetting(const char* setting, int cores, std::string& warning);

}  // namespace tessaline
