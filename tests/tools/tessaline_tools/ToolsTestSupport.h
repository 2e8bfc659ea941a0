// Test support for tessaline_tools: a ring of cameras around a cube written
// as a COLMAP model in either format, photographs and meshes on disk.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "../../scene/SceneTestSupport.h"
#include "ColmapModel.h"
#include "ImportScene.h"
#include "ToolError.h"

namespace tools_test {

namespace fs = std::filesystem;
using namespace tessaline_tools;
using scene_test::printedBy;
using scene_test::readFile;
using scene_test::TempFolder;
using scene_test::writeFile;

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

inline void writeGreyImage(const fs::path& p, int w, int h) {
    fs::create_directories(p.parent_path());
    cv::Mat img(h, w, CV_8U);
    cv::randu(img, 0, 255);
    cv::imwrite(p.string(), img);
}

// A cube of side 2 * half centred on the origin, facets facing outwards, as
// ASCII PLY with six quads.
inline std::string cubePly(const std::string& half = "0.5") {
    std::string corners;
    for (int i : {0, 1, 3, 2, 4, 5, 7, 6})
        for (int a = 0; a < 3; ++a) corners += ((i >> a) & 1 ? "" : "-") + half + (a < 2 ? " " : "\n");
    return "ply\nformat ascii 1.0\nelement vertex 8\nproperty float x\nproperty float y\nproperty float z\n"
           "element face 6\nproperty list uchar int vertex_indices\nend_header\n" + corners +
           "4 0 3 2 1\n4 4 5 6 7\n4 0 1 5 4\n4 2 3 7 6\n4 1 2 6 5\n4 0 4 7 3\n";
}

// `n` photographs of 160x120 pixels around the origin, each turned by its own
// quaternion (w, x, y, z) and set back 4 along its axis; pixel centres at
// integers. Camera 0 has one focal length.
struct RingScene {
    std::vector<mycamera> cameras;
    std::vector<std::array<double, 4>> q;
    std::vector<std::string> names;
    int width = 160, height = 120;
};

inline RingScene makeRingScene(int n) {
    RingScene s;
    for (int i = 0; i < n; ++i) {
        const double a = M_PI * i / n;
        std::array<double, 4> q = {std::cos(a), 0.1 * std::sin(i + 1.0), std::sin(a), 0.05 * (i + 1)};
        const double l = std::hypot(q[0], q[1], std::hypot(q[2], q[3]));
        for (double& v : q) v /= l;
        const double w = q[0], x = q[1], y = q[2], z = q[3];
        mycamera c;
        const double R[9] = {1 - 2 * (y * y + z * z), 2 * (x * y - w * z), 2 * (x * z + w * y),
                             2 * (x * y + w * z), 1 - 2 * (x * x + z * z), 2 * (y * z - w * x),
                             2 * (x * z - w * y), 2 * (y * z + w * x), 1 - 2 * (x * x + y * y)};
        std::copy(R, R + 9, c.R);
        c.t[0] = 0.05 * i, c.t[1] = -0.03 * i, c.t[2] = 4;
        c.fx = 200 + i, c.fy = i ? 201 + i : c.fx, c.cx = 79.25 + 0.1 * i, c.cy = 59.5 - 0.1 * i;
        updateIntrinsicMatrices(c);
        updateProjectionMatrix(c);
        s.cameras.push_back(c), s.q.push_back(q), s.names.push_back("view0" + std::to_string(i) + ".png");
    }
    return s;
}

// The COLMAP model of a ring scene, in COLMAP's conventions, with points on a
// sphere of radius 0.5 seen by every camera that faces them, except camera
// `blind`, which has no keypoints.
inline ColmapModel ringToColmap(const RingScene& s, size_t blind = size_t(-1)) {
    ColmapModel m;
    for (size_t i = 0; i < s.cameras.size(); ++i) {
        const mycamera& c = s.cameras[i];
        ColmapCamera cam{uint32_t(10 + i), c.fx == c.fy ? 0 : 1, uint64_t(s.width), uint64_t(s.height),
                         {c.fx, c.fy, c.cx + 0.5, c.cy + 0.5}};
        if (cam.modelId == 0) cam.params.erase(cam.params.begin());  // SIMPLE_PINHOLE
        m.cameras[cam.id] = cam;
        ColmapImage im;
        im.id = uint32_t(100 + i), im.cameraId = cam.id, im.name = s.names[i];
        std::copy(s.q[i].begin(), s.q[i].end(), im.q);
        std::copy(c.t, c.t + 3, im.t);
        m.images.push_back(im);
    }
    for (int j = 0; j < 60; ++j) {
        const double th = 2.39996 * j, zc = 1 - 2 * (j + 0.5) / 60, r = std::sqrt(1 - zc * zc);
        ColmapPoint3D p;
        p.id = uint64_t(1000 + j);
        p.xyz[0] = 0.5 * r * std::cos(th), p.xyz[1] = 0.5 * zc, p.xyz[2] = 0.5 * r * std::sin(th);
        for (size_t i = 0; i < s.cameras.size(); ++i) {
            double C[3], u, v;
            cameraCentre(s.cameras[i], C);
            if (i == blind || (C[0] * p.xyz[0] + C[1] * p.xyz[1] + C[2] * p.xyz[2]) <= 0) continue;  // faces away
            projectPoint(s.cameras[i], p.xyz, u, v);
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
    for (const ColmapImage& im : m.images) {
        ims << im.id << ' ' << im.q[0] << ' ' << im.q[1] << ' ' << im.q[2] << ' ' << im.q[3] << ' ' << im.t[0] << ' '
            << im.t[1] << ' ' << im.t[2] << ' ' << im.cameraId << ' ' << im.name << '\n';
        for (size_t k = 0; k < im.points2D.size(); ++k)
            ims << (k ? " " : "") << im.points2D[k].x << ' ' << im.points2D[k].y << ' ' << im.points2D[k].point3DId;
        ims << '\n';
    }
    for (const ColmapPoint3D& p : m.points) {
        pts << p.id << ' ' << p.xyz[0] << ' ' << p.xyz[1] << ' ' << p.xyz[2] << " 1 2 3 " << p.error;
        for (const auto& el : p.track) pts << ' ' << el.imageId << ' ' << el.point2DIdx;
        pts << '\n';
    }
    writeFile(dir / "cameras.txt", cams.str());
    writeFile(dir / "images.txt", ims.str());
    writeFile(dir / "points3D.txt", pts.str());
}

// Little-endian records, as the binary model files hold them.
struct Bytes {
    std::string s;
    template <class... T>
    Bytes& put(T... v) {
        (s.append(reinterpret_cast<const char*>(&v), sizeof v), ...);
        return *this;
    }
};

inline void writeColmapBinary(const ColmapModel& m, const fs::path& dir) {
    Bytes cams, ims, pts;
    cams.put(uint64_t(m.cameras.size()));
    for (const auto& [id, c] : m.cameras) {
        cams.put(int32_t(id), int32_t(c.modelId), c.width, c.height);
        for (double p : c.params) cams.put(p);
    }
    ims.put(uint64_t(m.images.size()));
    for (const ColmapImage& im : m.images) {
        ims.put(im.id, im.q[0], im.q[1], im.q[2], im.q[3], im.t[0], im.t[1], im.t[2], im.cameraId).s += im.name + '\0';
        ims.put(uint64_t(im.points2D.size()));
        for (const auto& ob : im.points2D) ims.put(ob.x, ob.y, ob.point3DId);
    }
    pts.put(uint64_t(m.points.size()));
    for (const ColmapPoint3D& p : m.points) {
        pts.put(p.id, p.xyz[0], p.xyz[1], p.xyz[2], uint8_t(1), uint8_t(2), uint8_t(3), p.error);
        pts.put(uint64_t(p.track.size()));
        for (const auto& el : p.track) pts.put(el.imageId, el.point2DIdx);
    }
    writeFile(dir / "cameras.bin", cams.s);
    writeFile(dir / "images.bin", ims.s);
    writeFile(dir / "points3D.bin", pts.s);
}

// A complete import input: a ring model, its photographs and the cube, under
// one temporary folder.
struct ImportFixture {
    TempFolder dir;
    RingScene ring = makeRingScene(6);
    ColmapModel model = ringToColmap(ring);
    ImportOptions options;

    ImportFixture() {
        options.modelDir = (dir / "model").string();
        options.imageDir = (dir / "images").string();
        options.meshPath = (dir / "cube.ply").string();
        options.outDir = (dir / "out").string();
        for (const std::string& n : ring.names) writeGreyImage(dir / "images" / n, ring.width, ring.height);
        writeFile(dir / "cube.ply", cubePly());
    }
    void writeModel(bool binary) {
        fs::remove_all(dir / "model");
        binary ? writeColmapBinary(model, dir / "model") : writeColmapText(model, dir / "model");
    }
    // Runs the import; returns the error message, or "" on success.
    std::string import() {
        return errorMessage([&] { runImport(options); });
    }
};

}  // namespace tools_test
