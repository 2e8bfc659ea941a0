#include "RenderView.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iostream>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "FileIO.h"
#include "ImportScene.h"
#include "MeshCompare.h"
#include "MeshReader.h"
#include "ProgramCUDA.h"
#include "ToolError.h"

namespace fs = std::filesystem;

namespace tessaline_tools {

namespace {

// How far the z-buffer area reaches past the photograph on every side. The
// z-buffer drops any facet that comes within 10 pixels of its area's border;
// with this slack a facet that crosses the picture's edge by up to about 50
// pixels is still drawn.
constexpr int kRenderSlack = 64;
constexpr int kBarWidth = 120;
const cv::Vec3b kBackFaceColour(40, 40, 170);  // BGR: dark red

// Enters a folder for the life of the object, then returns to the working
// directory it found.
class ScopedWorkingDirectory {
   public:
    explicit ScopedWorkingDirectory(const fs::path& folder) : previous_(fs::current_path()) {
        std::error_code ec;
        fs::current_path(folder, ec);
        if (ec) throw ToolError("cannot enter the folder " + folder.string());
    }
    ~ScopedWorkingDirectory() {
        std::error_code ec;
        fs::current_path(previous_, ec);
    }
    ScopedWorkingDirectory(const ScopedWorkingDirectory&) = delete;
    ScopedWorkingDirectory& operator=(const ScopedWorkingDirectory&) = delete;

   private:
    fs::path previous_;
};

void drawLabel(cv::Mat& img, const std::string& text, cv::Point at, double scale = 0.5) {
    cv::putText(img, text, at, cv::FONT_HERSHEY_SIMPLEX, scale, cv::Scalar(0, 0, 0), 3, cv::LINE_AA);
    cv::putText(img, text, at, cv::FONT_HERSHEY_SIMPLEX, scale, cv::Scalar(255, 255, 255), 1, cv::LINE_AA);
}

std::string shortNumber(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3g", v);
    return buf;
}

// A vertical bar from the colour of `scale` (top) to that of 0 (bottom).
cv::Mat colourBar(int height, double scale) {
    cv::Mat bar(height, kBarWidth, CV_8UC3, cv::Scalar(30, 30, 30));
    const int top = 30, bottom = height - 20, x0 = 10, x1 = 34;
    if (bottom - top < 10) return bar;
    cv::Mat ramp(bottom - top, 1, CV_8U);
    for (int r = 0; r < ramp.rows; ++r)
        ramp.at<uint8_t>(r) = uint8_t(std::lround(255.0 * (ramp.rows - 1 - r) / std::max(1, ramp.rows - 1)));
    cv::Mat coloured;
    cv::applyColorMap(ramp, coloured, cv::COLORMAP_TURBO);
    for (int r = 0; r < ramp.rows; ++r) bar(cv::Rect(x0, top + r, x1 - x0, 1)).setTo(coloured.at<cv::Vec3b>(r));
    for (int i = 0; i <= 4; ++i) {
        const int y = bottom - 1 - (bottom - 1 - top) * i / 4;
        cv::line(bar, {x1, y}, {x1 + 5, y}, cv::Scalar(255, 255, 255));
        const std::string label = (i == 4 ? ">=" : "") + shortNumber(scale * i / 4.0);
        cv::putText(bar, label, {x1 + 8, y + 4}, cv::FONT_HERSHEY_SIMPLEX, 0.4, cv::Scalar(255, 255, 255), 1,
                    cv::LINE_AA);
    }
    cv::putText(bar, "distance", {8, 18}, cv::FONT_HERSHEY_SIMPLEX, 0.45, cv::Scalar(255, 255, 255), 1,
                cv::LINE_AA);
    return bar;
}

double percentile(std::vector<double> v, double q) {
    if (v.empty()) return 0.0;
    const size_t k = std::min(v.size() - 1, size_t(q * double(v.size() - 1) + 0.5));
    std::nth_element(v.begin(), v.begin() + long(k), v.end());
    return v[k];
}

}  // namespace

MeshView renderMeshView(const DeviceHandle& device, const TriMesh& mesh, const mycamera& camera, int width,
                        int height) {
    const int LU = width + 2 * kRenderSlack, LV = height + 2 * kRenderSlack;
    std::vector<float> depth(size_t(LU) * size_t(LV), FLT_MAX);
    std::vector<int> facet(depth.size(), -1);
    std::vector<float> b(depth.size(), -1.0f), c(depth.size(), -1.0f);
    ZBufferArgs args;
    args.num_v = mesh.num_v;
    args.vertices = mesh.vertices.data();
    args.num_f = mesh.num_f;
    args.facets = mesh.facets.data();
    toCameraCuda(args.camera, camera);
    args.BU = -kRenderSlack;
    args.BV = -kRenderSlack;
    args.LU = LU;
    args.LV = LV;
    args.depth_image = depth.data();
    args.facet_image = facet.data();
    args.bary_b_image = b.data();
    args.bary_c_image = c.data();
    if (TriMesh_Image_ZBuffering_CUDA(device, args) != DeviceStatus::Ok)
        throw ReportedFailure("the render of the mesh failed");
    MeshView view;
    view.facet.create(height, width, CV_32S);
    view.baryB.create(height, width, CV_32F);
    view.baryC.create(height, width, CV_32F);
    view.backFace = cv::Mat::zeros(height, width, CV_8U);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const size_t e = size_t(y + kRenderSlack) * size_t(LU) + size_t(x + kRenderSlack);
            const int f = facet[e] >= 0 && facet[e] < mesh.num_f ? facet[e] : -1;
            view.facet.at<int>(y, x) = f;
            view.baryB.at<float>(y, x) = b[e];
            view.baryC.at<float>(y, x) = c[e];
            if (f < 0 && depth[e] < FLT_MAX) view.backFace.at<uint8_t>(y, x) = 255;
        }
    return view;
}

