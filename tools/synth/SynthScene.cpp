#include "SynthScene.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <limits>
#include <sstream>

#include <opencv2/imgcodecs.hpp>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include "MeshRayCaster.h"
#include "SynthColmap.h"
#include "SynthShape.h"
#include "plyIO.h"

namespace fs = std::filesystem;

namespace tessaline::synth {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kAmbient = 0.35;
// Fixed light, from the surface towards the light, in world axes: above the
// camera rings and off to one side, so the relief shows in the shading.
const double kLight[3] = {0.45, -0.35, 0.82};
// Texture features at the finest octave span about this many pixels.
constexpr double kFinestTexturePixels = 3.0;

void cross(const double a[3], const double b[3], double out[3]) {
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
}

void normalise(double v[3]) {
    const double n = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    for (int a = 0; a < 3; ++a) v[a] /= n;
}

void meshBounds(const TriMesh& mesh, double lo[3], double hi[3]) {
    for (int a = 0; a < 3; ++a) {
        lo[a] = std::numeric_limits<double>::infinity();
        hi[a] = -std::numeric_limits<double>::infinity();
    }
    for (size_t i = 0; i < mesh.vertices.size(); i += 3)
        for (int a = 0; a < 3; ++a) {
            lo[a] = std::min(lo[a], double(mesh.vertices[i + a]));
            hi[a] = std::max(hi[a], double(mesh.vertices[i + a]));
        }
}

// Camera at `position` looking at `target`, with world +z up in the image:
// rows of R are right, down and forward, so that x_cam = R (X - position).
mycamera lookAt(const double position[3], const double target[3]) {
    double forward[3] = {target[0] - position[0], target[1] - position[1], target[2] - position[2]};
    normalise(forward);
    const double up[3] = {0.0, 0.0, 1.0};
    double right[3], down[3];
    cross(forward, up, right);
    normalise(right);
    cross(forward, right, down);
    mycamera cam;
    for (int a = 0; a < 3; ++a) {
        cam.R[a] = right[a];
        cam.R[3 + a] = down[a];
        cam.R[6 + a] = forward[a];
    }
    for (int r = 0; r < 3; ++r)
        cam.t[r] = -(cam.R[3 * r] * position[0] + cam.R[3 * r + 1] * position[1] + cam.R[3 * r + 2] * position[2]);
    return cam;
}

void toCameraFrame(const mycamera& cam, const float* X, double x[3]) {
    for (int r = 0; r < 3; ++r)
        x[r] = cam.R[3 * r] * X[0] + cam.R[3 * r + 1] * X[1] + cam.R[3 * r + 2] * X[2] + cam.t[r];
}

// Positions on the rings: azimuth steps of 360/N degrees; with two rings the
// cameras alternate between the upper and the lower ring.
std::vector<mycamera> ringCameras(const SynthOptions& o, const double centre[3], double distance) {
    std::vector<mycamera> cameras;
    for (int i = 0; i < o.views; ++i) {
        const double azimuth = 2.0 * kPi * i / o.views;
        const double elevation = (o.rings == 1 ? 25.0 : (i % 2 == 0 ? 40.0 : -10.0)) * kPi / 180.0;
        const double position[3] = {centre[0] + distance * std::cos(elevation) * std::cos(azimuth),
                                    centre[1] + distance * std::cos(elevation) * std::sin(azimuth),
                                    centre[2] + distance * std::sin(elevation)};
        cameras.push_back(lookAt(position, centre));
    }
    return cameras;
}

// One focal length for all cameras, the largest at which every vertex of
// every mesh projects at least `margin` pixels inside the image. A mesh's
// projection lies within the convex hull of its projected vertices, so the
// whole silhouette keeps the margin.
double framingFocalLength(const std::vector<mycamera>& cameras, const std::vector<const TriMesh*>& meshes,
                          double cx, double cy, double margin) {
    double focal = std::numeric_limits<double>::infinity();
    for (const mycamera& cam : cameras)
        for (const TriMesh* mesh : meshes)
            for (size_t i = 0; i < mesh->vertices.size(); i += 3) {
                double x[3];
                toCameraFrame(cam, &mesh->vertices[i], x);
                const double sx = std::abs(x[0] / x[2]), sy = std::abs(x[1] / x[2]);
                if (sx > 0.0) focal = std::min(focal, (cx - margin) / sx);
                if (sy > 0.0) focal = std::min(focal, (cy - margin) / sy);
            }
    return focal;
}

// What every pixel of one view needs.
struct ViewRender {
    const SynthShape& shape;
    const MeshRayCaster& caster;
    const TriMesh& truth;
    const std::vector<double>& normals;  // of the truth's vertices
    const mycamera& cam;
    const tessaline_tools::LensDistortion& distortion;
    double origin[3];  // the camera centre
    double light[3];   // unit vector towards the light
    int samples;       // rays per pixel along each axis
};

uint8_t shadePixel(const ViewRender& view, int x, int y) {
    const int s = view.samples;
    double sum = 0.0;
    for (int sy = 0; sy < s; ++sy)
        for (int sx = 0; sx < s; ++sx) {
            // Sub-pixel offsets are symmetric about the pixel centre (x, y).
            double dir[3];
            if (!lensPixelRay(view.cam, view.distortion, x + (sx + 0.5) / s - 0.5, y + (sy + 0.5) / s - 0.5, dir))
                continue;
            const RayHit hit = castRay(view.caster, view.origin, dir);
            if (!hit.hit) continue;
            double p[3];
            for (int a = 0; a < 3; ++a) p[a] = view.origin[a] + hit.distance * dir[a];
            // Normals interpolated from the vertices hide the facets, while
            // the relief the facets carry still shows in the shading.
            const int32_t* idx = &view.truth.facets[3 * size_t(hit.facet)];
            const double w[3] = {1.0 - hit.b - hit.c, hit.b, hit.c};
            double n[3] = {0.0, 0.0, 0.0};
            for (int k = 0; k < 3; ++k)
                for (int a = 0; a < 3; ++a) n[a] += w[k] * view.normals[3 * size_t(idx[k]) + a];
            normalise(n);
            const double lambert = std::max(0.0, n[0] * view.light[0] + n[1] * view.light[1] + n[2] * view.light[2]);
            sum += surfaceAlbedo(view.shape, p) * (kAmbient + (1.0 - kAmbient) * lambert);
        }
    const double grey = 255.0 * sum / (s * s);
    return uint8_t(std::clamp(std::lround(grey), 0L, 255L));
}

cv::Mat renderView(const SynthShape& shape, const MeshRayCaster& caster, const TriMesh& truth,
                   const std::vector<double>& normals, const mycamera& cam,
                   const tessaline_tools::LensDistortion& distortion, int width, int height, int samples) {
    ViewRender view{shape,     caster, truth, normals, cam, distortion, {0, 0, 0}, {kLight[0], kLight[1], kLight[2]},
                    samples};
    normalise(view.light);
    for (int a = 0; a < 3; ++a)
        view.origin[a] = -(cam.R[a] * cam.t[0] + cam.R[3 + a] * cam.t[1] + cam.R[6 + a] * cam.t[2]);
    cv::Mat image(height, width, CV_8UC1, cv::Scalar(0));
    // Rows are independent, so the number of threads cannot change the result.
    tbb::parallel_for(tbb::blocked_range<int>(0, height, 4), [&](const tbb::blocked_range<int>& rows) {
        for (int y = rows.begin(); y != rows.end(); ++y)
            for (int x = 0; x < width; ++x) image.at<uint8_t>(y, x) = shadePixel(view, x, y);
    });
    return image;
}

// Writes `bytes` to a temporary file next to `path` and renames it into
// place, so a reader never sees half a file.
bool writeFileAtomically(const std::string& path, const std::string& bytes, std::string& error) {
    static std::atomic<unsigned> counter{0};
    const fs::path target(path);
    const fs::path temp = target.parent_path() / ("." + target.filename().string() + ".tmp" +
                                                  std::to_string(::getpid()) + "_" + std::to_string(counter++));
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), std::streamsize(bytes.size()));
        out.close();
        if (!out) {
            std::error_code ec;
            fs::remove(temp, ec);
            error = "cannot write " + path;
            return false;
        }
    }
    std::error_code ec;
    fs::rename(temp, target, ec);
    if (ec) {
        fs::remove(temp, ec);
        error = "cannot write " + path + ": " + ec.message();
        return false;
    }
    return true;
}

}  // namespace

