#include "ImportPhotographs.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <iostream>
#include <locale>
#include <map>
#include <set>
#include <sstream>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "ToolError.h"

namespace fs = std::filesystem;

namespace tessaline_tools {

namespace {

constexpr size_t kMaxPathLength = 1023;
constexpr double kLargestZoom = 64.0;

bool hasBlank(const std::string& s) {
    return std::any_of(s.begin(), s.end(), [](unsigned char c) { return std::isspace(c) != 0; });
}

std::string plainNumber(double value) {
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out << value;
    return out.str();
}

std::string sizeText(cv::Size size) { return std::to_string(size.width) + "x" + std::to_string(size.height); }

std::string cameraText(const ColmapCamera& camera) {
    const ColmapCameraModel* cm = colmapCameraModelById(camera.modelId);
    return "camera " + std::to_string(camera.id) + " (" + (cm ? cm->name : std::to_string(camera.modelId)) + ")";
}

// The pixel the ray of normalised coordinates (x, y) meets in the
// photograph, or false beyond the fold of the distortion.
bool sourcePixel(const LensCamera& lens, double foldRadius, double x, double y, double& u, double& v) {
    if (x * x + y * y > foldRadius * foldRadius) return false;
    double xd, yd;
    distortNormalised(lens.distortion, x, y, xd, yd);
    u = lens.fx * xd + lens.cx;
    v = lens.fy * yd + lens.cy;
    return true;
}

// True when every border pixel of the image of `size` through the pinhole
// camera with focal lengths multiplied by `zoom` falls inside the photograph.
bool borderInside(const LensCamera& lens, cv::Size size, double zoom, double foldRadius) {
    const double maxU = size.width - 1, maxV = size.height - 1, slack = 1e-6;
    const auto inside = [&](double u, double v) {
        double su, sv;
        if (!sourcePixel(lens, foldRadius, (u - lens.cx) / (lens.fx * zoom), (v - lens.cy) / (lens.fy * zoom), su, sv))
            return false;
        return su >= -slack && su <= maxU + slack && sv >= -slack && sv <= maxV + slack;
    };
    for (int u = 0; u < size.width; ++u)
        if (!inside(u, 0) || !inside(u, maxV)) return false;
    for (int v = 0; v < size.height; ++v)
        if (!inside(0, v) || !inside(maxU, v)) return false;
    return true;
}

// The photograph's farthest pixel from the principal point, in normalised
// coordinates.
double cornerRadius(const LensCamera& lens, cv::Size size) {
    double radius = 0;
    for (double u : {0.0, size.width - 1.0})
        for (double v : {0.0, size.height - 1.0})
            radius = std::max(radius, std::hypot((u - lens.cx) / lens.fx, (v - lens.cy) / lens.fy));
    return radius;
}

// The name of a resampled photograph in OUT_DIR/images.
std::string resampledName(const std::string& name) {
    return lowerCaseExtension(name) == ".png" ? name : name + ".png";
}

cv::Mat readGrey(const fs::path& file) {
    cv::Mat img;
    try {
        img = cv::imread(file.string(), cv::IMREAD_GRAYSCALE);
    } catch (const cv::Exception&) {
    }
    if (img.empty()) throw ToolError("cannot read the photograph " + file.string());
    return img;
}

// The size most photographs have; ties to the larger area, then width.
cv::Size mostCommonSize(const std::vector<ImportView>& views, int& count) {
    std::map<std::pair<int, int>, int> counts;
    for (const ImportView& v : views) ++counts[{v.modelSize.width, v.modelSize.height}];
    cv::Size best(0, 0);
    count = 0;
    for (const auto& [wh, n] : counts) {
        const cv::Size size(wh.first, wh.second);
        if (n > count || (n == count && size.area() >= best.area())) best = size, count = n;
    }
    return best;
}

void makeFolders(const fs::path& folder, std::vector<std::string>& created) {
    std::error_code ec;
    if (fs::is_directory(folder, ec)) return;
    if (folder.has_parent_path()) makeFolders(folder.parent_path(), created);
    if (!fs::create_directory(folder, ec) && !fs::is_directory(folder, ec))
        throw ToolError("cannot make the folder " + folder.string());
    created.push_back(folder.string());
}

// A resampled photograph must not replace one of the model's photographs
// (an OUT_DIR whose images/ folder is IMAGE_DIR).
void refuseOverwritingPhotographs(const std::vector<ImportView>& views, const std::string& imageDir,
                                  const std::string& outDir) {
    std::set<fs::path> sources;
    for (const ImportView& v : views) sources.insert(fs::weakly_canonical(fs::absolute(fs::path(imageDir) / v.name)));
    for (const ImportView& v : views) {
        const fs::path target = fs::weakly_canonical(fs::absolute(fs::path(outDir) / "images" / resampledName(v.name)));
        if (v.resampled && sources.count(target))
            throw ToolError("the resampled photograph " + target.string() +
                            " would replace a photograph of the model; choose another OUT_DIR");
    }
}

}  // namespace

std::string lowerCaseExtension(const std::string& path) {
    std::string ext = fs::path(path).extension().string();
    for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

LensCamera lensOfColmapCamera(const ColmapCamera& camera) {
    const ColmapCameraModel* cm = colmapCameraModelById(camera.modelId);
    LensCamera lens;
    std::string error;
    if (!lensFromParameters(cm ? cm->name : std::to_string(camera.modelId), camera.params, lens, error))
        throw ToolError(cameraText(camera) + ": " + error);
    if (!(lens.fx > 0) || !(lens.fy > 0))
        throw ToolError(cameraText(camera) + ": the focal length is not positive");
    const bool centreInside =
        lens.cx >= 0 && lens.cx <= double(camera.width) && lens.cy >= 0 && lens.cy <= double(camera.height);
    // A pinhole camera may have its principal point anywhere (a cropped
    // photograph); a distortion centred outside the photograph is a mistake.
    if (!lens.distortion.isZero() && !centreInside)
        throw ToolError(cameraText(camera) + ": the principal point (" + plainNumber(lens.cx) + ", " +
                        plainNumber(lens.cy) + ") lies outside the " + std::to_string(camera.width) + "x" +
                        std::to_string(camera.height) + " photograph");
    // COLMAP: top-left pixel centre at (0.5, 0.5). Here: at (0, 0).
    lens.cx -= 0.5;
    lens.cy -= 0.5;
    const cv::Size size(int(camera.width), int(camera.height));
    if (!lens.distortion.isZero() && cornerRadius(lens, size) >= foldDistortedRadius(lens.distortion))
        throw ToolError(cameraText(camera) + ": its distortion folds over inside the photograph (two rays would "
                        "meet in one pixel), so it cannot be undone; the coefficients are not usable");
    return lens;
}

double undistortedZoom(const LensCamera& lens, cv::Size size) {
    if (lens.distortion.isZero()) return 1.0;
    const double fold = foldRadius(lens.distortion);
    double low = 1.0 / kLargestZoom, high = kLargestZoom;
    if (!borderInside(lens, size, high, fold))
        throw ToolError("no pinhole image of the photograph's size lies inside the photograph with this distortion");
    if (borderInside(lens, size, low, fold)) return low;
    // Wider views (smaller factors) reach out of the photograph; the search
    // keeps `high` inside and `low` outside.
    for (int step = 0; step < 60; ++step) {
        const double middle = 0.5 * (low + high);
        (borderInside(lens, size, middle, fold) ? high : low) = middle;
    }
    return high;
}

cv::Mat resamplePhotograph(const cv::Mat& photo, const LensCamera& source, const mycamera& target,
                           cv::Size targetSize) {
    cv::Mat mapU(targetSize, CV_32FC1), mapV(targetSize, CV_32FC1);
    const double fold = foldRadius(source.distortion);
    for (int v = 0; v < targetSize.height; ++v)
        for (int u = 0; u < targetSize.width; ++u) {
            double su = -1, sv = -1;
            sourcePixel(source, fold, (u - target.cx) / target.fx, (v - target.cy) / target.fy, su, sv);
            mapU.at<float>(v, u) = float(su);
            mapV.at<float>(v, u) = float(sv);
        }
    cv::Mat out;
    // The map stays inside the photograph up to rounding; replicating the
    // border keeps that rounding from bringing in black.
    cv::remap(photo, out, mapU, mapV, cv::INTER_LINEAR, cv::BORDER_REPLICATE);
    return out;
}

std::string scenePathFor(const std::string& file, const std::string& outDir) {
    const fs::path abs = fs::weakly_canonical(fs::absolute(file));
    const fs::path rel = abs.lexically_relative(fs::weakly_canonical(fs::absolute(outDir)));
    std::string path = rel.empty() ? abs.string() : rel.generic_string();
    if (hasBlank(path) && !hasBlank(abs.string())) path = abs.string();
    if (hasBlank(path))
        throw ToolError("the path of the photograph " + abs.string() +
                        " holds a blank, which the scene file cannot hold; move or rename it");
    if (path.size() > kMaxPathLength)
        throw ToolError("the path of the photograph " + abs.string() + " is " + std::to_string(path.size()) +
                        " characters long as the scene file would give it; the tool takes at most " +
                        std::to_string(kMaxPathLength));
    return path;
}

cv::Size checkPhotographs(const std::vector<ImportView>& views, const std::string& imageDir) {
    std::error_code ec;
    if (!fs::is_directory(imageDir, ec)) throw ToolError("the image folder " + imageDir + " does not exist");
    for (const ImportView& v : views) {
        const fs::path file = fs::path(imageDir) / v.name;
        if (!fs::is_regular_file(file, ec)) throw ToolError("the model's image " + v.name + " is not in " + imageDir);
        const cv::Mat img = readGrey(file);
        if (img.size() != v.modelSize)
            throw ToolError("the photograph " + v.name + " is " + sizeText(img.size()) +
                            " but its camera in the model is " + sizeText(v.modelSize) +
                            "; give the folder of the images the model was made from");
    }
    int count = 0;
    const cv::Size size = mostCommonSize(views, count);
    if (size_t(count) < views.size())
        std::cout << "the photographs differ in size: all are resampled to " << sizeText(size) << " (the size of "
                  << count << " of " << views.size() << "), their intrinsics scaled with them" << std::endl;
    return size;
}

void planPhotographs(std::vector<ImportView>& views, cv::Size sceneSize, const std::string& imageDir,
                     const std::string& outDir) {
    int undistorted = 0;
    double minZoom = HUGE_VAL, maxZoom = 0;
    for (ImportView& v : views) {
        double zoom = 1.0;
        try {
            zoom = undistortedZoom(v.lens, v.modelSize);
        } catch (const ToolError& e) {
            throw ToolError(v.name + ": " + e.what());
        }
        const double sx = double(sceneSize.width) / v.modelSize.width;
        const double sy = double(sceneSize.height) / v.modelSize.height;
        v.camera.fx = v.lens.fx * zoom * sx;
        v.camera.fy = v.lens.fy * zoom * sy;
        v.camera.cx = (v.lens.cx + 0.5) * sx - 0.5;
        v.camera.cy = (v.lens.cy + 0.5) * sy - 0.5;
        v.resampled = !v.lens.distortion.isZero() || v.modelSize != sceneSize;
        if (!v.lens.distortion.isZero()) {
            ++undistorted;
            minZoom = std::min(minZoom, zoom);
            maxZoom = std::max(maxZoom, zoom);
        }
        const fs::path file = v.resampled ? fs::path(outDir) / "images" / resampledName(v.name)
                                          : fs::path(imageDir) / v.name;
        v.scenePath = scenePathFor(file.string(), outDir);
    }
    refuseOverwritingPhotographs(views, imageDir, outDir);
    if (undistorted > 0) {
        std::ostringstream line;
        line.precision(4);
        line << "undistorted " << undistorted << " photograph" << (undistorted > 1 ? "s" : "")
             << " into pinhole cameras of the same size, focal lengths times " << minZoom;
        if (maxZoom != minZoom) line << " to " << maxZoom;
        std::cout << line.str() << " (the widest view without empty pixels)" << std::endl;
    }
}

std::vector<std::unique_ptr<PendingFile>> writeResampledPhotographs(const std::vector<ImportView>& views,
                                                                    cv::Size sceneSize, const std::string& imageDir,
                                                                    const std::string& outDir,
                                                                    std::vector<std::string>& createdFolders) {
    std::vector<std::unique_ptr<PendingFile>> files;
    for (const ImportView& v : views) {
        if (!v.resampled) continue;
        const cv::Mat photo = readGrey(fs::path(imageDir) / v.name);
        const cv::Mat out = resamplePhotograph(photo, v.lens, v.camera, sceneSize);
        const fs::path path = fs::path(outDir) / "images" / resampledName(v.name);
        makeFolders(path.parent_path(), createdFolders);
        std::vector<uchar> png;
        if (!cv::imencode(".png", out, png)) throw ToolError("cannot encode " + path.string());
        files.push_back(std::make_unique<PendingFile>(path.string(), std::string(png.begin(), png.end())));
    }
    return files;
}

}  // namespace tessaline_tools
