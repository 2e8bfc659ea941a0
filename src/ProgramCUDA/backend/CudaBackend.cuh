// The CUDA backend: linear device memory, texture objects (coordinates in
// texels, clamped addressing, linear filtering, bytes read as normalised
// floats), and ordinary launches of a __global__ trampoline that calls the
// shared kernel body.
//
// A failed platform call prints one "Error: " line with the call, file and
// line, and marks the backend failed; from then on its primitives do
// nothing, so the entry point runs to its end in order and reports Failed.
#pragma once

#include <cstdio>
#include <cstring>
#include <string>

#include <cuda_runtime.h>

#include "LaunchGeometry.h"
#include "ProgramCUDA.h"
#include "TextureSampler.h"
#include "backend/KernelProfile.h"

namespace tessaline {

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
cudaEvent_t beginKernelTiming(cudaStream_t stream);
void endKernelTiming(cudaEvent_t start, cudaStream_t stream, const std::string& kernel, double elements,
                     double floorBytes);
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

class CudaBackend {
   public:
    static constexpr bool isCuda = true;
    static constexpr bool kHasGraphs = true;
    // Threads per facet in the renders of the fast schedule: a facet's
    // columns are shared among them (one thread per facet serialises large
    // facets on the device).
    static constexpr int kZBufferLanes = 4;
    bool failed = false;

    // Launches go to a stream of the call's own, which waits for and is
    // waited for by the blocking copies on the default stream, so that a
    // graph can be recorded from it.
    explicit CudaBackend(const DeviceHandle& device) : device_(device) {
        int current = -1;
        if (cudaGetDevice(&current) != cudaSuccess || current != device.cudaDevice)
            TESSALINE_CUDA_CHECK(*this, cudaSetDevice(device.cudaDevice));
        if (!failed) TESSALINE_CUDA_CHECK(*this, cudaStreamCreate(&stream_));
    }
    ~CudaBackend() {
        if (stream_) {
            cudaStreamSynchronize(stream_);
            cudaStreamDestroy(stream_);
        }
    }
    CudaBackend(const CudaBackend&) = delete;
    CudaBackend& operator=(const CudaBackend&) = delete;
    const DeviceHandle& device() const { return device_; }
    bool profiling() const { return device_.context.profile; }

    // ---- Memory.
    void* allocateBytes(size_t bytes) {
        if (failed) return nullptr;
        void* p = nullptr;
        TESSALINE_CUDA_CHECK(*this, cudaMalloc(&p, bytes == 0 ? 256 : bytes));
        return failed ? nullptr : p;
    }
    // Releasing reports nothing once the backend has failed: after a failure
    // that poisons the context every release would fail too.
    void freeBytes(void* p) {
        if (!p) return;
        if (failed)
            cudaFree(p);
        else
            TESSALINE_CUDA_CHECK(*this, cudaFree(p));
    }
    void copyToDevice(void* dst, const void* src, size_t bytes) {
        if (!failed && bytes && dst && src)
            TESSALINE_CUDA_CHECK(*this, cudaMemcpy(dst, src, bytes, cudaMemcpyHostToDevice));
    }
    void copyToHost(void* dst, const void* src, size_t bytes) {
        if (!failed && bytes && dst && src)
            TESSALINE_CUDA_CHECK(*this, cudaMemcpy(dst, src, bytes, cudaMemcpyDeviceToHost));
    }
    void zeroBytes(void* dst, size_t bytes) {
        if (!failed && bytes && dst) TESSALINE_CUDA_CHECK(*this, cudaMemset(dst, 0, bytes));
    }

