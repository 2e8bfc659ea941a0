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

// A descent rule that adapts to the scene (off by default: every vertex then
// takes the fixed steps above, one after the other). Each vertex takes its
// photometric and smoothness steps as one move, scaled by a factor of the
// vertex's own: multiplied by `turn_factor` when the move turns against the
// previous iteration's, by `regrow_factor` otherwise, up to 1. The move is
// capped at `max_move` pixel footprints, a footprint being the vertex's
// depth over the focal length, at the level's image size, in the camera of
// the smallest such ratio among those whose image it projects into. A level
// ends early, after at least `min_iterations`, once at most `settled_share`
// of the vertices moved more than `settled_move` footprints in an
// iteration; its iteration count is then a cap.
struct AdaptiveDescent {
    bool enabled = false;
    float turn_factor = 0.5f;
    float regrow_factor = 1.25f;
    float max_move = 1.0f;       // pixel footprints per iteration
    float settled_move = 0.05f;  // pixel footprints per iteration
    float settled_share = 0.02f;
    int min_iterations = 3;
};

struct RefinementSettings {
    // By level: 0 is the finest (the photographs' size), 2 the coarsest.
    LevelSettings levels[3] = {{10, false, 2}, {25, false, 2}, {100, true, 2}};
    DescentSteps steps;
    int ncc_half_window = 2;  // 5 x 5 windows
    FacetSelection selection;
    int pairs_per_camera = 6;  // the first entries of each camera's neighbour list
    AdaptiveDescent adaptive;
};
