// COLMAP's camera models with lens distortion, told in OpenCV's terms: a
// pinhole camera (fx, fy, cx, cy) and the coefficients k1, k2, p1, p2, k3,
// k4, k5, k6 of OpenCV's distortion model. A point of normalised image
// coordinates (x, y) = (X/Z, Y/Z), r2 = x^2 + y^2, is seen at
//   radial = (1 + k1 r2 + k2 r2^2 + k3 r2^3) / (1 + k4 r2 + k5 r2^2 + k6 r2^3)
//   xd = x radial + 2 p1 x y + p2 (r2 + 2 x^2)
//   yd = y radial + p1 (r2 + 2 y^2) + 2 p2 x y
// and at pixel (fx xd + cx, fy yd + cy).
//
// The models accepted and where their parameters go:
//   SIMPLE_PINHOLE f cx cy                  fx = fy = f
//   PINHOLE        fx fy cx cy
//   SIMPLE_RADIAL  f cx cy k                k1 = k
//   RADIAL         f cx cy k1 k2
//   OPENCV         fx fy cx cy k1 k2 p1 p2
//   FULL_OPENCV    fx fy cx cy k1 k2 p1 p2 k3 k4 k5 k6
// (the same order as OpenCV's distortion vector).
//
// The library has no dependency, so that the synthetic scene generator
// renders through the very model the importer undoes.
#pragma once

#include <array>
#include <string>
#include <vector>

namespace tessaline_tools {

struct LensDistortion {
    double k1 = 0, k2 = 0, p1 = 0, p2 = 0, k3 = 0, k4 = 0, k5 = 0, k6 = 0;

    bool isZero() const;
    // k1, k2, p1, p2, k3, k4, k5, k6: OpenCV's distCoeffs.
    std::array<double, 8> opencvCoefficients() const;
};

// A camera's intrinsics: focal lengths and principal point in pixels (in the
// pixel convention of whoever filled it) and the distortion.
struct LensCamera {
    double fx = 0, fy = 0, cx = 0, cy = 0;
    LensDistortion distortion;
};

// True for the six model names above.
bool isAcceptedLensModel(const std::string& modelName);
std::string acceptedLensModels();  // "SIMPLE_PINHOLE, PINHOLE, ..." for messages

// The camera of a model's parameters (in COLMAP's order, as many as the model
// takes). Returns false with `error` set for a model not accepted or a wrong
// number of parameters.
bool lensFromParameters(const std::string& modelName, const std::vector<double>& params, LensCamera& camera,
                        std::string& error);

// The parameters of `modelName` for a camera; the coefficients the model
// cannot hold are left out (lensFromParameters of the result gives them as 0).
std::vector<double> lensParameters(const std::string& modelName, const LensCamera& camera);

// Undistorted normalised coordinates to distorted ones.
void distortNormalised(const LensDistortion& d, double x, double y, double& xd, double& yd);

// The inverse, by Newton's method from (xd, yd). False when it does not
// converge (outside the region where the distortion is one to one).
bool undistortNormalised(const LensDistortion& d, double xd, double yd, double& x, double& y);

// The undistorted radius up to which the radial part of the distortion grows
// with the radius (its denominator staying positive), searched up to 20;
// beyond it the model folds over and two rays meet in one pixel.
double foldRadius(const LensDistortion& d);

// The distorted radius reached at foldRadius: the farthest a usable image
// point may lie from the principal point, in normalised coordinates.
double foldDistortedRadius(const LensDistortion& d);

}  // namespace tessaline_tools
