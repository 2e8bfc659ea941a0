// The groups of values that the kernels of a camera pair read: a camera with
// its render, the pair of cameras with the target's image, the facets with
// their normals, the reference camera's surface points, and what the
// photometric gradient adds to. A kernel record is made of these groups, so
// a launch names groups rather than a long row of pointers and sizes.
#pragma once

#include <cstdint>

#include "ImageView.h"
#include "mycamera.h"

namespace tessaline {

// A camera and its render, as the pair kernels read them: per pixel the
// distance to the surface, the front-facing facet there (-1: none) and the
// weights b and c of the facet's second and third vertex. A kernel reads
// only the images it needs; the others may be empty views.
struct RenderedCamera {
    mycamera_cuda camera;
    ConstImageView<float> depth;
    ConstImageView<int> facet;
    ConstImageView<float> bary_b;
    ConstImageView<float> bary_c;
};

// An ordered camera pair: the reference, in whose pixel grid the work is
// done, the target, and the target's image (a fetch, 0..1 at texel
// coordinates).
template <class Fetch>
struct CameraPair {
    RenderedCamera ref;
    RenderedCamera tar;
    Fetch target;
};

// The mesh's facets (3 vertex indices each) and their unit normals.
struct FacetNormals {
    int num_f;
    const int* facets;
    const float* normals;
};

// What the photometric gradient reads of a pair: the facets, the pair, and
// the two cameras' mean depths (their product over the reference's focal
// lengths scales the pair's gradient).
template <class Fetch>
struct PairSurface {
    FacetNormals mesh;
    CameraPair<Fetch> pair;
    float mean_depth_ref;
    float mean_depth_tar;
};

// The surface a camera sees at a pixel: the unit viewing ray r and the
// point X = C + d r at the pixel's depth.
struct SurfacePoint {
    float ray[3];
    float point[3];
};

// The iteration's photometric gradient before normalisation: 3 fixed-point
// sums per vertex, and the factor that turns a float into fixed-point units.
struct GradientSums {
    unsigned long long* grad_photo_sum;
    float to_fixed;
};

// The pairs that reached each vertex, counted once per pair whatever the
// number of its pixels: a pair swaps its number into the vertex's stamp
// and counts itself when the stamp was another's.
struct PairCounter {
    int* pair_stamp;
    int pair_id;
    float* vt_pair_count;
};

}  // namespace tessaline
