// The CUDA backend: linear device memory, texture objects in place of the
// old texture references (point coordinates in texels, clamped addressing,
// linear filtering, bytes read as normalised floats), and ordinary launches
// of a __global__ trampoline that calls the shared kernel body.
#pragma once

#include <cstdio>
#include <string>

#include <cuda_runtime.h>

#include "DeviceCommon.h"
#include "KernelProfile.h"
#include "LaunchGeometry.h"

namespace tessaline {

// Reports a failed platform call with file and line; the backend remembers
// the failure so that its wrapper can stop in order.
#define TESSALINE_CUDA_CHECK(backend, call)                                                 \
    do {                                                                                    \
        cudaError_t tessalineStatus_ = (call);                                              \
        if (tessalineStatus_ != cudaSuccess) {                                              \
            std::printf("Error: CUDA %s at %s:%d: %s\n", #call, __FILE__, __LINE__,         \
                        cudaGetErrorString(tessalineStatus_));                              \
            std::fflush(stdout);                                                            \
            (backend).failed = true;                                                        \
        }                                                                                   \
    } while (0)

// Event pairs around launches when profiling is on; their times are read
// when the profile is next looked at, so timing never stalls the stream.
cudaEvent_t beginKernelTiming();
void endKernelTiming(cudaEvent_t start, const std::string& kernel, double elements, double floorBytes);
double deviceCopyBandwidthGBs();

// Trampolines: each kernel body is compiled for the block it is launched
// with, so the compiler keeps its registers within what that block may hold
// (and the resource report names the block with the kernel).
template <int Block, class F>
__global__ void __launch_bounds__(Block) launchKernel1D(F f) {
    const int id = int(blockDim.x * blockIdx.x + threadIdx.x);
    f(id);
}

template <int BX, int BY, class F>
__global__ void __launch_bounds__(BX * BY) launchKernel2D(F f) {
    const int x = int(blockDim.x * blockIdx.x + threadIdx.x);
    const int y = int(blockDim.y * blockIdx.y + threadIdx.y);
    f(x, y);
}

struct CudaBackend {
    static constexpr bool isCuda = true;
    bool failed = false;

    template <class T>
    T* alloc(size_t count) {
        void* p = nullptr;
        TESSALINE_CUDA_CHECK(*this, cudaMalloc(&p, count == 0 ? 256 : count * sizeof(T)));
        return static_cast<T*>(p);
    }
    template <class T>
    void release(T*& p) {
        if (p) TESSALINE_CUDA_CHECK(*this, cudaFree(p));
        p = nullptr;
    }
    template <class T>
    void upload(T* dst, const T* src, size_t count) {
        if (count && dst)
            TESSALINE_CUDA_CHECK(*this, cudaMemcpy(dst, src, count * sizeof(T), cudaMemcpyHostToDevice));
    }
    template <class T>
    void download(T* dst, const T* src, size_t count) {
        if (count && src)
            TESSALINE_CUDA_CHECK(*this, cudaMemcpy(dst, src, count * sizeof(T), cudaMemcpyDeviceToHost));
    }
    template <class T>
    void zero(T* dst, size_t count) {
        if (count && dst) TESSALINE_CUDA_CHECK(*this, cudaMemset(dst, 0, count * sizeof(T)));
    }

    // Issues one launch, between two events when profiling is on.
    template <class F, class Issue>
    void timed(double elements, const Issue& issue) {
        cudaEvent_t start = kernelProfileEnabled() ? beginKernelTiming() : nullptr;
        issue();
        TESSALINE_CUDA_CHECK(*this, cudaGetLastError());
        if (start) endKernelTiming(start, kernelTypeName<F>(), elements, elements * KernelFloorBytes<F>::perElement);
    }

    template <int Block, class F>
    void launch(ElementRun<Block> run, const F& f) {
        if (failed) return;
        timed<F>(run.n, [&] {
            launchKernel1D<Block, F><<<dim3(gridBlocks(run.n, Block), 1, 1), dim3(Block, 1, 1)>>>(f);
        });
    }

    template <int BX, int BY, class F>
    void launch(CellGrid<BX, BY> grid, const F& f) {
        if (failed) return;
        timed<F>(double(grid.width) * grid.height, [&] {
            launchKernel2D<BX, BY, F>
                <<<dim3(gridBlocks(grid.width, BX), gridBlocks(grid.height, BY), 1), dim3(BX, BY, 1)>>>(f);
        });
    }

    double copyBandwidthGBs() { return deviceCopyBandwidthGBs(); }

    static cudaTextureDesc linearByteTextureDesc() {
        cudaTextureDesc desc;
        memset(&desc, 0, sizeof desc);
        desc.addressMode[0] = cudaAddressModeClamp;
        desc.addressMode[1] = cudaAddressModeClamp;
        desc.addressMode[2] = cudaAddressModeClamp;
        desc.filterMode = cudaFilterModeLinear;
        desc.readMode = cudaReadModeNormalizedFloat;
        desc.normalizedCoords = 0;
        desc.sRGB = 0;
        return desc;
    }

