// Camera model: derived matrices, scaling to a level, narrowing to
// the device record, projection and camera centre.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "mycamera.h"

namespace {

// R = I and t = (0, 0, tz), or (rotated) R = Rx(-50 deg) Rz(30 deg) and
// t = (0.3, -0.7, 4.5); K and P built from the intrinsics.
mycamera makeCamera(double fx, double fy, double cx, double cy, double tz = 0.0, bool rotated = false) {
    mycamera camera;
    const double I[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    std::memcpy(camera.R, I, sizeof I);
    camera.t[0] = camera.t[1] = 0.0;
    camera.t[2] = tz;
    if (rotated) {
        const double a = 30.0 * M_PI / 180.0, b = -50.0 * M_PI / 180.0;
        const double Rz[9] = {std::cos(a), -std::sin(a), 0, std::sin(a), std::cos(a), 0, 0, 0, 1};
        const double Rx[9] = {1, 0, 0, 0, std::cos(b), -std::sin(b), 0, std::sin(b), std::cos(b)};
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) {
                camera.R[r * 3 + c] = 0;
                for (int k = 0; k < 3; ++k) camera.R[r * 3 + c] += Rx[r * 3 + k] * Rz[k * 3 + c];
            }
        camera.t[0] = 0.3, camera.t[1] = -0.7, camera.t[2] = 4.5;
    }
    camera.fx = fx, camera.fy = fy, camera.cx = cx, camera.cy = cy;
    updateIntrinsicMatrices(camera);
    updateProjectionMatrix(camera);
    return camera;
}

TEST(CameraIntrinsics, ScalingByAQuarterScalesAllFourRebuildsKAndKeepsPose) {
    mycamera camera = makeCamera(1000, 900, 640, 480);
    scaleCameraToLevel(camera, 0.25);
    EXPECT_EQ(std::vector<double>({camera.fx, camera.fy, camera.cx, camera.cy}),
              std::vector<double>({250, 225, 160, 120}));
    const std::vector<double> expectedK = {250, 0, 160, 0, 225, 120, 0, 0, 1};
    EXPECT_EQ(std::vector<double>(camera.K, camera.K + 9), expectedK);
    // P was rebuilt from the new K: with R = I and t = 0 its first columns are K.
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) EXPECT_EQ(camera.P[r * 4 + c], expectedK[r * 3 + c]);

    const mycamera rotated = makeCamera(1520.4, 1525.9, 302.32, 246.87, 0, true);
    mycamera copy = rotated;
    scaleCameraToLevel(copy, 0.5);
    EXPECT_EQ(copy.cx, 302.32 * 0.5);  // no half-pixel shift
    EXPECT_EQ(copy.cy, 246.87 * 0.5);
    EXPECT_EQ(std::memcmp(copy.R, rotated.R, sizeof rotated.R), 0);
    EXPECT_EQ(std::memcmp(copy.t, rotated.t, sizeof rotated.t), 0);
}

TEST(CameraIntrinsics, KTimesKInvIsIdentityToDoublePrecision) {
    const double values[][4] = {{1000, 900, 640, 480}, {1520.4, 1525.9, 302.32, 246.87}, {0.3, 7e4, -12.5, 1e-3}};
    for (const auto& v : values) {
        SCOPED_TRACE(v[0]);
        const mycamera camera = makeCamera(v[0], v[1], v[2], v[3]);
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) {
                double s = 0;
                for (int k = 0; k < 3; ++k) s += camera.K[r * 3 + k] * camera.K_inv[k * 3 + c];
                EXPECT_NEAR(s, r == c ? 1.0 : 0.0, 1e-12) << "entry " << r << "," << c;
            }
    }
}

