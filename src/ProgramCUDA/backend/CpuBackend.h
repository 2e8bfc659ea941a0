// The CPU backend: device memory is host memory, a launch is a parallel loop
// over the launch's whole index space (idle tail included, so the kernels'
// own guards decide exactly as on the GPU), textures are the byte images
// read through the texture unit's sampling rule (TextureSampler.h).
//
// Loops run on TBB's work-stealing scheduler rather than a fork-join team: a
// launch ends when its ranges are done, not when every thread has checked
// in, so a worker that another process keeps off its core does not hold up
// the thousands of short launches of an iteration (on two busy cores this
// halves the running time; on idle cores it changes nothing). They run in a
// task arena of the run context's thread count, so that two backends in one
// process may use different counts.
//
// Every primitive does nothing once the backend has failed, so that a call
// that meets a failure runs to its end without touching anything more.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>
#include <type_traits>
#include <utility>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include "LaunchGeometry.h"
#include "ProgramCUDA.h"
#include "TextureSampler.h"
#include "backend/CpuThreads.h"
#include "backend/KernelProfile.h"

namespace tessaline {

// A kernel may come with a CPU routine for whole rows of its grid,
// `cpuRows(kernel, y0, y1)`, declared beside it; the CPU backend then runs
// rows instead of single cells. Such a routine must leave exactly what the
// per-cell body leaves.
template <class F, class = void>
struct HasCpuRows : std::false_type {};
template <class F>
struct HasCpuRows<F, std::void_t<decltype(cpuRows(std::declval<const F&>(), 0, 0))>> : std::true_type {};

// Launches of fewer elements than this run on the calling thread: waking
// the workers costs more than such a launch. A kernel whose elements are
// dear (a whole facet each) sets a smaller kCpuParallelMinimum.
template <class F, class = void>
struct CpuParallelMinimum {
    static constexpr long long value = 4096;
};
template <class F>
struct CpuParallelMinimum<F, std::void_t<decltype(F::kCpuParallelMinimum)>> {
    static constexpr long long value = F::kCpuParallelMinimum;
};

class CpuBackend {
   public:
    static constexpr bool isCuda = false;
    static constexpr bool kHasGraphs = false;
    static constexpr int kZBufferLanes = 1;  // a thread per facet: the CPU's threads are few
    bool failed = false;

    explicit CpuBackend(const DeviceHandle& device = cpuDevice(), bool serial = false)
        : device_(device),
          threads_(serial ? 1 : cpuThreadCount(device.context)),
          arena_(threads_) {}
    const DeviceHandle& device() const { return device_; }
    bool profiling() const { return device_.context.profile; }

    // ---- Tasks: independent sequences of launches that may run at the
    // same time, each on one thread with launches of its own (a serial
    // backend), in a slot of work memory that no other running task uses.
    // How many slots the tasks need at most.
    int taskSlots() const { return threads_; }

    // task(run, slot, index) for index 0..n-1.
    template <class Task>
    void runTasks(int n, const Task& task) {
        if (failed) return;
        if (n <= 1 || taskSlots() == 1) {
            for (int i = 0; i < n && !failed; ++i) task(*this, 0, i);
            return;
        }
        SlotPool pool(taskSlots());
        arena_.execute([&] {
            tbb::parallel_for(tbb::blocked_range<int>(0, n, 1), [&](const tbb::blocked_range<int>& r) {
                for (int i = r.begin(); i < r.end(); ++i) {
                    const int slot = pool.take();
                    CpuBackend run(device_, true);
                    task(run, slot, i);
                    pool.give(slot);
                    if (run.failed) failed = true;
                }
            });
        });
    }

    // ---- Memory: 256-byte aligned, as device allocations are.
    void* allocateBytes(size_t bytes) {
        if (failed) return nullptr;
        const size_t rounded = ((bytes + 255) / 256) * 256;
        void* p = std::aligned_alloc(256, rounded == 0 ? 256 : rounded);
        if (!p) {
            std::printf("Error: out of host memory for %zu bytes\n", bytes);
            std::fflush(stdout);
            failed = true;
        }
        return p;
    }
    void freeBytes(void* p) { std::free(p); }
    void copyToDevice(void* dst, const void* src, size_t bytes) {
        if (!failed && bytes && dst && src) std::memcpy(dst, src, bytes);
    }
    void copyToHost(void* dst, const void* src, size_t bytes) {
        if (!failed && bytes && dst && src) std::memcpy(dst, src, bytes);
    }
    void zeroBytes(void* dst, size_t bytes) {
        if (!failed && bytes && dst) std::memset(dst, 0, bytes);
    }

