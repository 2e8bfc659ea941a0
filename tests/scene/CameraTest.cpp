// Camera model: derived matrices, scaling to a level, narrowing to
// the device record, projection and camera centre.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "mycamera.h"

namespace {

void setIdentityPose(mycamera& camera) {
    const double I[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    std::memcpy(camera.R, I, sizeof I);
    camera.t[0] = camera.t[1] = camera.t[2] = 0.0;
}

mycamera makeCamera(double fx, double fy, double cx, double cy) {
    mycamera camera;
    setIdentityPose(camera);
    camera.fx = fx;
    camera.fy = fy;
    camera.cx = cx;
    camera.cy = cy;
    updateIntrinsicMatrices(camera);
    updateProjectionMatrix(camera);
    return camera;
}

// A proper rotation: about z by 30 degrees, then about x by -50 degrees.
void setRotatedPose(mycamera& camera) {
    const double a = 30.0 * M_PI / 180.0, b = -50.0 * M_PI / 180.0;
    const double Rz[9] = {std::cos(a), -std::sin(a), 0, std::sin(a), std::cos(a), 0, 0, 0, 1};
    const double Rx[9] = {1, 0, 0, 0, std::cos(b), -std::sin(b), 0, std::sin(b), std::cos(b)};
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) {
            double s = 0;
            for (int k = 0; k < 3; ++k) s += Rx[r * 3 + k] * Rz[k * 3 + c];
            camera.R[r * 3 + c] = s;
        }
    camera.t[0] = 0.3;
    camera.t[1] = -0.7;
    camera.t[2] = 4.5;
}

TEST(CameraRecord, NewRecordHasIntrinsicsMinusOne) {
    mycamera camera;
    EXPECT_EQ(camera.fx, -1.0);
    EXPECT_EQ(camera.fy, -1.0);
    EXPECT_EQ(camera.cx, -1.0);
    EXPECT_EQ(camera.cy, -1.0);
    EXPECT_EQ(sizeof(mycamera_cuda), 46 * sizeof(float));
}

TEST(CameraIntrinsics, ScalingByAQuarterScalesAllFourAndRebuildsK) {
    mycamera camera = makeCamera(1000, 900, 640, 480);
    scaleCameraToLevel(camera, 0.25);
    EXPECT_EQ(camera.fx, 250.0);
    EXPECT_EQ(camera.fy, 225.0);
    EXPECT_EQ(camera.cx, 160.0);
    EXPECT_EQ(camera.cy, 120.0);
    const double expectedK[9] = {250, 0, 160, 0, 225, 120, 0, 0, 1};
    for (int i = 0; i < 9; ++i) EXPECT_EQ(camera.K[i], expectedK[i]) << "K entry " << i;
    // P was rebuilt from the new K: with R = I and t = 0 its first columns are K.
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) EXPECT_EQ(camera.P[r * 4 + c], expectedK[r * 3 + c]);
}

TEST(CameraIntrinsics, ScalingKeepsPoseAndDoesNotShiftPrincipalPoint) {
    mycamera camera;
    setRotatedPose(camera);
    camera.fx = 1520.4;
    camera.fy = 1525.9;
    camera.cx = 302.32;
    camera.cy = 246.87;
    mycamera copy = camera;
    scaleCameraToLevel(copy, 0.5);
    EXPECT_EQ(copy.cx, 302.32 * 0.5);
    EXPECT_EQ(copy.cy, 246.87 * 0.5);
    EXPECT_EQ(std::memcmp(copy.R, camera.R, sizeof camera.R), 0);
    EXPECT_EQ(std::memcmp(copy.t, camera.t, sizeof camera.t), 0);
    // The original keeps the file's values.
    EXPECT_EQ(camera.fx, 1520.4);
}