    // ---- Textures.
    // The image stack: one layered array, all layers uploaded in one copy.
    LayeredTexture createLayeredTexture(const uint8_t* bytes, int width, int height, int layers) {
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
        std::memset(&parms, 0, sizeof parms);
        parms.kind = cudaMemcpyHostToDevice;
        parms.dstArray = array;
        parms.extent = extent;
        parms.srcPtr = make_cudaPitchedPtr(const_cast<uint8_t*>(bytes), size_t(width), size_t(width),
                                           size_t(height));
        TESSALINE_CUDA_CHECK(*this, cudaMemcpy3D(&parms));
        tex.object = arrayTextureObject(array);
        return tex;
    }
    void destroyTexture(LayeredTexture& tex) {
        destroyArrayTexture(tex.object);
        tex = LayeredTexture();
    }
    // One image in its own array.
    Texture2D createImageTexture(const uint8_t* bytes, int width, int height) {
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
        return tex;
    }
    void destroyTexture(Texture2D& tex) {
        destroyArrayTexture(tex.object);
        tex = Texture2D();
    }
    // Pitched 8-bit memory (the platform picks the pitch) and a texture
    // object over it; an object made on the allocation's own address needs
    // no offset.
    uint8_t* allocatePitched(int width, int height, size_t& pitch) {
        pitch = 0;
        if (failed) return nullptr;
        void* p = nullptr;
        TESSALINE_CUDA_CHECK(*this, cudaMallocPitch(&p, &pitch, size_t(width), size_t(height)));
        return failed ? nullptr : static_cast<uint8_t*>(p);
    }
    Texture2D pitchedTexture(const uint8_t* data, int width, int height, size_t pitch) {
        Texture2D tex;
        tex.width = width;
        tex.height = height;
        tex.pitch = pitch;
        if (failed || !data) return tex;
        cudaResourceDesc res;
        std::memset(&res, 0, sizeof res);
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
    void destroyPitchedTexture(Texture2D& tex) {
        if (tex.object) checkRelease(cudaDestroyTextureObject(tex.object), "cudaDestroyTextureObject");
        tex = Texture2D();
    }

    // ---- Tasks: independent sequences of launches. On the device they run
    // one after the other in stream order, in one slot of work memory; the
    // launches of each are wide enough to fill the device.
    int taskSlots() const { return 1; }

    template <class Task>
    void runTasks(int n, const Task& task) {
        for (int i = 0; i < n && !failed; ++i) task(*this, 0, i);
    }

    // ---- Launches.
    template <int Block, class F>
    void launch(ElementRun<Block> run, const F& f) {
        if (failed) return;
        timed<F>(run.n, [&] {
            launchKernel1D<Block, F><<<dim3(gridBlocks(run.n, Block), 1, 1), dim3(Block, 1, 1), 0, stream_>>>(f);
        });
    }

    template <int BX, int BY, class F>
    void launch(CellGrid<BX, BY> grid, const F& f) {
        if (failed) return;
        timed<F>(double(grid.width) * grid.height, [&] {
            launchKernel2D<BX, BY, F><<<dim3(gridBlocks(grid.width, BX), gridBlocks(grid.height, BY), 1),
                                        dim3(BX, BY, 1), 0, stream_>>>(f);
        });
    }

    void synchronize() {
        if (!failed) TESSALINE_CUDA_CHECK(*this, cudaDeviceSynchronize());
    }

    // ---- Graphs: a fixed sequence of launches recorded once and replayed
    // as one launch.
    class Graph {
       public:
        Graph() = default;
        ~Graph() {
            if (exec_) cudaGraphExecDestroy(exec_);
            if (graph_) cudaGraphDestroy(graph_);
        }
        Graph(const Graph&) = delete;
        Graph& operator=(const Graph&) = delete;
        bool ready() const { return exec_ != nullptr; }
        size_t launches() const { return nodes_; }

       private:
        friend class CudaBackend;
        cudaGraph_t graph_ = nullptr;
        cudaGraphExec_t exec_ = nullptr;
        size_t nodes_ = 0;
        double floorBytes_ = 0.0;
    };

    // Starts recording the launches that follow instead of running them.
    bool beginCapture() {
        if (failed || cudaStreamBeginCapture(stream_, cudaStreamCaptureModeThreadLocal) != cudaSuccess) {
            cudaGetLastError();
            return false;
        }
        capturing_ = true;
        captureFailed_ = false;
        capturedFloorBytes_ = 0.0;
        return true;
    }

    // Ends the recording and makes the graph ready to replay. When anything
    // went wrong on the way, the graph stays empty and nothing is reported:
    // the caller then issues the launches directly (none of them ran).
    bool endCapture(Graph& graph) {
        capturing_ = false;
        cudaGraph_t recorded = nullptr;
        const bool ended = cudaStreamEndCapture(stream_, &recorded) == cudaSuccess && recorded != nullptr;
        cudaGraphExec_t exec = nullptr;
        const bool ok = ended && !captureFailed_ && cudaGraphInstantiate(&exec, recorded, 0) == cudaSuccess;
        if (!ok) {
            if (recorded) cudaGraphDestroy(recorded);
            cudaGetLastError();
            return false;
        }
        graph.graph_ = recorded;
        graph.exec_ = exec;
        cudaGraphGetNodes(recorded, nullptr, &graph.nodes_);
        graph.floorBytes_ = capturedFloorBytes_;
        return true;
    }

    void replay(const Graph& graph) {
        if (failed || !graph.ready()) return;
        cudaEvent_t start = profiling() ? beginKernelTiming(stream_) : nullptr;
        TESSALINE_CUDA_CHECK(*this, cudaGraphLaunch(graph.exec_, stream_));
        if (start)
            endKernelTiming(start, stream_, "Graph of " + std::to_string(graph.launches()) + " launches", 1.0,
                            graph.floorBytes_);
    }

    double copyBandwidthGBs() { return deviceCopyBandwidthGBs(); }

   private:
    DeviceHandle device_;
    cudaStream_t stream_ = nullptr;
    bool capturing_ = false;
    bool captureFailed_ = false;
    double capturedFloorBytes_ = 0.0;

    // Issues one launch, between two events when profiling is on. While a
    // graph is recorded a failed launch spoils only the recording.
    template <class F, class Issue>
    void timed(double elements, const Issue& issue) {
        if (capturing_) {
            issue();
            if (cudaGetLastError() != cudaSuccess) captureFailed_ = true;
            capturedFloorBytes_ += elements * KernelFloorBytes<F>::perElement;
            return;
        }
        cudaEvent_t start = profiling() ? beginKernelTiming(stream_) : nullptr;
        issue();
        TESSALINE_CUDA_CHECK(*this, cudaGetLastError());
        if (start)
            endKernelTiming(start, stream_, kernelTypeName<F>(), elements,
                            elements * KernelFloorBytes<F>::perElement);
    }

    static cudaTextureDesc linearByteTextureDesc() {
        cudaTextureDesc desc;
        std::memset(&desc, 0, sizeof desc);
        desc.addressMode[0] = cudaAddressModeClamp;
        desc.addressMode[1] = cudaAddressModeClamp;
        desc.addressMode[2] = cudaAddressModeClamp;
        desc.filterMode = cudaFilterModeLinear;
        desc.readMode = cudaReadModeNormalizedFloat;
        desc.normalizedCoords = 0;
        desc.sRGB = 0;
        return desc;
    }

    // A linear-filtered texture object over a whole array; the array is
    // freed again when no object can be made.
    unsigned long long arrayTextureObject(cudaArray_t array) {
        if (failed) {
            cudaFreeArray(array);
            return 0;
        }
        cudaResourceDesc res;
        std::memset(&res, 0, sizeof res);
        res.resType = cudaResourceTypeArray;
        res.res.array.array = array;
        cudaTextureDesc desc = linearByteTextureDesc();
        cudaTextureObject_t object = 0;
        TESSALINE_CUDA_CHECK(*this, cudaCreateTextureObject(&object, &res, &desc, nullptr));
        if (failed) {
            cudaFreeArray(array);
            return 0;
        }
        return object;
    }

    // Destroys a texture object and the array behind it (found through the
    // object, so a view needs to carry nothing else).
    void destroyArrayTexture(unsigned long long object) {
        if (!object) return;
        cudaResourceDesc res;
        std::memset(&res, 0, sizeof res);
        const bool known = cudaGetTextureObjectResourceDesc(&res, object) == cudaSuccess;
        checkRelease(cudaDestroyTextureObject(object), "cudaDestroyTextureObject");
        if (known && res.resType == cudaResourceTypeArray && res.res.array.array)
            checkRelease(cudaFreeArray(res.res.array.array), "cudaFreeArray");
    }

    // The status of a release: reported unless the backend has failed before.
    void checkRelease(cudaError_t status, const char* call) {
        if (status == cudaSuccess || failed) return;
        std::printf("Error: CUDA %s: %s\n", call, cudaGetErrorString(status));
        std::fflush(stdout);
        failed = true;
    }
};

}  // namespace tessaline
