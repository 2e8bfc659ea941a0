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
#include "planesweep/PlaneSweepCommon.h"
#include "mycamera.h"

namespace tessaline {

constexpr float kInvDepthFirstBest = 9999.0f;
constexpr float kHeightFirstBest = 99.0f;
constexpr float kSweepNoView = -1.0f;

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
template <class Kernel, class Point>
DEVICE_HOST void planeSweepCell(const Kernel& k, const SweepReference& ref, int cell, float firstBest,
                                bool refuseNegative, const Point& point) {
    float best = firstBest;
    float prev = 0.0f;
    float prev2 = 0.0f;
    for (int plane = 0; plane < k.num_planes; ++plane) {
        const float s = float(plane) * k.step + k.start;
        float X[3];
        point(s, X);
        float acc = 0.0f;
        for (int n = 1; n <= k.num_neighbours; ++n) {
            float u, v;
            sweepProject(k.cameras[n], X, u, v);
            SweepWindow w;
            fetchSweepWindow(k.tex_imgs, n, u, v, w);
            acc = float(double(acc) + 0.5 * (1.0 - sweepNcc(ref.window, w)));
        }
        const float cost = acc / float(k.num_neighbours);
        if (plane == 0) prev2 = cost;
        if (plane == 1) prev = cost;
        if (plane >= 2) {
            if (prev < best) {
                // Vertex of the parabola through the costs of planes
                // plane - 2, plane - 1 and plane.
                const float sb = float(plane - 1) * k.step + k.start;
                const float rise = cost - prev2;
                const float curve = -2.0f * prev;
                const double offset = (0.5 * double(k.step)) * double(rise) /
                                      (double(cost) + kSweepStabiliser + double(prev2) + double(curve));
                k.depth[cell] = float(double(sb) - offset);
                best = prev;
            }
            prev2 = prev;
            prev = cost;
        }
    }

    const float e = k.depth[cell];
    if (refuseNegative && e < 0.0f) {
        k.score[cell] = kSweepNoView;
        return;
    }
    float X[3];
    point(e, X);
    float sum = 0.0f;
    int count = 0;
    for (int n = 1; n <= k.num_neighbours; ++n) {
        float u, v;
        sweepProject(k.cameras[n], X, u, v);
        if (u > 0.0f && u < float(k.width) && v > 0.0f && v < float(k.height)) {
            SweepWindow w;
            fetchSweepWindow(k.tex_imgs, n, u, v, w);
            sum += float(sweepNcc(ref.window, w));
            ++count;
        }
    }
    k.score[cell] = count == 0 ? kSweepNoView : k.score[cell] + sum / float(count);
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

struct Kernel_PlaneSweep_InvDepth_CUDA {
    int num_neighbours;
    int width;
    int height;
    const mycamera_cuda* cameras;  // num_neighbours + 1 records; 0 is the reference
    int out_width;
    int out_height;
    int subsample;
    float* depth;  // refined inverse distance along the ray
    float* score;
    int num_planes;
    float start;
    float step;
    LayeredTexture tex_imgs;  // layer 0 the reference, layer n neighbour n

    DEVICE_HOST void operator()(int x, int y) const {
        if (x < 0 || y < 0 || x >= out_width || y >= out_height) return;
        SweepReference ref;
        setupSweepReference(cameras[0], tex_imgs, x * subsample, y * subsample, ref);
        planeSweepCell(*this, ref, y * out_width + x, kInvDepthFirstBest, true, InverseRayPoint{&ref});
    }
};

struct Kernel_PlaneSweep_Height_CUDA {
    int num_neighbours;
    int width;
    int height;
    const mycamera_cuda* cameras;  // num_neighbours + 1 records; 0 is the reference
    int out_width;
    int out_height;
    int subsample;
    float* depth;  // refined height over the plane, in units of |(a, b, c)|
    float* score;
    int num_planes;
    float start;
    float step;
    float a;
    float b;
    float c;
    float d;
    LayeredTexture tex_imgs;  // layer 0 the reference, layer n neighbour n

    DEVICE_HOST void operator()(int x, int y) const {
        if (x < 0 || y < 0 || x >= out_width || y >= out_height) return;
        SweepReference ref;
        setupSweepReference(cameras[0], tex_imgs, x * subsample, y * subsample, ref);
        const float hC = a * ref.C[0] + b * ref.C[1] + c * ref.C[2] + d;
        const float tG = -hC / (a * ref.r[0] + b * ref.r[1] + c * ref.r[2]);
        planeSweepCell(*this, ref, y * out_width + x, kHeightFirstBest, false, HeightPoint{&ref, hC, tG});
    }
};

}  // namespace tessaline