TEST(CameraIntrinsics, KTimesKInvIsIdentityToDoublePrecision) {
    const double values[][4] = {{1000, 900, 640, 480}, {1520.4, 1525.9, 302.32, 246.87}, {0.3, 7e4, -12.5, 1e-3}};
    for (const auto& v : values) {
        mycamera camera = makeCamera(v[0], v[1], v[2], v[3]);
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) {
                double s = 0;
                for (int k = 0; k < 3; ++k) s += camera.K[r * 3 + k] * camera.K_inv[k * 3 + c];
                EXPECT_NEAR(s, r == c ? 1.0 : 0.0, 1e-12) << "entry " << r << "," << c << " fx " << v[0];
            }
        // The closed form of the inverse of an upper triangular K.
        EXPECT_NEAR(camera.K_inv[0], 1.0 / v[0], 1e-15 / v[0]);
        EXPECT_NEAR(camera.K_inv[4], 1.0 / v[1], 1e-15 / v[1]);
        EXPECT_NEAR(camera.K_inv[2], -v[2] / v[0], 1e-12 * std::fabs(v[2] / v[0]) + 1e-300);
        EXPECT_NEAR(camera.K_inv[5], -v[3] / v[1], 1e-12 * std::fabs(v[3] / v[1]) + 1e-300);
        EXPECT_NEAR(camera.K_inv[8], 1.0, 1e-15);  // LU need not give 1 exactly
        EXPECT_EQ(camera.K_inv[1], 0.0);
        EXPECT_EQ(camera.K_inv[3], 0.0);
        EXPECT_EQ(camera.K_inv[6], 0.0);
        EXPECT_EQ(camera.K_inv[7], 0.0);
    }
}

TEST(CameraIntrinsics, SingularKIsNotReported) {
    // fx = 0 gives a singular K; nothing tests for it and nothing crashes.
    mycamera camera = makeCamera(0, 900, 640, 480);
    EXPECT_EQ(camera.K[0], 0.0);
}

TEST(CameraProjection, IdentityPoseGivesKThenZeroColumn) {
    mycamera camera = makeCamera(1000, 900, 640, 480);
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) EXPECT_EQ(camera.P[r * 4 + c], camera.K[r * 3 + c]);
        EXPECT_EQ(camera.P[r * 4 + 3], 0.0);
    }
}

TEST(CameraProjection, OriginInFrontProjectsToPrincipalPoint) {
    mycamera camera;
    setIdentityPose(camera);
    camera.t[2] = 5.0;
    camera.fx = 1000;
    camera.fy = 900;
    camera.cx = 640;
    camera.cy = 480;
    updateIntrinsicMatrices(camera);
    updateProjectionMatrix(camera);
    const double origin[3] = {0, 0, 0};
    double u = -7, v = -7;
    ASSERT_TRUE(projectPoint(camera, origin, u, v));
    EXPECT_EQ(u, 640.0);
    EXPECT_EQ(v, 480.0);
    // One unit along x at depth 5 moves fx / 5 columns; along y, fy / 5 rows.
    const double X[3] = {1, 1, 0};
    ASSERT_TRUE(projectPoint(camera, X, u, v));
    EXPECT_DOUBLE_EQ(u, 640.0 + 1000.0 / 5.0);
    EXPECT_DOUBLE_EQ(v, 480.0 + 900.0 / 5.0);
}

TEST(CameraProjection, PointsWithNonPositiveDepthHaveNoImagePosition) {
    mycamera camera = makeCamera(1000, 900, 640, 480);
    double u = 123, v = 456;
    const double behind[3] = {0.1, 0.2, -1.0};
    EXPECT_FALSE(projectPoint(camera, behind, u, v));
    const double onPlane[3] = {1.0, 1.0, 0.0};
    EXPECT_FALSE(projectPoint(camera, onPlane, u, v));
    EXPECT_EQ(u, 123);  // untouched
    EXPECT_EQ(v, 456);
    const double nanPoint[3] = {0.0, 0.0, std::nan("")};
    EXPECT_FALSE(projectPoint(camera, nanPoint, u, v));
}

