// Camera model: derived matrices, scaling to a level, narrowing to
// the device record, projection and camera centre.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "mycamera.h"

namespace {

using Dv = std::vector<double>;

const double kIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
// A rotation with no zero entry (rows (1, -4, 8), (8, 4, 1), (-4, 7, 4) over 9).
const double kTurned[9] = {1 / 9.0, -4 / 9.0, 8 / 9.0, 8 / 9.0, 4 / 9.0, 1 / 9.0, -4 / 9.0, 7 / 9.0, 4 / 9.0};

// Pose and intrinsics as given; K, K_inv and P built from them.
mycamera makeCamera(const double R[9], const Dv& t, double fx, double fy, double cx, double cy) {
    mycamera camera;
    std::memcpy(camera.R, R, sizeof camera.R);
    std::copy(t.begin(), t.end(), camera.t);
    camera.fx = fx, camera.fy = fy, camera.cx = cx, camera.cy = cy;
    updateIntrinsicMatrices(camera);
    updateProjectionMatrix(camera);
    return camera;
}

TEST(Camera, ScalingScalesAllFourAndRebuildsKKInvAndPButKeepsThePose) {
    const mycamera before = makeCamera(kTurned, {0.3, -0.7, 4.5}, 1520.4, 1525.9, 302.32, 246.87);
    mycamera camera = before;
    const double s = 0.25;
    scaleCameraToLevel(camera, s);
    // The principal point is scaled like the focal lengths, with no half-pixel shift.
    EXPECT_EQ(Dv({camera.fx, camera.fy, camera.cx, camera.cy}), Dv({1520.4 * s, 1525.9 * s, 302.32 * s, 246.87 * s}));
    EXPECT_EQ(Dv(camera.K, camera.K + 9), Dv({1520.4 * s, 0, 302.32 * s, 0, 1525.9 * s, 246.87 * s, 0, 0, 1}));
    EXPECT_EQ(std::memcmp(camera.R, before.R, sizeof camera.R), 0);
    EXPECT_EQ(std::memcmp(camera.t, before.t, sizeof camera.t), 0);
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c) {
            double kkinv = 0, krt = 0;  // (K K_inv)[r][c] and (K [R | t])[r][c]
            for (int k = 0; k < 3; ++k) {
                if (c < 3) kkinv += camera.K[r * 3 + k] * camera.K_inv[k * 3 + c];
                krt += camera.K[r * 3 + k] * (c < 3 ? camera.R[k * 3 + c] : camera.t[k]);
            }
            if (c < 3) {
                EXPECT_NEAR(kkinv, r == c ? 1.0 : 0.0, 1e-12) << "K K_inv " << r << "," << c;
            }
            EXPECT_NEAR(camera.P[r * 4 + c], krt, 1e-12 * (std::fabs(krt) + 1)) << "P " << r << "," << c;
        }
}

TEST(Camera, ProjectionDividesByDepthAndGivesNothingForPointsNotInFront) {
    const mycamera camera = makeCamera(kIdentity, {0, 0, 5}, 1000, 900, 640, 480);
    const double origin[3] = {0, 0, 0}, X[3] = {2, 1, 5};
    double u = -7, v = -7;
    ASSERT_TRUE(projectPoint(camera, origin, u, v));
    EXPECT_EQ(Dv({u, v}), Dv({640, 480}));
    // At depth 10, two units along x move 2 fx / 10 columns; one along y, fy / 10 rows.
    ASSERT_TRUE(projectPoint(camera, X, u, v));
    EXPECT_EQ(Dv({u, v}), Dv({640 + 2000 / 10, 480 + 900 / 10}));
    for (const double z : {-6.0, -5.0, std::nan("")}) {  // behind, at and NaN depth
        const double Y[3] = {0.1, 0.2, z};
        u = 123, v = 456;
        EXPECT_FALSE(projectPoint(camera, Y, u, v)) << z;
        EXPECT_EQ(Dv({u, v}), Dv({123, 456})) << "untouched";
    }
}

TEST(Camera, CentreIsMinusRTransposeT) {
    const mycamera camera = makeCamera(kTurned, {0.3, -0.7, 4.5}, 1, 1, 0, 0);
    double C[3];
    cameraCentre(camera, C);
    for (int r = 0; r < 3; ++r)  // R C + t = 0
        EXPECT_NEAR(camera.R[r * 3] * C[0] + camera.R[r * 3 + 1] * C[1] + camera.R[r * 3 + 2] * C[2] + camera.t[r],
                    0.0, 1e-12);
}

TEST(Camera, NarrowingKeepsTheOrderOfThe46ValuesAndRoundsToNearest) {
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
    camera.K_inv[0] = expected[33] = 1.0 / 3.0;  // no single-precision recomputation gives it exactly
    camera.P[5] = 16777217.0;                     // 2^24 + 1: a tie, rounds to even (2^24)
    expected[5] = 16777216.0;
    mycamera_cuda narrow;
    std::memset(&narrow, 0xff, sizeof narrow);
    toCameraCuda(narrow, camera);
    float flat[46];
    std::memcpy(flat, &narrow, sizeof flat);
    for (int i = 0; i < 46; ++i) EXPECT_EQ(flat[i], static_cast<float>(expected[i])) << "position " << i;
}

}  // namespace
