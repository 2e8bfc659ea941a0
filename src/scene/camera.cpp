// Camera operations: the derived matrices K, K_inv and P, the
// narrowing to mycamera_cuda, the per-level scaling, and two small helpers
// (projection of a world point, camera centre) that follow the conventions of
// mycamera.h.
#include "mycamera.h"

#include <opencv2/core.hpp>

void updateIntrinsicMatrices(mycamera& camera) {
    double* K = camera.K;
    K[0] = camera.fx;
    K[1] = 0.0;
    K[2] = camera.cx;
    K[3] = 0.0;
    K[4] = camera.fy;
    K[5] = camera.cy;
    K[6] = 0.0;
    K[7] = 0.0;
    K[8] = 1.0;

    // cv::Mat::inv in its default method (LU) on K viewed as a 3x3 double
    // matrix. A singular K (fx or fy 0) is not tested for: OpenCV then gives a
    // zero matrix, and nothing reports it.
    const cv::Mat Kmat(3, 3, CV_64F, camera.K);
    const cv::Mat Kinv = Kmat.inv(cv::DECOMP_LU);
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) {
            camera.K_inv[r * 3 + c] = Kinv.at<double>(r, c);
        }
    }
}

void updateProjectionMatrix(mycamera& camera) {
    // [R | t]: row i is row i of R followed by t[i].
    double Rt[12];
    for (int r = 0; r < 3; ++r) {
        Rt[r * 4 + 0] = camera.R[r * 3 + 0];
        Rt[r * 4 + 1] = camera.R[r * 3 + 1];
        Rt[r * 4 + 2] = camera.R[r * 3 + 2];
        Rt[r * 4 + 3] = camera.t[r];
    }
    // P = 1.0 * K * [R | t] with no third matrix, in double (cvGEMM of the
    // original, cv::gemm in the current interface).
    const cv::Mat Kmat(3, 3, CV_64F, camera.K);
    const cv::Mat RtMat(3, 4, CV_64F, Rt);
    cv::Mat Pmat;
    cv::gemm(Kmat, RtMat, 1.0, cv::noArray(), 0.0, Pmat);
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 4; ++c) {
            camera.P[r * 4 + c] = Pmat.at<double>(r, c);
        }
    }
}

void toCameraCuda(mycamera_cuda& cameraCuda, const mycamera& camera) {
    // Position by position, float64 to float32 rounded to nearest; nothing is
    // recomputed in single precision.
    for (int i = 0; i < 12; ++i) cameraCuda.P[i] = static_cast<float>(camera.P[i]);
    for (int i = 0; i < 9; ++i) cameraCuda.R[i] = static_cast<float>(camera.R[i]);
    for (int i = 0; i < 3; ++i) cameraCuda.t[i] = static_cast<float>(camera.t[i]);
    for (int i = 0; i < 9; ++i) cameraCuda.K[i] = static_cast<float>(camera.K[i]);
    for (int i = 0; i < 9; ++i) cameraCuda.K_inv[i] = static_cast<float>(camera.K_inv[i]);
    cameraCuda.fx = static_cast<float>(camera.fx);
    cameraCuda.fy = static_cast<float>(camera.fy);
    cameraCuda.cx = static_cast<float>(camera.cx);
    cameraCuda.cy = static_cast<float>(camera.cy);
}

void scaleCameraToLevel(mycamera& camera, double scale) {
    // All four by the same factor; the principal point is not shifted by half
    // a pixel. R and t stay as they are.
    camera.fx *= scale;
    camera.fy *= scale;
    camera.cx *= scale;
    camera.cy *= scale;
    updateIntrinsicMatrices(camera);
    updateProjectionMatrix(camera);
}

bool projectPoint(const mycamera& camera, const double X[3], double& u, double& v) {
    const double* P = camera.P;
    const double p = P[0] * X[0] + P[1] * X[1] + P[2] * X[2] + P[3];
    const double q = P[4] * X[0] + P[5] * X[1] + P[6] * X[2] + P[7];
    const double r = P[8] * X[0] + P[9] * X[1] + P[10] * X[2] + P[11];
    // Only r > 0 gives an image position (a NaN r gives none either).
    if (!(r > 0.0)) return false;
    u = p / r;
    v = q / r;
    return true;
}

void cameraCentre(const mycamera& camera, double C[3]) {
    // C = -R^T t.
    const double* R = camera.R;
    const double* t = camera.t;
    for (int c = 0; c < 3; ++c) {
        C[c] = -(R[0 * 3 + c] * t[0] + R[1 * 3 + c] * t[1] + R[2 * 3 + c] * t[2]);
    }
}
