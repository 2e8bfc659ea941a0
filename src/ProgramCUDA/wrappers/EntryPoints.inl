// The list of public wrappers, one DEVICE_ENTRY each: name, templated
// implementation, parameter list, argument list. Each backend's translation
// unit defines DEVICE_ENTRY to instantiate the implementation on its own
// backend; the runtime defines it to dispatch to the active one.
DEVICE_ENTRY(TriMesh_Image_ZBuffering_CUDA, zbufferWrapper,
             (int num_v, const float* vertices, int num_f, const int* facets, const mycamera_cuda& camera,
              int BU, int BV, int LU, int LV, float* depth_image, int* facet_image, float* bary_b_image,
              float* bary_c_image),
             (num_v, vertices, num_f, facets, camera, BU, BV, LU, LV, depth_image, facet_image, bary_b_image,
              bary_c_image))
#include "wrappers/EntryPoints_optimization.inl"
#include "wrappers/EntryPoints_library.inl"
