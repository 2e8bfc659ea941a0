#include "SynthColmap.h"

#include <algorithm>
#include <cmath>
#include <locale>
#include <sstream>
#include <vector>

#include "MeshRayCaster.h"

namespace tessaline::synth {

namespace {

// About this many of the truth's vertices become points of the model.
constexpr size_t kModelPoints = 1500;

std::ostringstream numberStream() {
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out.precision(17);
    return out;
}

// Where camera `c` sees point X through the distortion, in COLMAP's pixel
// convention; false behind the camera, hidden, or outside the photograph.
bool observe(const SynthScene& scene, const MeshRayCaster& caster, const mycamera& c, const double X[3], double& u,
             double& v) {
    double x[3], C[3], dir[3];
    for (int r = 0; r < 3; ++r) x[r] = c.R[3 * r] * X[0] + c.R[3 * r + 1] * X[1] + c.R[3 * r + 2] * X[2] + c.t[r];
    if (!(x[2] > 0)) return false;
    ::cameraCentre(c, C);
    for (int a = 0; a < 3; ++a) dir[a] = X[a] - C[a];
    // A ray of the direction's own length reaches X at distance 1.
    const RayHit hit = castRay(caster, C, dir);
    if (hit.hit && hit.distance < 1.0 - 1e-6) return false;
    double xd, yd;
    distortNormalised(scene.distortion, x[0] / x[2], x[1] / x[2], xd, yd);
    u = c.fx * xd + c.cx + 0.5;
    v = c.fy * yd + c.cy + 0.5;
    return u >= 0.5 && v >= 0.5 && u <= scene.options.width - 0.5 && v <= scene.options.height - 0.5;
}

std::string camerasText(const SynthScene& scene) {
    const mycamera& c = scene.cameras[0];
    tessaline_tools::LensCamera lens;
    lens.fx = c.fx, lens.fy = c.fy, lens.cx = c.cx + 0.5, lens.cy = c.cy + 0.5, lens.distortion = scene.distortion;
    std::ostringstream out = numberStream();
    out << "# Camera list with one line of data per camera:\n#   CAMERA_ID, MODEL, WIDTH, HEIGHT, PARAMS[]\n";
    out << "1 " << scene.options.lensModel << ' ' << scene.options.width << ' ' << scene.options.height;
    for (double p : tessaline_tools::lensParameters(scene.options.lensModel, lens)) out << ' ' << p;
    out << "\n";
    return out.str();
}

}  // namespace

tessaline_tools::LensDistortion synthDistortion(const std::string& lensModel, double strength) {
    tessaline_tools::LensDistortion d;
    if (lensModel == "SIMPLE_RADIAL") d.k1 = 0.6;
    if (lensModel == "RADIAL") d.k1 = 0.5, d.k2 = 0.4;
    if (lensModel == "OPENCV") d.k1 = -0.3, d.k2 = 0.45, d.p1 = 0.012, d.p2 = -0.009;
    if (lensModel == "FULL_OPENCV")
        d.k1 = 0.3, d.k2 = 0.15, d.p1 = -0.006, d.p2 = 0.009, d.k3 = 0.03, d.k4 = -0.3, d.k5 = 0.06;
    for (double* k : {&d.k1, &d.k2, &d.p1, &d.p2, &d.k3, &d.k4, &d.k5, &d.k6}) *k *= strength;
    return d;
}

bool lensPixelRay(const mycamera& camera, const tessaline_tools::LensDistortion& distortion, double x, double y,
                  double direction[3]) {
    if (distortion.isZero()) {
        pixelRay(camera, x, y, direction);
        return true;
    }
    double c[3] = {0, 0, 1.0};
    if (!undistortNormalised(distortion, (x - camera.cx) / camera.fx, (y - camera.cy) / camera.fy, c[0], c[1]))
        return false;
    for (int a = 0; a < 3; ++a)
        direction[a] = camera.R[a] * c[0] + camera.R[3 + a] * c[1] + camera.R[6 + a] * c[2];
    const double n = std::sqrt(direction[0] * direction[0] + direction[1] * direction[1] + direction[2] * direction[2]);
    for (int a = 0; a < 3; ++a) direction[a] /= n;
    return true;
}

void rotationToQuaternion(const double R[9], double q[4]) {
    // Shepperd's method: divide by the largest of the four candidates.
    const double trace = R[0] + R[4] + R[8];
    const double cand[4] = {1 + trace, 1 + R[0] - R[4] - R[8], 1 - R[0] + R[4] - R[8], 1 - R[0] - R[4] + R[8]};
    const int k = int(std::max_element(cand, cand + 4) - cand);
    const double s = 0.5 / std::sqrt(cand[k]);
    if (k == 0) q[0] = 0.25 / s, q[1] = (R[7] - R[5]) * s, q[2] = (R[2] - R[6]) * s, q[3] = (R[3] - R[1]) * s;
    if (k == 1) q[0] = (R[7] - R[5]) * s, q[1] = 0.25 / s, q[2] = (R[1] + R[3]) * s, q[3] = (R[2] + R[6]) * s;
    if (k == 2) q[0] = (R[2] - R[6]) * s, q[1] = (R[1] + R[3]) * s, q[2] = 0.25 / s, q[3] = (R[5] + R[7]) * s;
    if (k == 3) q[0] = (R[3] - R[1]) * s, q[1] = (R[2] + R[6]) * s, q[2] = (R[5] + R[7]) * s, q[3] = 0.25 / s;
    if (q[0] < 0)
        for (int a = 0; a < 4; ++a) q[a] = -q[a];
}

ColmapText colmapModelText(const SynthScene& scene) {
    MeshRayCaster caster;
    buildRayCaster(caster, scene.truth);
    const size_t n = scene.cameras.size();
    std::vector<std::ostringstream> keypoints(n);
    std::vector<size_t> keypointCount(n, 0);
    std::ostringstream points = numberStream();
    points << "# 3D point list with one line of data per point:\n"
              "#   POINT3D_ID, X, Y, Z, R, G, B, ERROR, TRACK[] as (IMAGE_ID, POINT2D_IDX)\n";
    const size_t stride = std::max<size_t>(1, size_t(scene.truth.num_v) / kModelPoints);
    for (size_t vertex = 0, id = 1; vertex < size_t(scene.truth.num_v); vertex += stride) {
        const double X[3] = {scene.truth.vertices[3 * vertex], scene.truth.vertices[3 * vertex + 1],
                             scene.truth.vertices[3 * vertex + 2]};
        std::vector<std::pair<size_t, std::pair<double, double>>> track;
        for (size_t i = 0; i < n; ++i) {
            double u, v;
            if (observe(scene, caster, scene.cameras[i], X, u, v)) track.push_back({i, {u, v}});
        }
        if (track.size() < 2) continue;
        points << id << ' ' << X[0] << ' ' << X[1] << ' ' << X[2] << " 128 128 128 0";
        for (const auto& [i, uv] : track) {
            if (keypointCount[i] == 0) keypoints[i] = numberStream();
            keypoints[i] << (keypointCount[i] ? " " : "") << uv.first << ' ' << uv.second << ' ' << id;
            points << ' ' << i + 1 << ' ' << keypointCount[i]++;
        }
        points << "\n";
        ++id;
    }
    std::ostringstream images = numberStream();
    images << "# Image list with two lines of data per image:\n"
              "#   IMAGE_ID, QW, QX, QY, QZ, TX, TY, TZ, CAMERA_ID, NAME\n#   POINTS2D[] as (X, Y, POINT3D_ID)\n";
    for (size_t i = 0; i < n; ++i) {
        double q[4];
        rotationToQuaternion(scene.cameras[i].R, q);
        images << i + 1 << ' ' << q[0] << ' ' << q[1] << ' ' << q[2] << ' ' << q[3];
        for (double t : scene.cameras[i].t) images << ' ' << t + 0.0;
        images << " 1 " << scene.imageNames[i] << "\n" << keypoints[i].str() << "\n";
    }
    return {camerasText(scene), images.str(), points.str()};
}

}  // namespace tessaline::synth
