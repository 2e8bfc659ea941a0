// `import`: turns a COLMAP model, its photographs and a mesh into the scene
// file and the ASCII mesh the tool reads.
//
// Choices this importer makes, in one place:
//  - Cameras are ordered by image name, so that camera i follows the
//    photographs' own order; images the model did not register are left out.
//  - COLMAP puts the centre of the top-left pixel at (0.5, 0.5), the tool at
//    (0, 0): the principal point moves by -0.5 in both directions.
//  - Neighbours: for each pair of registered images, every 3D point seen by
//    both adds min(1, a / 5 degrees), where a is the angle between the two
//    viewing rays at the point. Points seen from nearly the same place (small
//    a, weak depth) count for little; a point with a useful angle counts 1.
//    Each image lists up to K others with a positive score, best first, ties
//    to the lower camera index.
//  - Camera models: the pinhole ones, and SIMPLE_RADIAL, RADIAL, OPENCV and
//    FULL_OPENCV, whose photographs are resampled without their distortion
//    and to one size (ImportPhotographs.h).
//  - A model far from the origin is moved near it (SceneOffset.h).
//  - Bounding box: the mesh's box, padded on every side by 5% of its longest
//    side. The tool only prints the box; the mesh is what the user chose to
//    refine, while the model's points may hold stray outliers.
//  - Image paths in the scene file are relative to the output folder (the run
//    starts there), or absolute where no relative path exists. A path with a
//    blank cannot be written in the scene file and is refused, as is one over
//    1023 characters.
#pragma once

#include <string>
#include <vector>

#include "ColmapModel.h"
#include "MeshReader.h"
#include "mycamera.h"

namespace tessaline_tools {

struct ImportOptions {
    std::string modelDir;
    std::string imageDir;
    std::string meshPath;
    std::string outDir;
    int neighbours = 8;
};

// R (row by row) from a unit quaternion (w, x, y, z).
void quaternionToRotation(const double q[4], double R[9]);

// The tool's camera for a registered image: R and t as the model has them,
// the pinhole part of its camera (fx, fy, cx, cy) in the tool's pixel
// convention; K, K_inv and P set too. Throws ToolError for a camera model the
// import does not take or parameters it cannot use (lensOfColmapCamera).
mycamera cameraFromColmap(const ColmapCamera& camera, const ColmapImage& image);

// Neighbour lists by the rule above; `order` gives, for each scene camera, its
// index into model.images.
std::vector<std::vector<int>> rankNeighbours(const ColmapModel& model, const std::vector<int>& order,
                                             int maxNeighbours);

// Lower x, y, z then upper x, y, z of the mesh, padded as above.
void paddedMeshBox(const MeshData& mesh, double box[6]);

// Runs the whole import; prints progress; throws ToolError. Nothing is
// written unless every check has passed. Writes OUT_DIR/scene.sfm,
// OUT_DIR/mesh.ply, the resampled photographs under OUT_DIR/images and, for a
// model moved near the origin, OUT_DIR/offset.txt.
void runImport(const ImportOptions& options);

}  // namespace tessaline_tools
