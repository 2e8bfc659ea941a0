// Test support for tessaline_tools: temporary folders, COLMAP models written
// in either format from records, a hand-built ring of cameras around a cube,
// photographs and meshes on disk.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "ColmapModel.h"
#include "ImportScene.h"
#include "ToolError.h"

namespace tools_test {

namespace fs = std::filesystem;
using namespace tessaline_tools;

inline fs::path realDataDir() { return fs::path(TESSALINE_SOURCE_DIR) / ".." / "shared" / "data" / "templeSparseRing"; }

#define SKIP_WITHOUT_REAL_DATA()                                                              \
    if (!fs::exists(realDataDir() / "colmap" / "sparse" / "0" / "images.bin"))               \
        GTEST_SKIP() << "real data not found under " << realDataDir()

// The message of the ToolError that `f` throws, or "" when it succeeds.
template <class F>
std::string errorMessage(F&& f) {
    try {
        f();
    } catch (const ToolError& e) {
        return e.what();
    }
    return "";
}

class TempDir {
   public:
    TempDir() {
        char name[] = "/tmp/tessaline_tools_test.XXXXXX";
        path_ = mkdtemp(name);
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    fs::path operator/(const std::string& s) const { return path_ / s; }
    const fs::path& path() const { return path_; }

   private:
    fs::path path_;
};

class ScopedCwd {
   public:
    explicit ScopedCwd(const fs::path& p) : old_(fs::current_path()) { fs::current_path(p); }
    ~ScopedCwd() { fs::current_path(old_); }