int defaultMarginPixels(int width, int height) {
    return std::max(20, int(std::lround(0.18 * std::min(width, height))));
}

std::string checkSynthOptions(const SynthOptions& o) {
    if (o.views < 2 || o.views > 1000) return "--views must be between 2 and 1000";
    if (o.width < 32 || o.width > 16384 || o.height < 32 || o.height > 16384)
        return "--width and --height must be between 32 and 16384";
    if (!(o.detail >= 0.0 && o.detail <= 5.0)) return "--detail must be between 0 and 5";
    if (o.rings != 1 && o.rings != 2) return "--rings must be 1 or 2";
    const int margin = o.marginPixels < 0 ? defaultMarginPixels(o.width, o.height) : o.marginPixels;
    if (std::min(o.width, o.height) - 2 * margin < 16)
        return "--margin " + std::to_string(margin) + " leaves less than 16 pixels for the object";
    if (!(o.cameraDistance >= 1.5 && o.cameraDistance <= 100.0)) return "--distance must be between 1.5 and 100";
    if (o.truthLevel < 1 || o.truthLevel > 8) return "--truth-level must be between 1 and 8";
    if (o.initialLevel < 0 || o.initialLevel > 6) return "--initial-level must be between 0 and 6";
    if (!(o.initialOffset >= 0.0 && o.initialOffset <= 0.2)) return "--initial-offset must be between 0 and 0.2";
    if (!(o.initialNoise >= 0.0 && o.initialNoise <= 0.05)) return "--initial-noise must be between 0 and 0.05";
    if (o.supersample < 1 || o.supersample > 8) return "--supersample must be between 1 and 8";
    if (!tessaline_tools::isAcceptedLensModel(o.lensModel))
        return "--lens must be one of " + tessaline_tools::acceptedLensModels();
    if (!(o.distortion >= 0.0 && o.distortion <= 4.0)) return "--distortion must be between 0 and 4";
    return "";
}

