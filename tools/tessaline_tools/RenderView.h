// `render`: the picture a user looks at to judge a run. The mesh is drawn from
// one scene camera with the tool's own z-buffer and shaded by how squarely
// each facet faces the camera, beside the photograph and blended over it.
// With a second mesh, the third panel instead colours each visible point of
// the first mesh by its distance to the second, with a colour bar.
//
// Image paths in the scene file are taken relative to the scene file's folder,
// which is where the tool is run from.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "ProgramCUDA.h"
#include "SfmScene.h"
#include "TriMesh.h"

namespace tessaline_tools {

struct RenderOptions {
    std::string scenePath;
    std::string meshPath;
    std::string camera;  // index, or the file name of a photograph
    std::string outPath;
    std::string comparePath;  // empty: no comparison
};

// A render of one camera: per pixel of the photograph, the front-facing facet
// seen there (-1 for none) with its weights, and whether a back face is
// nearest.
struct MeshView {
    cv::Mat facet;     // CV_32S
    cv::Mat baryB;     // CV_32F
    cv::Mat baryC;     // CV_32F
    cv::Mat backFace;  // CV_8U, 255 where the nearest facet faces away
};

// Renders `mesh` into `camera` (K and P must be set) over a width x height
// photograph on `device`. The z-buffer area reaches past the photograph's
// border so that facets at the edge of the picture are drawn too. Throws
// ReportedFailure when the device refuses or fails the render (it has
// printed why).
MeshView renderMeshView(const DeviceHandle& device, const TriMesh& mesh, const mycamera& camera, int width,
                        int height);

// The camera named by `which`: a 0-based index, or a photograph's file name
// (its full path in the scene file or its last component). Throws ToolError.
int findSceneCamera(const SfmScene& scene, const std::string& which);

// The smallest of 1, 1.5, 2, 3, 4, 5, 6, 8 times a power of ten that is not
// below v (v > 0): a colour scale with readable labels.
double niceScale(double v);

// Runs the whole sub-command, rendering on `device` (the CPU backend unless
// told otherwise); prints a summary; throws ToolError. The image is written
// only when everything has succeeded.
void runRender(const RenderOptions& options, const DeviceHandle& device = cpuDevice());

}  // namespace tessaline_tools
