// Plane sweeps that search a whole viewing ray in one thread per result
// cell: for every plane the mean cost (1 - ncc) / 2 over the neighbours, the
// minimum over the interior planes refined by a parabola through three
// successive costs, then the chosen point scored once more over the
// neighbours that see it. No cost volume is kept; three costs and the best
// so far live in the thread.
//
// Two ways of turning a swept value into a point on the ray X = C + t r:
//   Kernel_PlaneSweep_InvDepth_CUDA: the value is the inverse ray parameter,
//     t = 1 / value. The sweep is thus even in inverse distance (even in
//     disparity), and `depth` holds the refined inverse distance along the
//     unit ray; 1 / depth is the distance. Both the sweep and the scoring
//     pass use this one mapping.
//   Kernel_PlaneSweep_Height_CUDA: the value is a height h over the plane
//     a x + b y + c z + d = 0; t is where the ray reaches the level h.
#pragma once

#include "DeviceCommon.h"
#include "ImageView.h"
#include "mycamera.h"
#include "planesweep/PlaneSweepCommon.h"

namespace tessaline {

constexpr float kInvDepthFirstBest = 9999.0f;
constexpr float kHeightFirstBest = 99.0f;
constexpr float kSweepNoView = -1.0f;

// A reference image and its neighbours, as the sweeps read them: the image
// stack (layer 0 the reference, layer n neighbour n) of width x height
// images, and the cameras in the same order.
struct SweepStack {
    int num_neighbours;
    int width;
    int height;
    const mycamera_cuda* cameras;  // num_neighbours + 1 records
    LayeredTexture images;
};

// The result grid: cell (x, y) stands for pixel (x * subsample,
// y * subsample); one depth and one score per cell.
struct SweepCells {
    ImageView<float> depth;
    ImageView<float> score;
    int subsample;
};

// The swept values: plane k has the value k * step + start.
struct SweepPlanes {
    int num_planes;
    float start;
    float step;
};

// The reference side of a result cell: centre, unit ray and 5 x 5 window.
struct SweepReference {
    float C[3];
    float r[3];
    SweepWindow window;
};

DEVICE_HOST void setupSweepReference(const mycamera_cuda& cam, const LayeredTexture& tex, int px, int py,
                                     SweepReference& ref) {
    viewingRayF(cam, px, py, ref.r);
    cameraCentreF(cam, ref.C);
    fetchSweepWindow(tex, 0, float(px), float(py), ref.window);
}

// Sweep and scoring of one cell. `point(value, X)` gives the point of a
// swept value; `refuseNegative` scores a negative refined value as unseen.
// Writes depth[cell] (only with 3 planes or more) and score[cell].
// The mean cost (1 - ncc) / 2 over the neighbours of the point X against
// the reference window.
DEVICE_HOST float sweepCost(const SweepStack& stack, const SweepReference& ref, const float X[3]) {
    float acc = 0.0f;
    for (int n = 1; n <= stack.num_neighbours; ++n) {
        float u, v;
        sweepProject(stack.cameras[n], X, u, v);
        SweepWindow w;
        fetchSweepWindow(stack.images, n, u, v, w);
        acc = float(double(acc) + 0.5 * (1.0 - sweepNcc(ref.window, w)));
    }
    return acc / float(stack.num_neighbours);
}

// The mean correlation of the point X over the neighbours that see it
// (kSweepNoView when none does), added to what the score holds.
DEVICE_HOST float sweepScore(const SweepStack& stack, const SweepReference& ref, const float X[3], float score) {
    float sum = 0.0f;
    int count = 0;
    for (int n = 1; n <= stack.num_neighbours; ++n) {
        float u, v;
        sweepProject(stack.cameras[n], X, u, v);
        if (u > 0.0f && u < float(stack.width) && v > 0.0f && v < float(stack.height)) {
            SweepWindow w;
            fetchSweepWindow(stack.images, n, u, v, w);
            sum += float(sweepNcc(ref.window, w));
            ++count;
        }
    }
    return count == 0 ? kSweepNoView : score + sum / float(count);
}

template <class Kernel, class Point>
DEVICE_HOST void planeSweepCell(const Kernel& k, const SweepReference& ref, int cell, float firstBest,
                                bool refuseNegative, const Point& point) {
    const SweepPlanes& planes = k.planes;
    float best = firstBest;
    float prev = 0.0f;
    float prev2 = 0.0f;
    for (int plane = 0; plane < planes.num_planes; ++plane) {
        float X[3];
        point(float(plane) * planes.step + planes.start, X);
        const float cost = sweepCost(k.stack, ref, X);
        if (plane == 0) prev2 = cost;
        if (plane == 1) prev = cost;
        if (plane >= 2) {
            if (prev < best) {
                // Vertex of the parabola through the costs of planes
                // plane - 2, plane - 1 and plane.
                const float sb = float(plane - 1) * planes.step + planes.start;
                const float rise = cost - prev2;
                const float curve = -2.0f * prev;
                const double offset = (0.5 * double(planes.step)) * double(rise) /
                                      (double(cost) + kSweepStabiliser + double(prev2) + double(curve));
                k.cells.depth[cell] = float(double(sb) - offset);
                best = prev;
            }
            prev2 = prev;
            prev = cost;
        }
    }

    const float e = k.cells.depth[cell];
    if (refuseNegative && e < 0.0f) {
        k.cells.score[cell] = kSweepNoView;
        return;
    }
    float X[3];
    point(e, X);
    k.cells.score[cell] = sweepScore(k.stack, ref, X, k.cells.score[cell]);
}

// Point of an inverse ray parameter: X = C + (1 / value) r.
struct InverseRayPoint {
    const SweepReference* ref;
    DEVICE_HOST void operator()(float value, float X[3]) const { pointOnRay(ref->C, ref->r, 1.0f / value, X); }
};

// Point of height h over the plane: the ray meets h = 0 at tG, and the
// level h at t = tG (hC - h) / hC, hC the height of the camera centre.
struct HeightPoint {
    const SweepReference* ref;
    float hC;
    float tG;
    DEVICE_HOST void operator()(float h, float X[3]) const { pointOnRay(ref->C, ref->r, (tG * (hC - h)) / hC, X); }
};

// depth: the refined inverse distance along the ray.
struct Kernel_PlaneSweep_InvDepth_CUDA {
    SweepStack stack;
    SweepCells cells;
    SweepPlanes planes;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!cells.depth.contains(x, y)) return;
        SweepReference ref;
        setupSweepReference(stack.cameras[0], stack.images, x * cells.subsample, y * cells.subsample, ref);
        planeSweepCell(*this, ref, cells.depth.index(x, y), kInvDepthFirstBest, true, InverseRayPoint{&ref});
    }
};

// The plane a x + b y + c z + d = 0.
struct PlaneEquation {
    float a, b, c, d;
};

// depth: the refined height over the plane, in units of |(a, b, c)|.
struct Kernel_PlaneSweep_Height_CUDA {
    SweepStack stack;
    SweepCells cells;
    SweepPlanes planes;
    PlaneEquation plane;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!cells.depth.contains(x, y)) return;
        SweepReference ref;
        setupSweepReference(stack.cameras[0], stack.images, x * cells.subsample, y * cells.subsample, ref);
        const PlaneEquation& p = plane;
        const float hC = p.a * ref.C[0] + p.b * ref.C[1] + p.c * ref.C[2] + p.d;
        const float tG = -hC / (p.a * ref.r[0] + p.b * ref.r[1] + p.c * ref.r[2]);
        planeSweepCell(*this, ref, cells.depth.index(x, y), kHeightFirstBest, false, HeightPoint{&ref, hC, tG});
    }
};

}  // namespace tessaline