void pixelRay(const mycamera& camera, double x, double y, double direction[3]) {
    const double c[3] = {(x - camera.cx) / camera.fx, (y - camera.cy) / camera.fy, 1.0};
    for (int a = 0; a < 3; ++a)
        direction[a] = camera.R[a] * c[0] + camera.R[3 + a] * c[1] + camera.R[6 + a] * c[2];
    normalise(direction);
}

std::vector<std::vector<int>> nearestViewNeighbours(const std::vector<mycamera>& cameras) {
    const int n = int(cameras.size());
    const size_t m = size_t(std::min(6, std::max(n - 1, 0)));
    std::vector<std::vector<int>> lists(cameras.size());
    for (int i = 0; i < n; ++i) {
        // The viewing direction is the third row of R.
        std::vector<std::pair<double, int>> byAngle;
        for (int j = 0; j < n; ++j) {
            if (j == i) continue;
            const double cosine = cameras[i].R[6] * cameras[j].R[6] + cameras[i].R[7] * cameras[j].R[7] +
                                  cameras[i].R[8] * cameras[j].R[8];
            byAngle.push_back({-cosine, j});
        }
        std::sort(byAngle.begin(), byAngle.end());
        for (size_t k = 0; k < m; ++k) lists[i].push_back(byAngle[k].second);
    }
    return lists;
}

bool makeSynthScene(const SynthOptions& options, SynthScene& scene, std::string& error) {
    error = checkSynthOptions(options);
    if (!error.empty()) return false;
    scene = SynthScene();
    scene.options = options;
    if (scene.options.marginPixels < 0)
        scene.options.marginPixels = defaultMarginPixels(options.width, options.height);
    const SynthOptions& o = scene.options;

    SynthShape shape = makeSynthShape(o.seed, o.detail, o.form);
    makeIcosphere(scene.truth, o.truthLevel);
    displaceSphere(scene.truth, [&](const double d[3]) { return surfaceRadius(shape, d, SynthShape::kOctaves); });
    roundToFileDigits(scene.truth);

    double lo[3], hi[3];
    meshBounds(scene.truth, lo, hi);
    scene.truthDiagonal = std::sqrt((hi[0] - lo[0]) * (hi[0] - lo[0]) + (hi[1] - lo[1]) * (hi[1] - lo[1]) +
                                    (hi[2] - lo[2]) * (hi[2] - lo[2]));
    // The scene's box: the truth's, widened by 5% of the diagonal each side.
    for (int a = 0; a < 3; ++a) {
        scene.centre[a] = 0.5 * (lo[a] + hi[a]);
        scene.boundingBox[a] = float(lo[a] - 0.05 * scene.truthDiagonal);
        scene.boundingBox[3 + a] = float(hi[a] + 0.05 * scene.truthDiagonal);
    }

    // The initial mesh: the truth smoothed down to its lowest relief octave,
    // on a coarse tessellation, pushed outwards by 0.5 to 1.5 times the
    // offset with a smooth, low-frequency variation.
    makeIcosphere(scene.initial, o.initialLevel);
    const double offset = o.initialOffset * scene.truthDiagonal;
    displaceSphere(scene.initial, [&](const double d[3]) {
        const double wobble = gradientNoise(shape.inflation, 1.1 * d[0], 1.1 * d[1], 1.1 * d[2]);
        return surfaceRadius(shape, d, 1) + offset * (1.0 + 0.5 * std::clamp(wobble, -1.0, 1.0));
    });
    if (o.initialNoise > 0.0) addRadialNoise(scene.initial, o.initialNoise * scene.truthDiagonal, o.seed);
    roundToFileDigits(scene.initial);

    double radius = 0.0;
    for (const TriMesh* mesh : {&scene.truth, &scene.initial})
        for (size_t i = 0; i < mesh->vertices.size(); i += 3) {
            double r2 = 0.0;
            for (int a = 0; a < 3; ++a)
                r2 += (mesh->vertices[i + a] - scene.centre[a]) * (mesh->vertices[i + a] - scene.centre[a]);
            radius = std::max(radius, std::sqrt(r2));
        }
    const double distance = o.cameraDistance * radius;
    scene.cameras = ringCameras(o, scene.centre, distance);
    const double cx = 0.5 * (o.width - 1), cy = 0.5 * (o.height - 1);
    const double focal = framingFocalLength(scene.cameras, {&scene.truth, &scene.initial}, cx, cy, o.marginPixels);
    for (mycamera& cam : scene.cameras) {
        cam.fx = cam.fy = focal;
        cam.cx = cx;
        cam.cy = cy;
        updateIntrinsicMatrices(cam);
        updateProjectionMatrix(cam);
    }
    shape.finestAlbedoFrequency = focal / (kFinestTexturePixels * distance);

    scene.neighbourLists = nearestViewNeighbours(scene.cameras);
    scene.distortion = synthDistortion(o.lensModel, o.distortion);
    const double corner = std::hypot(cx, cy) / focal;
    if (!scene.distortion.isZero() && corner >= tessaline_tools::foldDistortedRadius(scene.distortion)) {
        error = "the distortion folds over inside the image; lower --distortion";
        return false;
    }

    MeshRayCaster caster;
    buildRayCaster(caster, scene.truth);
    const std::vector<double> normals = vertexNormals(scene.truth);
    for (int i = 0; i < o.views; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "view_%03d.png", i);
        scene.imageNames.push_back(name);
        scene.images.push_back(
            renderView(shape, caster, scene.truth, normals, scene.cameras[i], scene.distortion, o.width, o.height,
                       o.supersample));
    }
    return true;
}

