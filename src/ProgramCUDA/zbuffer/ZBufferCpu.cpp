#include "backend/CpuBackend.h"
#include "zbuffer/ZBufferRender.h"

TESSALINE_ENTRY_ON_BACKEND(cpu, CpuBackend, TriMesh_Image_ZBuffering_CUDA, ZBufferArgs, zbufferEntry)
