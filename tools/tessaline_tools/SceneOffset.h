// Models in large coordinates (a georeferenced survey: hundreds of
// kilometres from the origin, a few hundred metres across) lose their detail
// in the refiner's float32 arithmetic. The import moves such a model near the
// origin and records by how much.
//
// Rule: with c the centre and d the diagonal of the mesh's bounding box, the
// model is moved when |c| > 1000 d or |c| > 10^4 units. The offset is c
// rounded, component by component, to a whole multiple of the largest power
// of ten not above d (whole units for a model a metre or more across), so
// that it reads plainly and leaves the model within about d of the origin
// (a model larger than its distance from the origin thus stays).
// It is subtracted in float64 from the mesh, the cameras and the model's
// points, and written to OUT_DIR/offset.txt as one line "x y z" with 17
// significant digits: a consumer ADDS it back, in float64, to the refined
// mesh's vertices to return to the model's frame.
#pragma once

#include <string>

#include "MeshReader.h"

namespace tessaline_tools {

struct SceneOffset {
    bool applied = false;
    double xyz[3] = {0.0, 0.0, 0.0};
};

// The offset of the rule above for a mesh (not applied when the rule does
// not call for one).
SceneOffset chooseOffset(const MeshData& mesh);

// Subtracts the offset from every vertex.
void shiftMesh(MeshData& mesh, const SceneOffset& offset);

// The world-to-camera translation of a camera with rotation R (row by row)
// and translation t, in the frame moved by the offset: t + R offset.
void shiftTranslation(const double R[9], double t[3], const SceneOffset& offset);

// "x y z\n", each with 17 significant digits.
std::string offsetText(const SceneOffset& offset);

}  // namespace tessaline_tools
