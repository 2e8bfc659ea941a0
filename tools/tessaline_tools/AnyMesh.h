// A mesh in any format the programs read: `tessaline refine`'s initial mesh,
// the meshes that compare and photoconsistency measure. A PLY file in the refiner's own
// dialect (ASCII, vertices of x, y, z and perhaps alpha, faces) is read by
// the refiner's reader, as tessaline_refine reads it, so that both runs
// start from the same floats; any other mesh (binary PLY, normals and
// colours, polygons, OBJ) by the importer's reader.
#pragma once

#include <string>

#include "TriMesh.h"

namespace tessaline_tools {

// True when the header of the PLY text `header` (up to end_header) is of the
// refiner's dialect.
bool isRefinerPlyHeader(const std::string& header);

// Reads the mesh at `path`; false with a one-line reason in `error`.
bool readAnyMesh(const std::string& path, TriMesh& mesh, std::string& error);

}  // namespace tessaline_tools
