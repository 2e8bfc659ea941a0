// Test support for the device module: run a test on every backend present
// (the CPU always, CUDA when a device answers), and build cameras and meshes
// without OpenCV so that the device tests run on a GPU machine as they are.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "ProgramCUDA.h"
#include "ProgramCUDA_library.h"
#include "ProgramCUDA_optimization.h"

// Readable test names and failure messages for the module's plain types.
inline void PrintTo(const DeviceHandle& device, std::ostream* os) {
    *os << deviceBackendName(device.backend);
    if (device.backend == DeviceBackend::Cuda) *os << " " << device.cudaDevice;
}

inline void PrintTo(DeviceStatus status, std::ostream* os) {
    *os << (status == DeviceStatus::Ok ? "Ok" : status == DeviceStatus::Refused ? "Refused" : "Failed");
}

namespace tessaline::test {

// The devices a test runs on: the CPU backend always, CUDA device 0 when one
// answers.
inline std::vector<DeviceHandle> availableDevices() {
    std::vector<DeviceHandle> v{cpuDevice()};
    if (cudaDeviceAvailable()) v.push_back(cudaDevice());
    return v;
}

inline std::string deviceParamName(const ::testing::TestParamInfo<DeviceHandle>& info) {
    return deviceBackendName(info.param.backend);
}

// Fixture base: the test body runs on the parameter's device, `device()`.
class OnEachBackend : public ::testing::TestWithParam<DeviceHandle> {
   protected:
    const DeviceHandle& device() const { return GetParam(); }
};

template <class T>
bool sameBits(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0);
}

// What `call` prints on standard output.
template <class Call>
std::string printedBy(const Call& call) {
    ::testing::internal::CaptureStdout();
    call();
    return ::testing::internal::GetCapturedStdout();
}

// An entry point's refusal of its arguments, as printed: one line,
// "Error: <entry>...".
inline bool isRefusal(const std::string& printed, const std::string& entry) {
    return printed.rfind("Error: " + entry, 0) == 0 && printed.find('\n') + 1 == printed.size();
}

// `call` must return DeviceStatus::Refused and print the refusal of `entry`.
inline void expectRefused(const std::string& entry, const std::function<DeviceStatus()>& call) {
    DeviceStatus status = DeviceStatus::Ok;
    const std::string printed = printedBy([&] { status = call(); });
    EXPECT_EQ(status, DeviceStatus::Refused) << entry << ": " << printed;
    EXPECT_TRUE(isRefusal(printed, entry)) << printed;
}

// The z-buffer of a mesh in a W x H camera.
struct ZRender {
    std::vector<float> depth, b, c;
    std::vector<int> facet;
};

// Renders the whole W x H image of `cam` into cleared depths and facets, and
// weights b0 and c0; the call must succeed.
inline ZRender zbuffer(const DeviceHandle& device, const std::vector<float>& v, const std::vector<int>& f,
                       const mycamera_cuda& cam, int W, int H, float b0 = -1.0f, float c0 = -1.0f) {
    const size_t n = size_t(W) * H;
    ZRender r{std::vector<float>(n, std::numeric_limits<float>::max()), std::vector<float>(n, b0),
              std::vector<float>(n, c0), std::vector<int>(n, -1)};
    EXPECT_EQ(TriMesh_Image_ZBuffering_CUDA(device, ZBufferArgs{int(v.size() / 3), v.data(), int(f.size() / 3),
                                                                f.data(), cam, 0, 0, W, H, r.depth.data(),
                                                                r.facet.data(), r.b.data(), r.c.data()}),
              DeviceStatus::Ok);
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

// Camera at the origin looking along +z: R = I, t = 0.
inline mycamera_cuda frontCamera(double f, double cx, double cy) {
    const double c[3] = {0, 0, 0}, target[3] = {0, 0, 1}, up[3] = {0, -1, 0};
    return lookAtCamera(c, target, up, f, f, cx, cy);
}

// `count` random facets of three vertices of their own, appended to v and f,
// before frontCamera: each about a centre within +-spreadX, +-spreadY of the
// axis at unit depth and at a depth in [zLo, zHi) (whole depths where `ties`,
// so that many facets tie), its corners within +-size of it at unit depth and
// +-jitter in depth.
inline void addRandomFacets(std::mt19937& rng, int count, float spreadX, float spreadY, float size, float zLo,
                            float zHi, float jitter, bool ties, std::vector<float>& v, std::vector<int>& f) {
    std::uniform_real_distribution<float> U(-1.0f, 1.0f), Z(zLo, zHi);
    for (int t = 0; t < count; ++t) {
        const float cx = spreadX * U(rng), cy = spreadY * U(rng), cz = ties ? float(int(Z(rng))) : Z(rng);
        for (int k = 0; k < 3; ++k) {
            const float x = (cx + size * U(rng)) * cz, y = (cy + size * U(rng)) * cz;
            v.insert(v.end(), {x, y, jitter > 0.0f ? cz + jitter * U(rng) : cz});
            f.push_back(int(v.size() / 3) - 1);
        }
    }
}

}  // namespace tessaline::test

#define TESSALINE_INSTANTIATE_ON_BACKENDS(Suite)                                                 \
    INSTANTIATE_TEST_SUITE_P(Backends, Suite, ::testing::ValuesIn(tessaline::test::availableDevices()), \
                             tessaline::test::deviceParamName)