    // A linear-filtered texture object over a whole array.
    unsigned long long arrayTextureObject(cudaArray_t array) {
        cudaResourceDesc res;
        memset(&res, 0, sizeof res);
        res.resType = cudaResourceTypeArray;
        res.res.array.array = array;
        cudaTextureDesc desc = linearByteTextureDesc();
        cudaTextureObject_t object = 0;
        TESSALINE_CUDA_CHECK(*this, cudaCreateTextureObject(&object, &res, &desc, nullptr));
        return object;
    }

    // The image stack: one layered array, all layers uploaded in one copy.
    LayeredTexture makeLayeredTexture(const uint8_t* bytes, int width, int height, int layers) {
        LayeredTexture tex;
        tex.width = width;
        tex.height = height;
        tex.layers = layers;
        if (failed) return tex;
        cudaChannelFormatDesc format = cudaCreateChannelDesc(8, 0, 0, 0, cudaChannelFormatKindUnsigned);
        cudaExtent extent = make_cudaExtent(size_t(width), size_t(height), size_t(layers));
        cudaArray_t array = nullptr;
        TESSALINE_CUDA_CHECK(*this, cudaMalloc3DArray(&array, &format, extent, cudaArrayLayered));
        if (failed) return tex;
        cudaMemcpy3DParms parms;
        memset(&parms, 0, sizeof parms);
        parms.kind = cudaMemcpyHostToDevice;
        parms.dstArray = array;
        parms.extent = extent;
        parms.srcPtr = make_cudaPitchedPtr(const_cast<uint8_t*>(bytes), size_t(width), size_t(width),
                                           size_t(height));
        TESSALINE_CUDA_CHECK(*this, cudaMemcpy3D(&parms));
        tex.object = arrayTextureObject(array);
        tex.owner = array;
        return tex;
    }
    void releaseLayeredTexture(LayeredTexture& tex) {
        if (tex.object) TESSALINE_CUDA_CHECK(*this, cudaDestroyTextureObject(tex.object));
        if (tex.owner) TESSALINE_CUDA_CHECK(*this, cudaFreeArray(static_cast<cudaArray_t>(tex.owner)));
        tex = LayeredTexture();
    }

    Texture2D makeTexture2D(const uint8_t* bytes, int width, int height) {
        Texture2D tex;
        tex.width = width;
        tex.height = height;
        tex.pitch = size_t(width);
        if (failed) return tex;
        cudaChannelFormatDesc format = cudaCreateChannelDesc(8, 0, 0, 0, cudaChannelFormatKindUnsigned);
        cudaArray_t array = nullptr;
        TESSALINE_CUDA_CHECK(*this, cudaMallocArray(&array, &format, size_t(width), size_t(height), 0));
        if (failed) return tex;
        TESSALINE_CUDA_CHECK(*this, cudaMemcpy2DToArray(array, 0, 0, bytes, size_t(width), size_t(width),
                                                        size_t(height), cudaMemcpyHostToDevice));
        tex.object = arrayTextureObject(array);
        tex.owner = array;
        return tex;
    }
    void releaseTexture2D(Texture2D& tex) {
        if (tex.object) TESSALINE_CUDA_CHECK(*this, cudaDestroyTextureObject(tex.object));
        if (tex.owner) TESSALINE_CUDA_CHECK(*this, cudaFreeArray(static_cast<cudaArray_t>(tex.owner)));
        tex = Texture2D();
    }

    uint8_t* allocPitched(int width, int height, size_t& pitch) {
        void* p = nullptr;
        pitch = 0;
        TESSALINE_CUDA_CHECK(*this, cudaMallocPitch(&p, &pitch, size_t(width), size_t(height)));
        return static_cast<uint8_t*>(p);
    }
    // A texture object over pitched memory; the offset is always 0 for an
    // object made on the allocation's own address.
    Texture2D bindPitched(const uint8_t* data, int width, int height, size_t pitch, size_t& offset) {
        Texture2D tex;
        tex.width = width;
        tex.height = height;
        tex.pitch = pitch;
        offset = 0;
        if (failed) return tex;
        cudaResourceDesc res;
        memset(&res, 0, sizeof res);
        res.resType = cudaResourceTypePitch2D;
        res.res.pitch2D.devPtr = const_cast<uint8_t*>(data);
        res.res.pitch2D.desc = cudaCreateChannelDesc(8, 0, 0, 0, cudaChannelFormatKindUnsigned);
        res.res.pitch2D.width = size_t(width);
        res.res.pitch2D.height = size_t(height);
        res.res.pitch2D.pitchInBytes = pitch;
        cudaTextureDesc desc = linearByteTextureDesc();
        cudaTextureObject_t object = 0;
        TESSALINE_CUDA_CHECK(*this, cudaCreateTextureObject(&object, &res, &desc, nullptr));
        tex.object = object;
        return tex;
    }
    void unbindPitched(Texture2D& tex) {
        if (tex.object) TESSALINE_CUDA_CHECK(*this, cudaDestroyTextureObject(tex.object));
        tex = Texture2D();
    }

    void synchronize() { TESSALINE_CUDA_CHECK(*this, cudaDeviceSynchronize()); }
};

}  // namespace tessaline
