// A synthetic scene as a COLMAP text model, and the lens distortion its
// photographs may be rendered with, so that the importer can be tested on
// scenes whose truth is known.
//
// The model: one camera shared by every image (its model and parameters in
// COLMAP's convention, top-left pixel centre at (0.5, 0.5)), one image per
// photograph with its pose as a quaternion (w, x, y, z) and translation, and
// 3D points on the truth's vertices, each tracked in the images that see it
// (nothing of the truth in between, projection inside the photograph);
// keypoints are where the lens puts the points.
#pragma once

#include <string>

#include "LensModel.h"
#include "SynthScene.h"

namespace tessaline::synth {

// The distortion of `lensModel` at `strength` (1: strong enough that
// ignoring it costs a coarse refinement of a small scene more than 5% of its
// accuracy, and still one to one over any image): SIMPLE_RADIAL k1 = 0.6;
// RADIAL k1 = 0.5, k2 = 0.4; OPENCV k1 = -0.3, k2 = 0.45, p1 = 0.012,
// p2 = -0.009; FULL_OPENCV k1 = 0.3, k2 = 0.15, p1 = -0.006, p2 = 0.009,
// k3 = 0.03, k4 = -0.3, k5 = 0.06; every coefficient times `strength`. None
// for PINHOLE and SIMPLE_PINHOLE.
tessaline_tools::LensDistortion synthDistortion(const std::string& lensModel, double strength);

struct ColmapText {
    std::string cameras;
    std::string images;
    std::string points3D;
};

// The scene's model, its camera of scene.options.lensModel with the scene's
// distortion.
ColmapText colmapModelText(const SynthScene& scene);

// Unit direction of the ray seen at pixel (x, y) of `camera` through the
// distortion (pixelRay without one). False where the distortion cannot be
// inverted.
bool lensPixelRay(const mycamera& camera, const tessaline_tools::LensDistortion& distortion, double x, double y,
                  double direction[3]);

// The quaternion (w, x, y, z) of a rotation matrix (row by row), w >= 0.
void rotationToQuaternion(const double R[9], double q[4]);

}  // namespace tessaline::synth
