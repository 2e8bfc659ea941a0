// The CPU's render of the optimisation's fast schedule: one pass over the
// facets in bands of rows, with no atomics (zbuffer/ZBufferKernels.h).
#pragma once

#include <algorithm>
#include <cstddef>

#include "backend/CpuBackend.h"
#include "zbuffer/ZBufferKernels.h"

namespace tessaline {

// The same render in one pass over the facets for a backend whose threads
// are few (the CPU): the area is cut into bands of rows, each band a task
// that walks every facet whose box meets it and keeps, per pixel it owns,
// the smallest key with that facet's depth, index and weights; no pixel is
// written by two tasks, so no atomics are needed, and no second pass. Each
// facet still adds up its weights column by column from its box's corner,
// row by row from the column's top, so every pixel gets the floats of the
// two-pass render, and the smallest key wins as there.
inline void renderInBands(CpuBackend& be, const MeshGeometry& mesh, const mycamera_cuda& camera,
                          ImageView<unsigned long long> keys, const RenderImages& out, const float* projected,
                          int bands) {
    const int LU = keys.width, LV = keys.height;
    const int rowsPerBand = (LV + bands - 1) / (bands > 0 ? bands : 1);
    be.runTasks(bands, [&](auto&, int, int band) {
        const int top = band * rowsPerBand, bottom = std::min(LV, top + rowsPerBand);  // rows top..bottom-1
        for (int id = 0; id < mesh.num_f; ++id) {
            const FacetRaster f(mesh.vertices, mesh.facets, id, camera, 0, 0, LU, LV, projected);
            if (!f.kept || f.yHi < top || f.yLo >= bottom) continue;
            const bool front = f.r > 0.0f;
            f.forEachPixel([&](int x, int y, float depth, float b, float c) {
                if (y < top || y >= bottom) return;
                const size_t e = size_t(y) * size_t(LU) + size_t(x);
                const unsigned long long key = depthFacetKey(depth, id);
                if (key > keys[e]) return;
                keys[e] = key;
                out.store(int(e), depth, front ? id : -1, front ? b : -1.0f, front ? c : -1.0f);
            });
        }
    });
}

}  // namespace tessaline
