// Triangle z-buffer: one thread per facet walks the facet's pixel box with
// incremental barycentric weights and keeps, per pixel, the smallest distance
// from the camera centre, the front-facing facet there and its weights.
#pragma once

#include "DeviceCommon.h"
#include "mycamera.h"

namespace tessaline {

// Lowers *cell to value unless the cell already holds something smaller.
// Returns true when value is not above what the cell held (ties included).
DEVICE_HOST bool float_Atomic_Assign_If_Smaller(float* cell, float value) {
    float old = atomicLoadFloat(cell);
    for (;;) {
        if (old < value) return false;
        atomicCasFloatBits(cell, floatBits(old), floatBits(value));
        const float now = atomicLoadFloat(cell);
        if (floatBits(now) == floatBits(old)) return true;
        old = now;
    }
}

// C = -R^T t in float32.
DEVICE_HOST void cameraCentreF(const mycamera_cuda& cam, float C[3]) {
    for (int k = 0; k < 3; ++k)
        C[k] = -(cam.R[0 * 3 + k] * cam.t[0] + cam.R[1 * 3 + k] * cam.t[1] + cam.R[2 * 3 + k] * cam.t[2]);
}

// (px, py, pw) = P (X, 1) in float32.
DEVICE_HOST void projectF(const float P[12], const float X[3], float& px, float& py, float& pw) {
    px = P[0] * X[0] + P[1] * X[1] + P[2] * X[2] + P[3];
    py = P[4] * X[0] + P[5] * X[1] + P[6] * X[2] + P[7];
    pw = P[8] * X[0] + P[9] * X[1] + P[10] * X[2] + P[11];
}

struct Kernel_TriMesh_Image_ZBuffering_CUDA {
    static constexpr int kFloorBytesPerElement = 12;  // the facet's three indices read
    int num_v;
    const float* vertices;
    int num_f;
    const int* facets;
    mycamera_cuda camera;
    int BU, BV, LU, LV;
    float* depth_image;
    int* facet_image;
    float* bary_b_image;
    float* bary_c_image;

    DEVICE_HOST void operator()(int id) const {
        if (id >= num_f || id < 0) return;
        float C[3];
        cameraCentreF(camera, C);
        const int i0 = facets[3 * id], i1 = facets[3 * id + 1], i2 = facets[3 * id + 2];
        const float X0[3] = {vertices[3 * i0], vertices[3 * i0 + 1], vertices[3 * i0 + 2]};
        const float X1[3] = {vertices[3 * i1], vertices[3 * i1 + 1], vertices[3 * i1 + 2]};
        const float X2[3] = {vertices[3 * i2], vertices[3 * i2 + 1], vertices[3 * i2 + 2]};

        float x0, y0, x1, y1, x2, y2;
        imagePoint(X0, x0, y0);
        imagePoint(X1, x1, y1);
        imagePoint(X2, x2, y2);

        const int xLo = min3(truncD(double(x0) - 0.5), truncD(double(x1) - 0.5), truncD(double(x2) - 0.5)) - 1;
        const int xHi = max3(truncD(double(x0) + 0.5), truncD(double(x1) + 0.5), truncD(double(x2) + 0.5)) + 1;
        const int yLo = min3(truncD(double(y0) - 0.5), truncD(double(y1) - 0.5), truncD(double(y2) - 0.5)) - 1;
        const int yHi = max3(truncD(double(y0) + 0.5), truncD(double(y1) + 0.5), truncD(double(y2) + 0.5)) + 1;
        if (xLo < BU + 10 || yLo < BV + 10 || xHi > BU + LU - 10 || yHi > BV + LV - 10) return;

        const float det = (y1 - y0) * (x2 - x0) - (x1 - x0) * (y2 - y0);
        const float r = 1.0f / det;

        const float d0 = distance(X0, C), d1 = distance(X1, C), d2 = distance(X2, C);

        const float db_y = r * (x2 - x0), dc_y = r * (x0 - x1);
        const float db_x = r * (y0 - y2), dc_x = r * (y1 - y0);

        float bTop = r * ((y0 - y2) * (float(xLo) - x2) - (x0 - x2) * (float(yLo) - y2));
        float cTop = r * ((y1 - y0) * (float(xLo) - x0) - (x1 - x0) * (float(yLo) - y0));

        for (int x = xLo; x <= xHi; ++x) {
            float b = bTop, c = cTop;
            for (int y = yLo; y <= yHi; ++y) {
                if (b >= 0.0f && c >= 0.0f && b + c <= 1.0f) {
                    const float depth = (1.0f - b - c) * d0 + b * d1 + c * d2;
                    const int e = (y - BV) * LU + (x - BU);
                    if (float_Atomic_Assign_If_Smaller(depth_image + e, depth)) {
                        if (r > 0.0f) {
                            facet_image[e] = id;
                            bary_b_image[e] = b;
                            bary_c_image[e] = c;
                        } else {
                            facet_image[e] = -1;
                            bary_b_image[e] = -1.0f;
                            bary_c_image[e] = -1.0f;
                        }
                    }
                }
                b += db_y;
                c += dc_y;
            }
            bTop += db_x;
            cTop += dc_x;
        }
    }

   private:
    DEVICE_HOST void imagePoint(const float X[3], float& u, float& v) const {
        float px, py, pw;
        projectF(camera.P, X, px, py, pw);
        if (pw > 0.0f) {
            u = px / pw;
            v = py / pw;
        } else {
            u = -1.0f;
            v = -1.0f;
        }
    }
    DEVICE_HOST static int truncD(double v) {
        // Far outside any image: clamp before the conversion so it is defined.
        if (!(v > -1.0e9)) return -1000000000;
        if (v > 1.0e9) return 1000000000;
        return int(v);
    }
    DEVICE_HOST static int min3(int a, int b, int c) { return a < b ? (a < c ? a : c) : (b < c ? b : c); }
    DEVICE_HOST static int max3(int a, int b, int c) { return a > b ? (a > c ? a : c) : (b > c ? b : c); }
    DEVICE_HOST static float distance(const float X[3], const float C[3]) {
        const float dx = X[0] - C[0], dy = X[1] - C[1], dz = X[2] - C[2];
        return sqrtf(dx * dx + dy * dy + dz * dz);
    }
};

}  // namespace tessaline
