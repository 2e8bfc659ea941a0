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

namespace {

// The output path, checked before anything is read.
fs::path checkedOutputPath(const std::string& path) {
    const fs::path outPath = fs::absolute(path);
    if (!cv::haveImageWriter(outPath.string())) throw ToolError("cannot write an image named " + path + "; give a .png file");
    std::error_code ec;
    if (!fs::is_directory(outPath.parent_path(), ec)) throw ToolError("the folder of " + path + " does not exist");
    return outPath;
}

// The scene, the index of the camera asked for, and its photograph in
// colour (the grey image where the file cannot be read in colour). Image
// paths in the scene are relative to the scene file's folder.
struct SceneCamera {
    SfmScene scene;
    int index = -1;
    cv::Mat photo;
};

SceneCamera loadSceneCamera(const RenderOptions& options) {
    SceneCamera sc;
    const fs::path scenePath = fs::absolute(options.scenePath);
    {
        ScopedWorkingDirectory inSceneFolder(scenePath.parent_path());
        if (!loadSfmScene(sc.scene, scenePath.filename().string()))
            throw ToolError("cannot load the scene " + options.scenePath);
        sc.index = findSceneCamera(sc.scene, options.camera);
        try {
            sc.photo = cv::imread(sc.scene.imagePaths[size_t(sc.index)], cv::IMREAD_COLOR);
        } catch (const cv::Exception&) {
        }
    }
    const cv::Mat& grey = sc.scene.images[size_t(sc.index)];
    if (sc.photo.empty() || sc.photo.size() != grey.size()) cv::cvtColor(grey, sc.photo, cv::COLOR_GRAY2BGR);
    return sc;
}

// The visible pixels of a render: how squarely the facet at each faces the
// camera (0 to 1), the pixels in row order, their surface points (3 each,
// from the mesh's double coordinates) and the count of back-face pixels.
struct VisibleSurface {
    cv::Mat shade;  // CV_32F
    std::vector<cv::Point> seen;
    std::vector<double> points;
    int backPixels = 0;
};

// The cosine between facet f's normal and the direction to the camera
// centre C from the facet's point at weights (1 - b - c, b, c); X gets the
// point.
double facetShade(const MeshData& mesh, int f, double b, double c, const double C[3], double X[3]) {
    const double* V = mesh.vertices.data();
    const int32_t* F = &mesh.facets[3 * size_t(f)];
    const double a = 1.0 - b - c;
    double e1[3], e2[3];
    for (int k = 0; k < 3; ++k) {
        const double v0 = V[3 * size_t(F[0]) + size_t(k)], v1 = V[3 * size_t(F[1]) + size_t(k)],
                     v2 = V[3 * size_t(F[2]) + size_t(k)];
        X[k] = a * v0 + b * v1 + c * v2;
        e1[k] = v1 - v0;
        e2[k] = v2 - v0;
    }
    const double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2], e1[0] * e2[1] - e1[1] * e2[0]};
    const double d[3] = {C[0] - X[0], C[1] - X[1], C[2] - X[2]};
    const double nn = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    const double dd = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
    return nn > 0 && dd > 0 ? std::fabs(n[0] * d[0] + n[1] * d[1] + n[2] * d[2]) / (nn * dd) : 0.0;
}

VisibleSurface visibleSurface(const MeshView& view, const MeshData& mesh, const mycamera& cam) {
    const int W = view.facet.cols, H = view.facet.rows;
    double C[3];
    cameraCentre(cam, C);
    VisibleSurface v;
    v.shade = cv::Mat(H, W, CV_32F, cv::Scalar(0));
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            v.backPixels += view.backFace.at<uint8_t>(y, x) != 0;
            const int f = view.facet.at<int>(y, x);
            if (f < 0) continue;
            double X[3];
            v.shade.at<float>(y, x) =
                float(facetShade(mesh, f, view.baryB.at<float>(y, x), view.baryC.at<float>(y, x), C, X));
            v.seen.push_back({x, y});
            v.points.insert(v.points.end(), X, X + 3);
        }
    return v;
}

// The third panel and its colour bar when distances to another mesh are
// asked for: the visible points coloured by their distance, over the dimmed
// photograph. Prints the distances' summary.
cv::Mat distancePanel(const cv::Mat& photo, const VisibleSurface& v, const MeshView& view, const MeshData& meshData,
                      const TriMesh& other, const std::string& names, cv::Mat& bar) {
    const std::vector<double> dist = tessaline::compare::distancesToSurface(other, v.points);
    // The scale reaches the 98th percentile, rounded up to a readable
    // number; distances below a millionth of the mesh's size count as none.
    double box[6];
    paddedMeshBox(meshData, box);
    const double floor = 1e-6 * std::hypot(box[3] - box[0], box[4] - box[1], box[5] - box[2]);
    const double p98 = percentile(dist, 0.98);
    const double scale = niceScale(std::max({p98, floor, DBL_MIN}));
    cv::Mat third = photo * 0.35;
    cv::Mat level(1, int(dist.size()), CV_8U);
    for (size_t i = 0; i < dist.size(); ++i)
        level.at<uint8_t>(0, int(i)) = uint8_t(std::lround(255.0 * std::min(1.0, dist[i] / scale)));
    cv::Mat heat;
    if (!dist.empty()) cv::applyColorMap(level, heat, cv::COLORMAP_TURBO);
    for (size_t i = 0; i < dist.size(); ++i) {
        const double s = 0.45 + 0.55 * v.shade.at<float>(v.seen[i]);
        const cv::Vec3b h = heat.at<cv::Vec3b>(0, int(i));
        third.at<cv::Vec3b>(v.seen[i]) = cv::Vec3b(uint8_t(h[0] * s), uint8_t(h[1] * s), uint8_t(h[2] * s));
    }
    third.setTo(kBackFaceColour, view.backFace);
    bar = colourBar(photo.rows, scale);
    if (!dist.empty())
        std::cout << "distance from " << names << " over those pixels: median " << percentile(dist, 0.5) << ", 98% "
                  << p98 << ", max " << *std::max_element(dist.begin(), dist.end()) << " (colour scale 0 to "
                  << scale << ")" << std::endl;
    return third;
}

