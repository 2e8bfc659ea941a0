// Pinhole camera records: mycamera (host, float64) and mycamera_cuda (the
// same 46 values narrowed to float32, handed to kernels by value).
//
// Conventions: a world point X goes to the camera frame as R*X + t, the camera
// looks along +z, the centre is C = -R^T t, P = K [R | t]. Pixel coordinates
// are integers at pixel centres, u along the columns, v along the rows.
#pragma once

struct mycamera {
    double P[12];     // 3x4 projection matrix, row by row
    double R[9];      // world to camera rotation, row by row
    double t[3];      // world to camera translation
    double K[9];      // intrinsic matrix
    double K_inv[9];  // inverse of K
    double fx = -1.0;
    double fy = -1.0;
    double cx = -1.0;
    double cy = -1.0;
};

// 46 consecutive float32 values, nothing between or after them.
struct mycamera_cuda {
    float P[12];
    float R[9];
    float t[3];
    float K[9];
    float K_inv[9];
    float fx, fy, cx, cy;
};
static_assert(sizeof(mycamera_cuda) == 46 * sizeof(float), "mycamera_cuda must be 46 packed floats");

// K and K_inv from fx, fy, cx, cy (K inverted by LU, as a 3x3 double matrix).
void updateIntrinsicMatrices(mycamera& camera);
// P = K [R | t] in double precision.
void updateProjectionMatrix(mycamera& camera);
// Narrow every one of the 46 values to float32, position by position.
void toCameraCuda(mycamera_cuda& cameraCuda, const mycamera& camera);
// Scale fx, fy, cx, cy by `scale` and rebuild K, K_inv and P.
void scaleCameraToLevel(mycamera& camera, double scale);
// Project a world point; returns false (u, v untouched) when r <= 0.
bool projectPoint(const mycamera& camera, const double X[3], double& u, double& v);
// Camera centre C = -R^T t.
void cameraCentre(const mycamera& camera, double C[3]);
