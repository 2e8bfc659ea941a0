// The CUDA twins of this folder's entry points.
#include "backend/CudaBackend.cuh"
#include "backend/BackendTwins.h"
#include "zbuffer/ZBufferRender.h"

namespace tessaline::cuda {

DeviceStatus TriMesh_Image_ZBuffering_CUDA(const DeviceHandle& device, const ZBufferArgs& args) {
    return runOnBackend<CudaBackend>(device, args, zbufferEntry<CudaBackend>);
}

}  // namespace tessaline::cuda