int findSceneCamera(const SfmScene& scene, const std::string& which) {
    const int n = int(scene.cameras.size());
    if (!which.empty() && std::all_of(which.begin(), which.end(), [](unsigned char ch) { return std::isdigit(ch); })) {
        const long v = which.size() > 9 ? -1 : std::stol(which);
        if (v < 0 || v >= n)
            throw ToolError("camera " + which + " is out of range: the scene has cameras 0 to " +
                            std::to_string(n - 1));
        return int(v);
    }
    for (int i = 0; i < n; ++i) {
        const std::string& p = scene.imagePaths[size_t(i)];
        if (p == which || fs::path(p).filename().string() == which) return i;
    }
    throw ToolError("the scene has no camera " + which + " (give an index from 0 to " + std::to_string(n - 1) +
                    " or the file name of a photograph)");
}

double niceScale(double v) {
    const double p = std::pow(10.0, std::floor(std::log10(v)));
    for (double m : {1.0, 1.5, 2.0, 3.0, 4.0, 5.0, 6.0, 8.0, 10.0})
        if (m * p >= v * (1 - 1e-12)) return m * p;
    return 10.0 * p;
}

void runRender(const RenderOptions& options, const DeviceHandle& device) {
    // Checks that cost nothing come first.
    const fs::path outPath = fs::absolute(options.outPath);
    if (!cv::haveImageWriter(outPath.string()))
        throw ToolError("cannot write an image named " + options.outPath + "; give a .png file");
    std::error_code ec;
    if (!fs::is_directory(outPath.parent_path(), ec))
        throw ToolError("the folder of " + options.outPath + " does not exist");

    const MeshData meshData = readMeshFile(options.meshPath);
    const TriMesh mesh = toTriMesh(meshData);
    TriMesh other;
    if (!options.comparePath.empty()) {
        other = toTriMesh(readMeshFile(options.comparePath));
        const std::string problem = tessaline::compare::checkMesh(other);
        if (!problem.empty()) throw ToolError("cannot measure distances to " + options.comparePath + ": " + problem);
    }

    // Image paths in the scene are relative to the folder the tool runs in,
    // which is the scene file's folder.
    SfmScene scene;
    const fs::path scenePath = fs::absolute(options.scenePath);
    int ci = -1;
    cv::Mat photo;
    {
        ScopedWorkingDirectory inSceneFolder(scenePath.parent_path());
        if (!loadSfmScene(scene, scenePath.filename().string()))
            throw ToolError("cannot load the scene " + options.scenePath);
        ci = findSceneCamera(scene, options.camera);
        try {
            photo = cv::imread(scene.imagePaths[size_t(ci)], cv::IMREAD_COLOR);
        } catch (const cv::Exception&) {
        }
    }
    const cv::Mat& grey = scene.images[size_t(ci)];
    if (photo.empty() || photo.size() != grey.size()) cv::cvtColor(grey, photo, cv::COLOR_GRAY2BGR);
    const int W = grey.cols, H = grey.rows;

    mycamera cam = scene.cameras[size_t(ci)];
    updateIntrinsicMatrices(cam);
    updateProjectionMatrix(cam);
    const MeshView view = renderMeshView(device, mesh, cam, W, H);

    double C[3];
    for (int k = 0; k < 3; ++k) C[k] = -(cam.R[k] * cam.t[0] + cam.R[3 + k] * cam.t[1] + cam.R[6 + k] * cam.t[2]);

    // Shade and surface point per visible pixel.
    cv::Mat shade(H, W, CV_32F, cv::Scalar(0));
    std::vector<cv::Point> seen;
    std::vector<double> surface;  // 3 per seen pixel
    int backPixels = 0;
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            backPixels += view.backFace.at<uint8_t>(y, x) != 0;
            const int f = view.facet.at<int>(y, x);
            if (f < 0) continue;
            const double* V = meshData.vertices.data();
            const int32_t* F = &meshData.facets[3 * size_t(f)];
            const double b = view.baryB.at<float>(y, x), c = view.baryC.at<float>(y, x), a = 1.0 - b - c;
            double X[3], e1[3], e2[3];
            for (int k = 0; k < 3; ++k) {
                const double v0 = V[3 * size_t(F[0]) + size_t(k)], v1 = V[3 * size_t(F[1]) + size_t(k)],
                             v2 = V[3 * size_t(F[2]) + size_t(k)];
                X[k] = a * v0 + b * v1 + c * v2;
                e1[k] = v1 - v0;
                e2[k] = v2 - v0;
            }
            const double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                                 e1[0] * e2[1] - e1[1] * e2[0]};
            const double d[3] = {C[0] - X[0], C[1] - X[1], C[2] - X[2]};
            const double nn = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
            const double dd = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
            const double s = nn > 0 && dd > 0 ? std::fabs(n[0] * d[0] + n[1] * d[1] + n[2] * d[2]) / (nn * dd) : 0.0;
            shade.at<float>(y, x) = float(s);
            seen.push_back({x, y});
            surface.insert(surface.end(), X, X + 3);
        }

    const std::string photoName = fs::path(scene.imagePaths[size_t(ci)]).filename().string();
    const std::string meshName = fs::path(options.meshPath).filename().string();
    std::cout << "camera " << ci << " " << photoName << ": " << seen.size() << " pixels of " << meshName
              << " seen";
    if (backPixels > 0) std::cout << ", " << backPixels << " more show a facet from behind (dark red)";
    std::cout << std::endl;
    if (seen.empty())
        std::cout << "Warning: no facet of " << meshName << " is seen from camera " << ci
                  << " (a facet with a vertex behind the camera is not drawn)" << std::endl;

    // Panel 1: the photograph. Panel 2: the shaded mesh. Panel 3: the mesh
    // over the photograph, or the distance heat map.
    cv::Mat meshPanel(H, W, CV_8UC3, cv::Scalar(0, 0, 0));
    cv::Mat third = photo.clone();
    for (const cv::Point& p : seen) {
        const uint8_t g = uint8_t(std::lround(255.0 * (0.15 + 0.85 * shade.at<float>(p))));
        meshPanel.at<cv::Vec3b>(p) = cv::Vec3b(g, g, g);
    }
    meshPanel.setTo(kBackFaceColour, view.backFace);

    cv::Mat bar;
    std::string thirdLabel = "overlay";
    if (options.comparePath.empty()) {
        cv::Mat mask = cv::Mat::zeros(H, W, CV_8U);
        for (const cv::Point& p : seen) mask.at<uint8_t>(p) = 255;
        mask |= view.backFace;
        cv::Mat blend;
        cv::addWeighted(photo, 0.5, meshPanel, 0.5, 0.0, blend);
        blend.copyTo(third, mask);
    } else {
        const std::vector<double> dist = tessaline::compare::distancesToSurface(other, surface);
        // The scale reaches the 98th percentile, rounded up to a readable
        // number; distances below a millionth of the mesh's size count as none.
        double box[6];
        paddedMeshBox(meshData, box);
        const double floor = 1e-6 * std::hypot(box[3] - box[0], box[4] - box[1], box[5] - box[2]);
        const double p98 = percentile(dist, 0.98);
        const double scale = niceScale(std::max({p98, floor, DBL_MIN}));
        third = photo * 0.35;
        cv::Mat level(1, int(dist.size()), CV_8U);
        for (size_t i = 0; i < dist.size(); ++i)
            level.at<uint8_t>(0, int(i)) = uint8_t(std::lround(255.0 * std::min(1.0, dist[i] / scale)));
        cv::Mat heat;
        if (!dist.empty()) cv::applyColorMap(level, heat, cv::COLORMAP_TURBO);
        for (size_t i = 0; i < dist.size(); ++i) {
            const double s = 0.45 + 0.55 * shade.at<float>(seen[i]);
            const cv::Vec3b h = heat.at<cv::Vec3b>(0, int(i));
            third.at<cv::Vec3b>(seen[i]) =
                cv::Vec3b(uint8_t(h[0] * s), uint8_t(h[1] * s), uint8_t(h[2] * s));
        }
        third.setTo(kBackFaceColour, view.backFace);
        bar = colourBar(H, scale);
        const std::string otherName = fs::path(options.comparePath).filename().string();
        thirdLabel = "distance to " + otherName;
        if (!dist.empty())
            std::cout << "distance from " << meshName << " to " << otherName << " over those pixels: median "
                      << percentile(dist, 0.5) << ", 98% " << p98 << ", max " << *std::max_element(dist.begin(), dist.end())
                      << " (colour scale 0 to " << scale << ")" << std::endl;
    }

    drawLabel(photo, "photograph " + photoName + " (camera " + std::to_string(ci) + ")", {8, 20});
    drawLabel(meshPanel, meshName, {8, 20});
    drawLabel(third, thirdLabel, {8, 20});
    std::vector<cv::Mat> panels{photo, meshPanel, third};
    if (!bar.empty()) panels.push_back(bar);
    cv::Mat out;
    cv::hconcat(panels, out);

    std::vector<uchar> bytes;
    try {
        if (!cv::imencode(outPath.extension().string(), out, bytes)) throw ToolError("cannot encode " + options.outPath);
    } catch (const cv::Exception& e) {
        throw ToolError("cannot encode " + options.outPath + ": " + e.what());
    }
    writeFileAtomically(outPath.string(), std::string(bytes.begin(), bytes.end()));
    std::cout << "wrote " << options.outPath << " (" << out.cols << "x" << out.rows << ")" << std::endl;
}

}  // namespace tessaline_tools
