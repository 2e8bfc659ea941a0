// The memory reports that calls print around their allocations.
#pragma once

#include <iostream>

#include "ProgramCUDA.h"

namespace tessaline {

// "<text><free>MB  Total: <total>" and a line end, for the given device
// (host memory on the CPU backend).
inline void printDeviceMemoryReport(const DeviceHandle& device, const char* text) {
    double freeMB = 0.0, totalMB = 0.0;
    deviceMemoryInfo(device, freeMB, totalMB);
    std::cout << text << freeMB << "MB  Total: " << totalMB << "\n";
    std::cout.flush();
}

}  // namespace tessaline