// The shaded mesh: grey by the shade, back faces dark red.
cv::Mat meshPanelOf(const VisibleSurface& v, const MeshView& view) {
    cv::Mat panel(view.facet.rows, view.facet.cols, CV_8UC3, cv::Scalar(0, 0, 0));
    for (const cv::Point& p : v.seen) {
        const uint8_t g = uint8_t(std::lround(255.0 * (0.15 + 0.85 * v.shade.at<float>(p))));
        panel.at<cv::Vec3b>(p) = cv::Vec3b(g, g, g);
    }
    panel.setTo(kBackFaceColour, view.backFace);
    return panel;
}

// The mesh blended over the photograph where it is seen.
cv::Mat overlayPanel(const cv::Mat& photo, const cv::Mat& meshPanel, const VisibleSurface& v, const MeshView& view) {
    cv::Mat third = photo.clone();
    cv::Mat mask = cv::Mat::zeros(photo.rows, photo.cols, CV_8U);
    for (const cv::Point& p : v.seen) mask.at<uint8_t>(p) = 255;
    mask |= view.backFace;
    cv::Mat blend;
    cv::addWeighted(photo, 0.5, meshPanel, 0.5, 0.0, blend);
    blend.copyTo(third, mask);
    return third;
}

void printSeen(int ci, const std::string& photoName, const std::string& meshName, const VisibleSurface& v) {
    std::cout << "camera " << ci << " " << photoName << ": " << v.seen.size() << " pixels of " << meshName << " seen";
    if (v.backPixels > 0) std::cout << ", " << v.backPixels << " more show a facet from behind (dark red)";
    std::cout << std::endl;
    if (v.seen.empty())
        std::cout << "Warning: no facet of " << meshName << " is seen from camera " << ci
                  << " (a facet with a vertex behind the camera is not drawn)" << std::endl;
}

// Encodes the panels side by side and writes them under a temporary name
// first.
void writePanels(const std::vector<cv::Mat>& panels, const fs::path& outPath, const std::string& shownPath) {
    cv::Mat out;
    cv::hconcat(panels, out);
    std::vector<uchar> bytes;
    try {
        if (!cv::imencode(outPath.extension().string(), out, bytes)) throw ToolError("cannot encode " + shownPath);
    } catch (const cv::Exception& e) {
        throw ToolError("cannot encode " + shownPath + ": " + e.what());
    }
    writeFileAtomically(outPath.string(), std::string(bytes.begin(), bytes.end()));
    std::cout << "wrote " << shownPath << " (" << out.cols << "x" << out.rows << ")" << std::endl;
}

}  // namespace

void runRender(const RenderOptions& options, const DeviceHandle& device) {
    // Checks that cost nothing come first.
    const fs::path outPath = checkedOutputPath(options.outPath);
    const MeshData meshData = readMeshFile(options.meshPath);
    const TriMesh mesh = toTriMesh(meshData);
    TriMesh other;
    if (!options.comparePath.empty()) {
        other = toTriMesh(readMeshFile(options.comparePath));
        const std::string problem = tessaline::compare::checkMesh(other);
        if (!problem.empty()) throw ToolError("cannot measure distances to " + options.comparePath + ": " + problem);
    }
    SceneCamera sc = loadSceneCamera(options);
    const int ci = sc.index;
    mycamera cam = sc.scene.cameras[size_t(ci)];
    updateIntrinsicMatrices(cam);
    updateProjectionMatrix(cam);
    const MeshView view = renderMeshView(device, mesh, cam, sc.photo.cols, sc.photo.rows);
    const VisibleSurface visible = visibleSurface(view, meshData, cam);

    const std::string photoName = fs::path(sc.scene.imagePaths[size_t(ci)]).filename().string();
    const std::string meshName = fs::path(options.meshPath).filename().string();
    printSeen(ci, photoName, meshName, visible);

    // Panel 1: the photograph. Panel 2: the shaded mesh. Panel 3: the mesh
    // over the photograph, or the distance heat map with its colour bar.
    cv::Mat meshPanel = meshPanelOf(visible, view);
    cv::Mat bar, third;
    std::string thirdLabel = "overlay";
    if (options.comparePath.empty()) {
        third = overlayPanel(sc.photo, meshPanel, visible, view);
    } else {
        const std::string otherName = fs::path(options.comparePath).filename().string();
        third = distancePanel(sc.photo, visible, view, meshData, other, meshName + " to " + otherName, bar);
        thirdLabel = "distance to " + otherName;
    }
    drawLabel(sc.photo, "photograph " + photoName + " (camera " + std::to_string(ci) + ")", {8, 20});
    drawLabel(meshPanel, meshName, {8, 20});
    drawLabel(third, thirdLabel, {8, 20});
    std::vector<cv::Mat> panels{sc.photo, meshPanel, third};
    if (!bar.empty()) panels.push_back(bar);
    writePanels(panels, outPath, options.outPath);
}

}  // namespace tessaline_tools