std::string sfmText(const SynthScene& scene) {
    std::ostringstream out;
    out << std::setprecision(std::numeric_limits<double>::max_digits10);
    out << scene.cameras.size() << "\n";
    for (size_t i = 0; i < scene.cameras.size(); ++i) {
        const mycamera& c = scene.cameras[i];
        out << scene.imageNames[i];
        // Adding 0 turns -0 into 0, which reads the same but looks cleaner.
        for (double r : c.R) out << ' ' << r + 0.0;
        for (double t : c.t) out << ' ' << t + 0.0;
        out << ' ' << c.fx << ' ' << c.fy << ' ' << c.cx << ' ' << c.cy << "\n";
    }
    out << std::setprecision(std::numeric_limits<float>::max_digits10);
    for (int a = 0; a < 3; ++a) out << (a ? " " : "") << scene.boundingBox[a] << ' ' << scene.boundingBox[3 + a];
    out << "\n";
    for (size_t i = 0; i < scene.neighbourLists.size(); ++i) {
        out << i << ' ' << scene.neighbourLists[i].size();
        for (int j : scene.neighbourLists[i]) out << ' ' << j;
        out << "\n";
    }
    return out.str();
}

bool writeSynthScene(const SynthScene& scene, const std::string& folder, std::string& error) {
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (!fs::is_directory(folder, ec)) {
        error = "cannot create the folder " + folder;
        return false;
    }
    const fs::path dir(folder);
    for (size_t i = 0; i < scene.images.size(); ++i) {
        std::vector<uchar> png;
        if (!cv::imencode(".png", scene.images[i], png)) {
            error = "cannot encode " + scene.imageNames[i];
            return false;
        }
        if (!writeFileAtomically((dir / scene.imageNames[i]).string(), std::string(png.begin(), png.end()), error))
            return false;
    }
    for (const auto& [mesh, name] : {std::pair{&scene.truth, "truth.ply"}, std::pair{&scene.initial, "initial.ply"}}) {
        if (!savePly(*mesh, (dir / name).string())) {
            error = "cannot write " + (dir / name).string();
            return false;
        }
    }
    if (scene.options.colmapModel || !scene.distortion.isZero()) {
        fs::create_directories(dir / "colmap", ec);
        const ColmapText model = colmapModelText(scene);
        for (const auto& [name, text] :
             {std::pair{"cameras.txt", &model.cameras}, std::pair{"images.txt", &model.images},
              std::pair{"points3D.txt", &model.points3D}})
            if (!writeFileAtomically((dir / "colmap" / name).string(), *text, error)) return false;
    }
    if (!scene.distortion.isZero()) return true;
    // The scene file comes last: once it exists, everything it names does.
    return writeFileAtomically((dir / "scene.sfm").string(), sfmText(scene), error);
}

}  // namespace tessaline::synth