   private:
    fs::path old_;
};

inline void writeText(const fs::path& p, const std::string& s) {
    fs::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary) << s;
}

inline std::string readText(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Unit quaternion (w, x, y, z) of a rotation matrix (row by row).
inline void rotationToQuaternion(const double R[9], double q[4]) {
    const double tr = R[0] + R[4] + R[8];
    if (tr > 0) {
        const double s = 2 * std::sqrt(tr + 1);
        q[0] = s / 4, q[1] = (R[7] - R[5]) / s, q[2] = (R[2] - R[6]) / s, q[3] = (R[3] - R[1]) / s;
    } else if (R[0] > R[4] && R[0] > R[8]) {
        const double s = 2 * std::sqrt(1 + R[0] - R[4] - R[8]);
        q[0] = (R[7] - R[5]) / s, q[1] = s / 4, q[2] = (R[1] + R[3]) / s, q[3] = (R[2] + R[6]) / s;
    } else if (R[4] > R[8]) {
        const double s = 2 * std::sqrt(1 + R[4] - R[0] - R[8]);
        q[0] = (R[2] - R[6]) / s, q[1] = (R[1] + R[3]) / s, q[2] = s / 4, q[3] = (R[5] + R[7]) / s;
    } else {
        const double s = 2 * std::sqrt(1 + R[8] - R[0] - R[4]);
        q[0] = (R[3] - R[1]) / s, q[1] = (R[2] + R[6]) / s, q[2] = (R[5] + R[7]) / s, q[3] = s / 4;
    }
}

// The ground truth of a hand-built scene: the tool's cameras (pixel centres
// at integers) of `n` photographs on a ring of radius 4 around the origin,
// looking at it, 160x120 pixels. Camera 0 has one focal length.
struct RingScene {
    std::vector<mycamera> cameras;
    std::vector<std::string> names;
    int width = 160, height = 120;
};

inline RingScene makeRingScene(int n) {
    RingScene s;
    for (int i = 0; i < n; ++i) {
        const double a = 2 * M_PI * i / n, C[3] = {4 * std::cos(a), 0.6 * std::sin(2 * a) + 0.3, 4 * std::sin(a)};
        // z towards the origin, x along the ring, y = z cross x (down), then
        // a roll about z so that no rotation is a special one.
        double z[3] = {-C[0], -C[1], -C[2]};
        const double zl = std::sqrt(z[0] * z[0] + z[1] * z[1] + z[2] * z[2]);
        for (double& v : z) v /= zl;
        double x[3] = {-z[2], 0, z[0]};
        const double xl = std::sqrt(x[0] * x[0] + x[2] * x[2]);
        for (double& v : x) v /= xl;
        double y[3] = {z[1] * x[2] - z[2] * x[1], z[2] * x[0] - z[0] * x[2], z[0] * x[1] - z[1] * x[0]};
        const double roll = 0.15 * (i + 1), cr = std::cos(roll), sr = std::sin(roll);
        for (int k = 0; k < 3; ++k) {
            const double xk = x[k], yk = y[k];
            x[k] = cr * xk + sr * yk;
            y[k] = -sr * xk + cr * yk;
        }
        mycamera c;
        for (int k = 0; k < 3; ++k) c.R[k] = x[k], c.R[3 + k] = y[k], c.R[6 + k] = z[k];
        for (int r = 0; r < 3; ++r) c.t[r] = -(c.R[3 * r] * C[0] + c.R[3 * r + 1] * C[1] + c.R[3 * r + 2] * C[2]);
        c.fx = 200 + i, c.fy = i ? 201 + i : c.fx, c.cx = 79.25 + 0.1 * i, c.cy = 59.5 - 0.1 * i;
        updateIntrinsicMatrices(c);
        updateProjectionMatrix(c);
        s.cameras.push_back(c);
        char name[32];
        std::snprintf(name, sizeof name, "view%02d.png", i);
        s.names.push_back(name);
    }
    return s;
}

// The COLMAP model of a ring scene, in COLMAP's conventions, with points on a
// sphere of radius 0.5 seen by every camera that faces them.
inline ColmapModel ringToColmap(const RingScene& s, bool oneSharedCamera = false) {
    ColmapModel m;
    for (size_t i = 0; i < s.cameras.size(); ++i) {
        const mycamera& c = s.cameras[i];
        ColmapCamera cam;
        cam.id = uint32_t(oneSharedCamera ? 1 : 10 + i);
        cam.width = uint64_t(s.width), cam.height = uint64_t(s.height);
        cam.modelId = c.fx == c.fy ? 0 : 1;  // SIMPLE_PINHOLE or PINHOLE
        cam.params = {c.fx, c.fy, c.cx + 0.5, c.cy + 0.5};
        if (cam.modelId == 0) cam.params.erase(cam.params.begin());
        m.cameras[cam.id] = cam;
        ColmapImage im;
        im.id = uint32_t(100 + i);
        rotationToQuaternion(c.R, im.q);
        for (int k = 0; k < 3; ++k) im.t[k] = c.t[k];
        im.cameraId = cam.id;
        im.name = s.names[i];
        m.images.push_back(im);
    }
    for (int j = 0; j < 60; ++j) {
        const double th = 2.39996 * j, zc = 1 - 2 * (j + 0.5) / 60, r = std::sqrt(1 - zc * zc);
        ColmapPoint3D p;
        p.id = uint64_t(1000 + j);
        p.xyz[0] = 0.5 * r * std::cos(th), p.xyz[1] = 0.5 * zc, p.xyz[2] = 0.5 * r * std::sin(th);
        for (size_t i = 0; i < s.cameras.size(); ++i) {
            const mycamera& c = s.cameras[i];
            double C[3];
            cameraCentre(c, C);
            if ((C[0] * p.xyz[0] + C[1] * p.xyz[1] + C[2] * p.xyz[2]) <= 0) continue;  // faces away
            double u, v;
            projectPoint(c, p.xyz, u, v);
            ColmapImage& im = m.images[i];
            p.track.push_back({im.id, uint32_t(im.points2D.size())});
            im.points2D.push_back({u + 0.5, v + 0.5, int64_t(p.id)});
        }
        m.points.push_back(p);
    }
    return m;
}

inline void writeColmapText(const ColmapModel& m, const fs::path& dir) {
    std::ostringstream cams, ims, pts;
    cams.precision(17), ims.precision(17), pts.precision(17);
    cams << "# Camera list\n";
    for (const auto& [id, c] : m.cameras) {
        cams << id << ' ' << colmapCameraModelById(c.modelId)->name << ' ' << c.width << ' ' << c.height;
        for (double p : c.params) cams << ' ' << p;
        cams << '\n';
    }
    ims << "# Image list\n";
    for (const ColmapImage& im : m.images) {
        ims << im.id;
        for (double q : im.q) ims << ' ' << q;
        for (double t : im.t) ims << ' ' << t;
        ims << ' ' << im.cameraId << ' ' << im.name << '\n';
        for (size_t k = 0; k < im.points2D.size(); ++k)
            ims << (k ? " " : "") << im.points2D[k].x << ' ' << im.points2D[k].y << ' ' << im.points2D[k].point3DId;
        ims << '\n';
    }
    for (const ColmapPoint3D& p : m.points) {
        pts << p.id << ' ' << p.xyz[0] << ' ' << p.xyz[1] << ' ' << p.xyz[2] << " 1 2 3 " << p.error;
        for (const auto& el : p.track) pts << ' ' << el.imageId << ' ' << el.point2DIdx;
        pts << '\n';
    }
    writeText(dir / "cameras.txt", cams.str());
    writeText(dir / "images.txt", ims.str());
    writeText(dir / "points3D.txt", pts.str());
}

// Little-endian records, as the binary model files hold them.
struct Bytes {
    std::string s;
    template <class T>
    Bytes& put(T v) {
        char b[sizeof(T)];
        std::memcpy(b, &v, sizeof v);
        s.append(b, sizeof b);
        return *this;
    }
};

inline void writeColmapBinary(const ColmapModel& m, const fs::path& dir) {
    Bytes cams, ims, pts;
    cams.put<uint64_t>(m.cameras.size());
    for (const auto& [id, c] : m.cameras) {
        cams.put<int32_t>(int32_t(id)).put<int32_t>(c.modelId).put<uint64_t>(c.width).put<uint64_t>(c.height);
        for (double p : c.params) cams.put(p);
    }
    ims.put<uint64_t>(m.images.size());
    for (const ColmapImage& im : m.images) {
        ims.put<uint32_t>(im.id);
        for (double q : im.q) ims.put(q);
        for (double t : im.t) ims.put(t);
        ims.put<uint32_t>(im.cameraId);
        ims.s += im.name + '\0';
        ims.put<uint64_t>(im.points2D.size());
        for (const auto& ob : im.points2D) ims.put(ob.x).put(ob.y).put<int64_t>(ob.point3DId);
    }
    pts.put<uint64_t>(m.points.size());
    for (const ColmapPoint3D& p : m.points) {
        pts.put<uint64_t>(p.id).put(p.xyz[0]).put(p.xyz[1]).put(p.xyz[2]);
        pts.put<uint8_t>(1).put<uint8_t>(2).put<uint8_t>(3).put(p.error).put<uint64_t>(p.track.size());
        for (const auto& el : p.track) pts.put<uint32_t>(el.imageId).put<uint32_t>(el.point2DIdx);
    }
    writeText(dir / "cameras.bin", cams.s);
    writeText(dir / "images.bin", ims.s);
    writeText(dir / "points3D.bin", pts.s);
}

inline void writeGreyImage(const fs::path& p, int w, int h) {
    fs::create_directories(p.parent_path());
    cv::Mat img(h, w, CV_8U);
    cv::randu(img, 0, 255);
    cv::imwrite(p.string(), img);
}

// A cube of side 1 centred on the origin, facets facing outwards, as ASCII PLY.
inline std::string cubePly() {
    return "ply\nformat ascii 1.0\nelement vertex 8\nproperty float x\nproperty float y\nproperty float z\n"
           "element face 6\nproperty list uchar int vertex_indices\nend_header\n"
           "-0.5 -0.5 -0.5\n0.5 -0.5 -0.5\n0.5 0.5 -0.5\n-0.5 0.5 -0.5\n"
           "-0.5 -0.5 0.5\n0.5 -0.5 0.5\n0.5 0.5 0.5\n-0.5 0.5 0.5\n"
           "4 0 3 2 1\n4 4 5 6 7\n4 0 1 5 4\n4 2 3 7 6\n4 1 2 6 5\n4 0 4 7 3\n";
}

// A complete import input: a ring model in `format`, its photographs and the
// cube, under one temporary folder.
struct ImportFixture {
    TempDir dir;
    RingScene ring = makeRingScene(6);
    ColmapModel model = ringToColmap(ring);
    ImportOptions options;

    ImportFixture() {
        options.modelDir = (dir / "model").string();
        options.imageDir = (dir / "images").string();
        options.meshPath = (dir / "cube.ply").string();
        options.outDir = (dir / "out").string();
        for (const std::string& n : ring.names) writeGreyImage(dir / "images" / n, ring.width, ring.height);
        writeText(dir / "cube.ply", cubePly());
    }
    void writeModel(bool binary) {
        fs::remove_all(dir / "model");
        fs::create_directories(dir / "model");
        binary ? writeColmapBinary(model, dir / "model") : writeColmapText(model, dir / "model");
    }
    // Runs the import; returns the error message, or "" on success.
    std::string import() {
        return errorMessage([&] { runImport(options); });
    }
    bool outputWritten() const { return fs::exists(fs::path(options.outDir)); }
};

}  // namespace tools_test
