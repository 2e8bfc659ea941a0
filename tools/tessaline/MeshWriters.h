// Writers of the refined mesh in the formats other programs read, chosen by
// the output path's extension:
//
//   .ply  binary little-endian PLY: float32 coordinates, or float64 when an
//         offset is added (a far-from-origin model keeps its precision),
//         int32 indices in uchar-counted lists
//   .obj  Wavefront OBJ, "v x y z" with 9 significant digits (17 with an
//         offset) and "f a b c" from 1
//   .glb  binary glTF 2.0: one mesh of one triangle primitive, float32
//         positions (the offset, when there is one, as the node's
//         translation in float64), uint32 indices
//
// Every writer works in memory and puts the file in place by writing a
// temporary file in the same folder and renaming it, so a failed write
// leaves nothing behind and an existing file stays as it was.
#pragma once

#include <string>

#include "TriMesh.h"

namespace tessaline::writers {

// True for a path ending in .ply, .obj or .glb (any case).
bool isWritableMeshPath(const std::string& path);

// The extensions writeMeshFile knows, for messages: ".ply, .obj or .glb".
const char* writableMeshExtensions();

// Writes num_v vertices and num_f facets of `mesh` to `path` in the format
// of its extension, each vertex coordinate plus offset[axis] (computed in
// float64; an offset of zeros leaves them float32). `offset` may be null.
// False with a one-line reason in `error` when the extension is unknown,
// the mesh's tables are shorter than its counts, or the file cannot be
// written.
bool writeMeshFile(const std::string& path, const TriMesh& mesh, const double offset[3], std::string& error);

}  // namespace tessaline::writers
