// The CPU backend: device memory is host memory, a launch is a parallel loop
// over the launch's whole index space (idle tail included, so the kernels'
// own guards decide exactly as on the GPU), textures are the byte images
// read through the same sampling rule.
//
// Loops run on TBB's work-stealing scheduler rather than a fork-join team: a
// launch ends when its ranges are done, not when every thread has checked
// in, so a worker that another process keeps off its core does not hold up
// the thousands of short launches of an iteration (on two busy cores this
// halves the running time; on idle cores it changes nothing).
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include "DeviceCommon.h"
#include "KernelProfile.h"
#include "LaunchGeometry.h"
#include "cpu/CpuThreads.h"

namespace tessaline {

struct CpuBackend {
    static constexpr bool isCuda = false;
    // Launches smaller than this run on the calling thread: waking the
    // workers costs more than such a launch.
    static constexpr long long kParallelMinimum = 4096;
    bool failed = false;

    template <class T>
    T* alloc(size_t count) {
        // 256-byte alignment, as device allocations have.
        const size_t bytes = ((count * sizeof(T) + 255) / 256) * 256;
        void* p = std::aligned_alloc(256, bytes == 0 ? 256 : bytes);
        if (!p) failed = true;
        return static_cast<T*>(p);
    }
    template <class T>
    void release(T*& p) {
        std::free(p);
        p = nullptr;
    }
    template <class T>
    void upload(T* dst, const T* src, size_t count) {
        if (count) std::memcpy(dst, src, count * sizeof(T));
    }
    template <class T>
    void download(T* dst, const T* src, size_t count) {
        if (count) std::memcpy(dst, src, count * sizeof(T));
    }
    template <class T>
    void zero(T* dst, size_t count) {
        if (count) std::memset(dst, 0, count * sizeof(T));
    }

    // Runs one launch's loop, timed when profiling is on.
    template <class F, class Loop>
    void timed(double elements, const Loop& loop) {
        if (!kernelProfileEnabled()) return loop();
        const auto start = std::chrono::steady_clock::now();
        loop();
        const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
        recordKernelLaunch<F>(elements, spent.count());
    }

    // Grid n/Block + 1 blocks of Block threads; f(id) for every thread.
    template <int Block, class F>
    void launch(ElementRun<Block> run, const F& f) {
        const long long total = (long long)gridBlocks(run.n, Block) * Block;
        timed<F>(run.n, [&] {
            const auto body = [&](long long begin, long long end) {
                for (long long id = begin; id < end; ++id) f(int(id));
            };
            if (total < kParallelMinimum || cpuThreadCount() == 1) return body(0, total);
            tbb::parallel_for(tbb::blocked_range<long long>(0, total, kParallelMinimum / 4),
                              [&](const tbb::blocked_range<long long>& r) { body(r.begin(), r.end()); });
        });
    }

    // Grid (w/BX + 1) x (h/BY + 1) of BX x BY blocks; f(x, y) for every thread.
    template <int BX, int BY, class F>
    void launch(CellGrid<BX, BY> grid, const F& f) {
        const int spanX = int(gridBlocks(grid.width, BX)) * BX;
        const int spanY = int(gridBlocks(grid.height, BY)) * BY;
        timed<F>(double(grid.width) * grid.height, [&] {
            const auto body = [&](int begin, int end) {
                for (int y = begin; y < end; ++y)
                    for (int x = 0; x < spanX; ++x) f(x, y);
            };
            if ((long long)spanX * spanY < kParallelMinimum || cpuThreadCount() == 1) return body(0, spanY);
            tbb::parallel_for(tbb::blocked_range<int>(0, spanY, 2),
                              [&](const tbb::blocked_range<int>& r) { body(r.begin(), r.end()); });
        });
    }

    // Bytes read plus written per second by large host copies, in GB/s.
    double copyBandwidthGBs() {
        const size_t bytes = size_t(256) << 20;
        char* a = alloc<char>(bytes);
        char* b = alloc<char>(bytes);
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
        release(a);
        release(b);
        return best;
    }

    uint8_t* copyBytes(const uint8_t* bytes, size_t n) {
        uint8_t* copy = alloc<uint8_t>(n);
        if (copy) upload(copy, bytes, n);
        return copy;
    }

    // A layered stack of `layers` images of width x height bytes, uploaded
    // in one copy from a contiguous host block.
    LayeredTexture makeLayeredTexture(const uint8_t* bytes, int width, int height, int layers) {
        LayeredTexture tex;
        uint8_t* copy = copyBytes(bytes, size_t(width) * size_t(height) * size_t(layers));
        tex.data = copy;
        tex.owner = copy;
        tex.width = width;
        tex.height = height;
        tex.layers = layers;
        return tex;
    }
    void releaseLayeredTexture(LayeredTexture& tex) {
        uint8_t* p = static_cast<uint8_t*>(tex.owner);
        release(p);
        tex = LayeredTexture();
    }

    // One image uploaded into its own array.
    Texture2D makeTexture2D(const uint8_t* bytes, int width, int height) {
        Texture2D tex;
        uint8_t* copy = copyBytes(bytes, size_t(width) * size_t(height));
        tex.data = copy;
        tex.owner = copy;
        tex.width = width;
        tex.height = height;
        tex.pitch = size_t(width);
        return tex;
    }
    void releaseTexture2D(Texture2D& tex) {
        uint8_t* p = static_cast<uint8_t*>(tex.owner);
        release(p);
        tex = Texture2D();
    }

    // Pitched 8-bit device image: rows `pitch` bytes apart.
    uint8_t* allocPitched(int width, int height, size_t& pitch) {
        pitch = ((size_t(width) + 511) / 512) * 512;
        return alloc<uint8_t>(pitch * size_t(height));
    }
    // A texture view of pitched memory that a kernel wrote.
    Texture2D bindPitched(const uint8_t* data, int width, int height, size_t pitch, size_t& offset) {
        Texture2D tex;
        tex.data = data;
        tex.width = width;
        tex.height = height;
        tex.pitch = pitch;
        offset = 0;
        return tex;
    }
    void unbindPitched(Texture2D& tex) { tex = Texture2D(); }

    // Waits for all launches; a no-op here, where launches are synchronous.
    void synchronize() {}
};

}  // namespace tessaline