    // ---- Textures: a copy of the bytes that the sampler reads.
    LayeredTexture createLayeredTexture(const uint8_t* bytes, int width, int height, int layers) {
        LayeredTexture tex;
        tex.data = copyOf(bytes, size_t(width) * size_t(height) * size_t(layers));
        tex.width = width;
        tex.height = height;
        tex.layers = layers;
        return tex;
    }
    void destroyTexture(LayeredTexture& tex) {
        std::free(const_cast<uint8_t*>(tex.data));
        tex = LayeredTexture();
    }
    Texture2D createImageTexture(const uint8_t* bytes, int width, int height) {
        Texture2D tex;
        tex.data = copyOf(bytes, size_t(width) * size_t(height));
        tex.width = width;
        tex.height = height;
        tex.pitch = size_t(width);
        return tex;
    }
    void destroyTexture(Texture2D& tex) {
        std::free(const_cast<uint8_t*>(tex.data));
        tex = Texture2D();
    }
    // Pitched 8-bit memory (rows `pitch` bytes apart) and a texture view of it.
    uint8_t* allocatePitched(int width, int height, size_t& pitch) {
        pitch = ((size_t(width) + 511) / 512) * 512;
        return static_cast<uint8_t*>(allocateBytes(pitch * size_t(height)));
    }
    Texture2D pitchedTexture(const uint8_t* data, int width, int height, size_t pitch) {
        Texture2D tex;
        tex.data = data;
        tex.width = width;
        tex.height = height;
        tex.pitch = pitch;
        return tex;
    }
    void destroyPitchedTexture(Texture2D& tex) { tex = Texture2D(); }

    // ---- Launches.
    // Grid n/Block + 1 blocks of Block threads; f(id) for every thread.
    template <int Block, class F>
    void launch(ElementRun<Block> run, const F& f) {
        if (failed) return;
        const long long total = (long long)gridBlocks(run.n, Block) * Block;
        constexpr long long minimum = CpuParallelMinimum<F>::value;
        timed<F>(run.n, [&] {
            const auto body = [&](long long begin, long long end) {
                const F local = f;  // as below, for the compiler's sake
                for (long long id = begin; id < end; ++id) local(int(id));
            };
            if (total < minimum || threads_ == 1) return body(0, total);
            arena_.execute([&] {
                tbb::parallel_for(tbb::blocked_range<long long>(0, total, minimum / 4 > 0 ? minimum / 4 : 1),
                                  [&](const tbb::blocked_range<long long>& r) { body(r.begin(), r.end()); });
            });
        });
    }

    // Grid (w/BX + 1) x (h/BY + 1) of BX x BY blocks; f(x, y) for every thread.
    template <int BX, int BY, class F>
    void launch(CellGrid<BX, BY> grid, const F& f) {
        if (failed) return;
        const int spanX = int(gridBlocks(grid.width, BX)) * BX;
        const int spanY = int(gridBlocks(grid.height, BY)) * BY;
        timed<F>(double(grid.width) * grid.height, [&] {
            const auto body = [&](int begin, int end) {
                // A copy of the kernel record on this thread's stack: its
                // fields then cannot change under the kernel's own stores,
                // so the compiler keeps what depends only on them out of
                // the loops.
                const F local = f;
                if constexpr (HasCpuRows<F>::value) {
                    cpuRows(local, begin, end);
                } else {
                    for (int y = begin; y < end; ++y)
                        for (int x = 0; x < spanX; ++x) local(x, y);
                }
            };
            if ((long long)spanX * spanY < CpuParallelMinimum<F>::value || threads_ == 1) return body(0, spanY);
            arena_.execute([&] {
                tbb::parallel_for(tbb::blocked_range<int>(0, spanY, 2),
                                  [&](const tbb::blocked_range<int>& r) { body(r.begin(), r.end()); });
            });
        });
    }

    // Waits for all launches; a no-op here, where launches are synchronous.
    void synchronize() {}

    // Bytes read plus written per second by large host copies, in GB/s.
    double copyBandwidthGBs() {
        const size_t bytes = size_t(256) << 20;
        char* a = static_cast<char*>(std::malloc(bytes));
        char* b = static_cast<char*>(std::malloc(bytes));
        double best = 0.0;
        if (a && b) {
            std::memset(a, 1, bytes);
            std::memset(b, 0, bytes);
            for (int round = 0; round < 5; ++round) {
                const auto start = std::chrono::steady_clock::now();
                std::memcpy(round % 2 ? a : b, round % 2 ? b : a, bytes);
                const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
                best = std::max(best, 2.0 * double(bytes) / spent.count() / 1e9);
            }
        }
        std::free(a);
        std::free(b);
        return best;
    }

   private:
    DeviceHandle device_;
    int threads_;  // 1 on a serial backend: every launch runs on the calling thread
    tbb::task_arena arena_;

    // The slots free for tasks to take.
    class SlotPool {
       public:
        explicit SlotPool(int slots) {
            for (int s = slots - 1; s >= 0; --s) free_.push_back(s);
        }
        int take() {
            std::lock_guard<std::mutex> lock(mutex_);
            const int s = free_.back();
            free_.pop_back();
            return s;
        }
        void give(int s) {
            std::lock_guard<std::mutex> lock(mutex_);
            free_.push_back(s);
        }

       private:
        std::mutex mutex_;
        std::vector<int> free_;
    };

    // Runs one launch's loop, timed when profiling is on.
    template <class F, class Loop>
    void timed(double elements, const Loop& loop) {
        if (!profiling()) return loop();
        const auto start = std::chrono::steady_clock::now();
        loop();
        const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
        recordKernelLaunch<F>(elements, spent.count());
    }

    const uint8_t* copyOf(const uint8_t* bytes, size_t n) {
        uint8_t* copy = static_cast<uint8_t*>(allocateBytes(n));
        copyToDevice(copy, bytes, n);
        return copy;
    }
};

}  // namespace tessaline
