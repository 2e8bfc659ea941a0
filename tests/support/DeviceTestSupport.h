// Test support for the device module: run a test on every backend present
// (the CPU always, CUDA when a device answers), and build cameras without
// OpenCV so that the device tests run on a GPU machine as they are.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "ProgramCUDA.h"

namespace tessaline::test {

inline std::vector<DeviceBackend> availableBackends() {
    std::vector<DeviceBackend> v{DeviceBackend::Cpu};
    if (cudaDeviceAvailable()) v.push_back(DeviceBackend::Cuda);
    return v;
}

inline std::string backendParamName(const ::testing::TestParamInfo<DeviceBackend>& info) {
    return deviceBackendName(info.param);
}

// Fixture base: the test body runs with the parameter's backend active.
class OnEachBackend : public ::testing::TestWithParam<DeviceBackend> {
   protected:
    void SetUp() override { ASSERT_TRUE(setActiveDeviceBackend(GetParam())); }
    void TearDown() override { setActiveDeviceBackend(DeviceBackend::Cpu); }
};

// What `call` prints on standard output.
template <class Call>
std::string printedBy(const Call& call) {
    ::testing::internal::CaptureStdout();
    call();
    return ::testing::internal::GetCapturedStdout();
}

// A wrapper's refusal of its arguments: one line, "Error: <wrapper>...".
inline bool isRefusal(const std::string& printed, const std::string& wrapper) {
    return printed.rfind("Error: " + wrapper, 0) == 0 && printed.find('\n') + 1 == printed.size();
}

// The z-buffer of a mesh in a W x H camera, rendered from cleared buffers.
struct ZRender {
    std::vector<float> depth, b, c;
    std::vector<int> facet;
};

inline ZRender zbuffer(const std::vector<float>& v, const std::vector<int>& f, const mycamera_cuda& cam, int W,
                       int H) {
    const size_t n = size_t(W) * H;
    ZRender r{std::vector<float>(n, std::numeric_limits<float>::max()), std::vector<float>(n, -1.0f),
              std::vector<float>(n, -1.0f), std::vector<int>(n, -1)};
    TriMesh_Image_ZBuffering_CUDA(int(v.size() / 3), v.data(), int(f.size() / 3), f.data(), cam, 0, 0, W, H,
                                  r.depth.data(), r.facet.data(), r.b.data(), r.c.data());
    return r;
}

// A camera at `centre` looking at `target` with `up` roughly up in the image
// (image rows grow downward), intrinsics fx, fy, cx, cy; P = K [R | t]
// computed in double and narrowed, as the host does.
inline mycamera_cuda lookAtCamera(const double centre[3], const double target[3], const double up[3], double fx,
                                  double fy, double cx, double cy) {
    auto norm = [](double v[3]) {
        const double l = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
        for (int k = 0; k < 3; ++k) v[k] /= l;
    };
    auto cross = [](const double a[3], const double b[3], double o[3]) {
        o[0] = a[1] * b[2] - a[2] * b[1];
        o[1] = a[2] * b[0] - a[0] * b[2];
        o[2] = a[0] * b[1] - a[1] * b[0];
    };
    double z[3] = {target[0] - centre[0], target[1] - centre[1], target[2] - centre[2]};
    norm(z);
    double x[3];
    cross(z, up, x);  // image x to the right, y = z cross x down the rows
    norm(x);
    double y[3];
    cross(z, x, y);
    double R[9] = {x[0], x[1], x[2], y[0], y[1], y[2], z[0], z[1], z[2]};
    double t[3];
    for (int r = 0; r < 3; ++r) t[r] = -(R[3 * r] * centre[0] + R[3 * r + 1] * centre[1] + R[3 * r + 2] * centre[2]);
    const double K[9] = {fx, 0, cx, 0, fy, cy, 0, 0, 1};
    double P[12];
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c) {
            double s = 0;
            for (int k = 0; k < 3; ++k) s += K[3 * r + k] * (c < 3 ? R[3 * k + c] : t[k]);
            P[4 * r + c] = s;
        }
    const double Kinv[9] = {1 / fx, 0, -cx / fx, 0, 1 / fy, -cy / fy, 0, 0, 1};
    mycamera_cuda cam;
    for (int i = 0; i < 12; ++i) cam.P[i] = float(P[i]);
    for (int i = 0; i < 9; ++i) cam.R[i] = float(R[i]), cam.K[i] = float(K[i]), cam.K_inv[i] = float(Kinv[i]);
    for (int i = 0; i < 3; ++i) cam.t[i] = float(t[i]);
    cam.fx = float(fx), cam.fy = float(fy), cam.cx = float(cx), cam.cy = float(cy);
    return cam;
}

}  // namespace tessaline::test

#define TESSALINE_INSTANTIATE_ON_BACKENDS(Suite)                                                  \
    INSTANTIATE_TEST_SUITE_P(Backends, Suite, ::testing::ValuesIn(tessaline::test::availableBackends()), \
                             tessaline::test::backendParamName)
