// The CPU twins of this folder's entry points.
#include "backend/CpuBackend.h"
#include "backend/BackendTwins.h"
#include "zbuffer/ZBufferRender.h"

namespace tessaline::cpu {

DeviceStatus TriMesh_Image_ZBuffering_CUDA(const DeviceHandle& device, const ZBufferArgs& args) {
    return runOnBackend<CpuBackend>(device, args, zbufferEntry<CpuBackend>);
}

}  // namespace tessaline::cpu
