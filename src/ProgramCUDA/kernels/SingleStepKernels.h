// The per-pair variants of the warp and the gradient accumulation, with one
// image bound on its own instead of a layer of the image stack, and the
// masked gradient step. The per-pixel work is that of the integrated kernels
// (warpPixel, addPhotometricGradientPixel, gradientStep).
#pragma once

#include <cstdint>

#include "DeviceCommon.h"
#include "kernels/MeshKernels.h"
#include "kernels/PairGeometry.h"
#include "kernels/PhotometricGradientKernels.h"
#include "kernels/WarpKernels.h"
#include "mycamera.h"

namespace tessaline {

// The per-pair gradient lets more grazing pixels through than the
// integrated one: a pixel ends only when its cosine is above -0.01.
constexpr double kPairCosineLimit = -0.01;

// The warp of one pair whose target image is bound alone to tex_ref_img.
struct Kernel_Perspective_Image_Model_Image_Warp_CUDA {
    mycamera_cuda camera_ref;
    const float* depth_ref;
    const int* facet_ref;
    mycamera_cuda camera_tar;
    const float* depth_tar;
    const int* facet_tar;  // not read
    int width;
    int height;
    float* warped;
    Texture2D tex_ref_img;  // the target image

    DEVICE_HOST void operator()(int x, int y) const { warpPixel(*this, x, y, SingleImageFetch{tex_ref_img}); }
};

// The gradient of one pair whose target image is bound alone to tex_ref_img.
struct Kernel_AddPhotometricGradient_ImagePair_CUDA {
    int num_f;
    const int* facets;
    const float* facet_normals;
    int width;
    int height;
    mycamera_cuda camera_ref;
    const float* depth_ref;
    const int* facet_ref;
    mycamera_cuda camera_tar;
    const float* depth_tar;  // not read
    const int* facet_tar;    // not read
    const float* bary_b_ref;
    const float* bary_c_ref;
    const float* ncc_grad;
    const uint8_t* visible_mask;
    float mean_depth_ref;
    float mean_depth_tar;
    int num_v;  // not read
    unsigned long long* grad_photo_sum;  // this call's sums, fixed point
    float to_fixed;
    float* vt_pair_hits;
    Texture2D tex_ref_img;  // the target image

    DEVICE_HOST void operator()(int x, int y) const {
        addPhotometricGradientPixel(*this, x, y, kPairCosineLimit, SingleImageFetch{tex_ref_img});
    }
};

// The gradient step for the vertices whose mask byte is not 0; the others
// keep their positions whatever their gradient holds.
struct Kernel_GradientDescent_UpdateMask {
    int num_v;
    float* vertices;
    const float* gradient;
    float step;
    const uint8_t* update_mask;

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || id >= num_v) return;
        if (update_mask[id] == 0) return;
        gradientStep(vertices, gradient, step, id);
    }
};

}  // namespace tessaline
