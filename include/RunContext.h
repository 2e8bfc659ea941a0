// How a run executes, as opposed to what it computes: the schedule of the
// optimisation, CUDA graphs, kernel timing, the CPU backend's threads, the
// backend asked for, and the processes that share the work. A program fills
// it once at start-up (from its command line and environment) and hands it
// down inside the DeviceHandle; nothing below reads the environment, so a
// test sets a field and two calls in one process may differ.
//
// None of these fields changes the output bytes: both schedules, graphs or
// direct launches, any thread count and any number of processes give the
// same vertices, bit for bit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

// How an optimisation call schedules its kernels. `Reference` runs the chain
// of a camera pair as the thirteen launches of the kernels it is made of;
// `Fast` as three (warp, window statistics, gradient with its accumulation),
// with the CPU's row routines and, on CUDA, replayed graphs.
enum class OptimizationSchedule { Reference, Fast };

// The processes of a distributed run and how their partial results are
// combined. A run of one process holds all the work and leaves
// `sumIntegers` unset.
struct ProcessGroup {
    int rank = 0;  // this process, 0 .. size - 1
    int size = 1;
    // Adds `count` 64-bit integers element by element over all processes of
    // the group and leaves the totals in `values` on every one of them.
    // Integer sums are exact in any order, so the totals do not depend on
    // how the processes meet. Returns false when a process of the group has
    // failed; the run then stops in order.
    std::function<bool(uint64_t* values, size_t count)> sumIntegers;

    bool distributed() const { return size > 1; }
};

struct RunContext {
    OptimizationSchedule schedule = OptimizationSchedule::Fast;
    bool graphs = true;    // CUDA: record an iteration's launches once and replay them
    bool profile = false;  // time every call and kernel (and print the profile after each optimisation)
    int threads = 0;       // threads of the CPU backend; 0: every core the process may use
    bool cpuOnly = false;  // run the kernels on the CPU even where a CUDA device answers
    ProcessGroup processes;
    // Called after each iteration of an optimisation call with the
    // iterations done and the call's total, on the calling thread; false
    // stops the call there (it then fails, and leaves the vertices as they
    // came). For progress reports and interruption; unset: nothing is called.
    std::function<bool(long long done, long long total)> onIteration;
};