TEST(CameraProjection, IdentityPoseGivesKThenZeroColumnAndOriginInFrontHitsPrincipalPoint) {
    const mycamera identity = makeCamera(1000, 900, 640, 480);
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) EXPECT_EQ(identity.P[r * 4 + c], identity.K[r * 3 + c]);
        EXPECT_EQ(identity.P[r * 4 + 3], 0.0);
    }
    const mycamera camera = makeCamera(1000, 900, 640, 480, 5.0);  // t = (0, 0, 5)
    const double origin[3] = {0, 0, 0}, X[3] = {1, 1, 0};
    double u = -7, v = -7;
    ASSERT_TRUE(projectPoint(camera, origin, u, v));
    EXPECT_EQ(u, 640.0);
    EXPECT_EQ(v, 480.0);
    // One unit along x at depth 5 moves fx / 5 columns; along y, fy / 5 rows.
    ASSERT_TRUE(projectPoint(camera, X, u, v));
    EXPECT_DOUBLE_EQ(u, 640.0 + 1000.0 / 5.0);
    EXPECT_DOUBLE_EQ(v, 480.0 + 900.0 / 5.0);
}

TEST(CameraProjection, PointsWithNonPositiveDepthHaveNoImagePosition) {
    const mycamera camera = makeCamera(1000, 900, 640, 480);
    const double points[][3] = {{0.1, 0.2, -1.0}, {1.0, 1.0, 0.0}, {0.0, 0.0, std::nan("")}};
    for (const auto& X : points) {
        double u = 123, v = 456;
        EXPECT_FALSE(projectPoint(camera, X, u, v)) << X[2];
        EXPECT_EQ(u, 123);  // untouched
        EXPECT_EQ(v, 456);
    }
}

TEST(CameraProjection, MatchesKTimesRXPlusT) {
    const mycamera camera = makeCamera(1520.4, 1525.9, 302.32, 246.87, 0, true);
    // P = K [R | t], entry by entry.
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c) {
            double s = 0;
            for (int k = 0; k < 3; ++k) s += camera.K[r * 3 + k] * (c < 3 ? camera.R[k * 3 + c] : camera.t[k]);
            EXPECT_NEAR(camera.P[r * 4 + c], s, 1e-12 * (std::fabs(s) + 1)) << r << "," << c;
        }
}

TEST(CameraProjection, ProjectionReadsTheKLeftInTheRecord) {
    mycamera camera = makeCamera(1000, 900, 640, 480);
    camera.fx = 1.0;  // not yet turned into K
    updateProjectionMatrix(camera);
    EXPECT_EQ(camera.P[0], 1000.0);
}

TEST(CameraCentre, IsMinusRTransposeT) {
    double C[3];
    const mycamera rotated = makeCamera(1, 1, 0, 0, 0, true);
    cameraCentre(rotated, C);
    for (int r = 0; r < 3; ++r)  // R C + t = 0
        EXPECT_NEAR(rotated.R[r * 3] * C[0] + rotated.R[r * 3 + 1] * C[1] + rotated.R[r * 3 + 2] * C[2] + rotated.t[r],
                    0.0, 1e-12);
    cameraCentre(makeCamera(1, 1, 0, 0, 5.0), C);
    EXPECT_EQ(std::vector<double>(C, C + 3), std::vector<double>({0, 0, -5}));
}

TEST(CameraNarrowing, KeepsTheOrderOfThe46ValuesAndRoundsToNearest) {
    mycamera camera;
    double* fields[] = {camera.P, camera.R, camera.t, camera.K, camera.K_inv, &camera.fx, &camera.fy, &camera.cx,
                        &camera.cy};
    const int lengths[] = {12, 9, 3, 9, 9, 1, 1, 1, 1};
    std::vector<double> expected;
    for (int f = 0; f < 9; ++f)
        for (int i = 0; i < lengths[f]; ++i) {
            fields[f][i] = expected.size() + 0.1;
            expected.push_back(fields[f][i]);
        }
    camera.K_inv[0] = 1.0 / 3.0;  // no single-precision recomputation gives it exactly
    camera.P[5] = 16777217.0;     // 2^24 + 1: a tie, rounds to even (2^24)
    expected[33] = 1.0 / 3.0;
    expected[5] = 16777216.0;
    mycamera_cuda narrow;
    std::memset(&narrow, 0xff, sizeof narrow);
    toCameraCuda(narrow, camera);
    float flat[46];
    std::memcpy(flat, &narrow, sizeof flat);
    for (int i = 0; i < 46; ++i) EXPECT_EQ(flat[i], static_cast<float>(expected[i])) << "position " << i;
    EXPECT_EQ(flat[21], static_cast<float>(camera.t[0]));
    EXPECT_EQ(flat[42], static_cast<float>(camera.fx));
}

}  // namespace
