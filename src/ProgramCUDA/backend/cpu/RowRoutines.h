// The CPU backend's row routines: a kernel that has one is run a row at a
// time through it (CpuBackend::launch) instead of a cell at a time. Each
// leaves exactly the bytes of the kernel's per-cell body. A CPU unit that
// launches these kernels includes this header, so that the backend finds
// the routines.
#pragma once

#include "backend/cpu/PairGradientRows.h"
#include "backend/cpu/WarpRows.h"
#include "backend/cpu/WindowStatisticsRows.h"
