#include "SceneOffset.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tessaline_tools {

namespace {

constexpr double kFarInDiagonals = 1000.0;
constexpr double kFarInUnits = 1e4;

// The largest power of ten not above `size` (1 for a size of 0).
double powerOfTenBelow(double size) {
    if (!(size > 0)) return 1.0;
    double step = 1.0;
    while (step * 10.0 <= size) step *= 10.0;
    while (step > size) step /= 10.0;
    return step;
}

}  // namespace

SceneOffset chooseOffset(const MeshData& mesh) {
    double lo[3] = {HUGE_VAL, HUGE_VAL, HUGE_VAL}, hi[3] = {-HUGE_VAL, -HUGE_VAL, -HUGE_VAL};
    for (size_t i = 0; i < mesh.vertices.size(); i += 3)
        for (size_t k = 0; k < 3; ++k) {
            lo[k] = std::min(lo[k], mesh.vertices[i + k]);
            hi[k] = std::max(hi[k], mesh.vertices[i + k]);
        }
    SceneOffset offset;
    if (mesh.vertices.empty()) return offset;
    double centre[3];
    for (int k = 0; k < 3; ++k) centre[k] = 0.5 * lo[k] + 0.5 * hi[k];
    const double diagonal = std::hypot(hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]);
    const double distance = std::hypot(centre[0], centre[1], centre[2]);
    if (!(distance > kFarInDiagonals * diagonal || distance > kFarInUnits)) return offset;
    const double step = powerOfTenBelow(diagonal);
    for (int k = 0; k < 3; ++k) offset.xyz[k] = std::round(centre[k] / step) * step;
    offset.applied = offset.xyz[0] != 0 || offset.xyz[1] != 0 || offset.xyz[2] != 0;
    return offset;
}

void shiftMesh(MeshData& mesh, const SceneOffset& offset) {
    if (!offset.applied) return;
    for (size_t i = 0; i < mesh.vertices.size(); i += 3)
        for (size_t k = 0; k < 3; ++k) mesh.vertices[i + k] -= offset.xyz[k];
}

void shiftTranslation(const double R[9], double t[3], const SceneOffset& offset) {
    if (!offset.applied) return;
    for (int r = 0; r < 3; ++r)
        t[r] += R[3 * r] * offset.xyz[0] + R[3 * r + 1] * offset.xyz[1] + R[3 * r + 2] * offset.xyz[2];
}

std::string offsetText(const SceneOffset& offset) {
    char line[96];
    std::snprintf(line, sizeof line, "%.17g %.17g %.17g\n", offset.xyz[0], offset.xyz[1], offset.xyz[2]);
    return line;
}

}  // namespace tessaline_tools
