// tessaline_planesweep: a plane sweep of the device library for one
// reference camera of a scene file and its listed neighbours, with the
// depth and score maps written as images a person can look at.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "ProgramCUDA.h"
#include "mycamera.h"

namespace planesweep_tool {

enum class Method { InvDepth, Height, Homography };

// The swept values: plane k has k * step + start.
struct SweepRange {
    float start = 0.0f;
    float step = 0.0f;
};

// A sweep range that covers the bounding box (lower x, y, z, upper x, y, z)
// as seen from `reference` with `planes` planes, first and last plane on the
// extremes. Values by method: inverse distance from the camera centre
// (InvDepth), the plane function a x + b y + c z + d (Height), depth along
// the camera's axis (Homography). Returns false with `why` when the box is
// behind the camera or degenerate.
bool rangeFromBoundingBox(Method method, const mycamera& reference, const float box[6], const double plane[4],
                          int planes, SweepRange& range, std::string& why);

// The default plane of the height sweep: the reference camera's axis as
// normal, level 0 through the middle of the box, so that the height is the
// depth along the axis minus the depth of the box's centre.
void defaultHeightPlane(const mycamera& reference, const float box[6], double plane[4]);

// The cameras re-expressed in the frame of cameras[0] (which becomes R = I,
// t = 0), as the homography sweep needs; K, K_inv and P are rebuilt.
std::vector<mycamera> relativeToFirst(const std::vector<mycamera>& cameras);

// Writes a PNG under a temporary name in the same folder and renames it
// into place. Returns false (having printed an "Error: " line) on failure.
bool writePngAtomically(const std::string& path, const cv::Mat& image);

// What the command line asks for, once parsed and checked.
struct PlaneSweepRequest {
    std::string scenePath;
    int reference = 0;
    std::string outPrefix;
    Method method = Method::InvDepth;
    bool rangeGiven = false;  // start and step given; otherwise from the bounding box
    SweepRange range;
    int planes = 64;
    int levels = 2;
    int neighbours = 4;
    int subsample = 1;
    double scale = 1.0;
    std::vector<double> plane;  // a, b, c, d of the height sweep, or empty for the default
    float minScore = 0.5f;
};

// Runs the sweep of `request` on `device` and writes the images. Returns the
// exit status: 0 on success, 1 when the scene cannot be used, the device
// refuses or fails the sweep, or an image cannot be written; nothing is
// written unless the sweep has succeeded.
int runPlaneSweep(const PlaneSweepRequest& request, const DeviceHandle& device);

// The whole program: parses and checks the command line, sets up the device
// and runs the sweep. Returns the exit status (CommandLine.h: 0 success, 1
// failure, 2 refused command line).
int runPlaneSweepCommand(int argc, char** argv);

}  // namespace planesweep_tool
