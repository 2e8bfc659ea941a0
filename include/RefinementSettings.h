// The refinement's own numbers: how many iterations each level runs, the
// steps of the descent, the NCC window, which facets are divided, and how
// many neighbours each camera is compared with. The defaults are the tool's
// schedule, which tessaline_refine always runs; a test or a front end may
// set others.
//
// Plain records only: the level loop, the facet selection and the device
// module each take the part they need.
#pragma once

// Iterations and smoothness order of one level, and the rounds of facet
// division before its refinement.
struct LevelSettings {
    int iterations = 0;
    bool first_order_smoothing = false;  // false: second order
    int division_passes = 2;             // at most this many rounds of render, select, divide
};

// A facet is divided when it covers `min_pixels` or more rendered pixels in
// at least `min_images` images, and none of its vertices forbids division.
struct FacetSelection {
    int min_pixels = 50;
    int min_images = 2;
};

// The descent of one iteration: v -= photometric * GRAD_PHOTO, then
// v -= first_order * L(v) or v -= second_order * L2(v).
constexpr float kBaseStep = 0.1f;
constexpr float kPhotometricWeight = 750.0f;
struct DescentSteps {
    float photometric = kBaseStep * kPhotometricWeight;            // 75, multiplied in float
    float first_order = kBaseStep;                                 // 0.1
    float second_order = float(double(kBaseStep) * 5.0);           // 0.5, the base step widened to double
};

struct RefinementSettings {
    // By level: 0 is the finest (the photographs' size), 2 the coarsest.
    LevelSettings levels[3] = {{10, false, 2}, {25, false, 2}, {100, true, 2}};
    DescentSteps steps;
    int ncc_half_window = 2;  // 5 x 5 windows
    FacetSelection selection;
    int pairs_per_camera = 6;  // the first entries of each camera's neighbour list
};