TEST(CameraProjection, MatchesKTimesRXPlusT) {
    mycamera camera;
    setRotatedPose(camera);
    camera.fx = 1520.4;
    camera.fy = 1525.9;
    camera.cx = 302.32;
    camera.cy = 246.87;
    updateIntrinsicMatrices(camera);
    updateProjectionMatrix(camera);
    // P = K [R | t], entry by entry.
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c) {
            double s = 0;
            for (int k = 0; k < 3; ++k) s += camera.K[r * 3 + k] * (c < 3 ? camera.R[k * 3 + c] : camera.t[k]);
            EXPECT_NEAR(camera.P[r * 4 + c], s, 1e-12 * (std::fabs(s) + 1)) << r << "," << c;
        }
    // The projection of a point equals the pinhole model in the camera frame.
    const double X[3] = {0.25, -0.4, 0.6};
    double Xc[3];
    for (int r = 0; r < 3; ++r)
        Xc[r] = camera.R[r * 3] * X[0] + camera.R[r * 3 + 1] * X[1] + camera.R[r * 3 + 2] * X[2] + camera.t[r];
    ASSERT_GT(Xc[2], 0);
    double u, v;
    ASSERT_TRUE(projectPoint(camera, X, u, v));
    EXPECT_NEAR(u, camera.fx * Xc[0] / Xc[2] + camera.cx, 1e-9);
    EXPECT_NEAR(v, camera.fy * Xc[1] / Xc[2] + camera.cy, 1e-9);
}

TEST(CameraProjection, ProjectionReadsTheKLeftInTheRecord) {
    // updateProjectionMatrix reads K, not fx..cy: the order of the two
    // operations matters.
    mycamera camera = makeCamera(1000, 900, 640, 480);
    camera.fx = 1.0;  // not yet turned into K
    updateProjectionMatrix(camera);
    EXPECT_EQ(camera.P[0], 1000.0);
}

TEST(CameraCentre, IsMinusRTransposeT) {
    mycamera camera;
    setRotatedPose(camera);
    double C[3];
    cameraCentre(camera, C);
    // R C + t = 0.
    for (int r = 0; r < 3; ++r) {
        const double s = camera.R[r * 3] * C[0] + camera.R[r * 3 + 1] * C[1] + camera.R[r * 3 + 2] * C[2] + camera.t[r];
        EXPECT_NEAR(s, 0.0, 1e-12);
    }
    setIdentityPose(camera);
    camera.t[2] = 5;
    cameraCentre(camera, C);
    EXPECT_EQ(C[0], 0.0);
    EXPECT_EQ(C[1], 0.0);
    EXPECT_EQ(C[2], -5.0);
}

TEST(CameraNarrowing, KeepsTheOrderOfThe46Values) {
    mycamera camera;
    double* fields[] = {camera.P, camera.R, camera.t, camera.K, camera.K_inv};
    const int lengths[] = {12, 9, 3, 9, 9};
    double value = 0.1;
    std::vector<double> expected;
    for (int f = 0; f < 5; ++f)
        for (int i = 0; i < lengths[f]; ++i) {
            fields[f][i] = value;
            expected.push_back(value);
            value += 1.0;
        }
    camera.fx = value;
    camera.fy = value + 1;
    camera.cx = value + 2;
    camera.cy = value + 3;
    expected.insert(expected.end(), {value, value + 1, value + 2, value + 3});
    ASSERT_EQ(expected.size(), 46u);

    mycamera_cuda narrow;
    std::memset(&narrow, 0xff, sizeof narrow);
    toCameraCuda(narrow, camera);
    float flat[46];
    std::memcpy(flat, &narrow, sizeof flat);
    for (int i = 0; i < 46; ++i) EXPECT_EQ(flat[i], static_cast<float>(expected[i])) << "position " << i;
    EXPECT_EQ(flat[21], static_cast<float>(camera.t[0]));
    EXPECT_EQ(flat[42], static_cast<float>(camera.fx));
    EXPECT_EQ(flat[12], static_cast<float>(camera.R[0]));
    EXPECT_EQ(flat[33], static_cast<float>(camera.K_inv[0]));
    EXPECT_EQ(flat[45], static_cast<float>(camera.cy));
}

TEST(CameraNarrowing, RoundsToNearestWithoutRecomputing) {
    mycamera camera = makeCamera(1520.4, 1525.9, 302.32, 246.87);
    // A value that no single-precision recomputation would give exactly.
    camera.K_inv[0] = 1.0 / 3.0;
    camera.P[5] = 16777217.0;  // 2^24 + 1: a tie, rounds to even (2^24)
    mycamera_cuda narrow;
    toCameraCuda(narrow, camera);
    EXPECT_EQ(narrow.K_inv[0], static_cast<float>(1.0 / 3.0));
    EXPECT_EQ(narrow.P[5], 16777216.0f);
    EXPECT_EQ(narrow.fx, 1520.4f);
    EXPECT_EQ(narrow.cy, 246.87f);
}

}  // namespace
