#include "backend/CudaBackend.cuh"
#include "zbuffer/ZBufferRender.h"

TESSALINE_ENTRY_ON_BACKEND(cuda, CudaBackend, TriMesh_Image_ZBuffering_CUDA, ZBufferArgs, zbufferEntry)
