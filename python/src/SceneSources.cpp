#include "SceneSources.h"

#include <filesystem>
#include <fstream>

#include <nanobind/nanobind.h>
#include <opencv2/imgcodecs.hpp>

#include "LibraryCall.h"

namespace nb = nanobind;
namespace fs = std::filesystem;

namespace {

// The scene file's own limit on the camera count.
constexpr size_t kMaxCameras = 1000000;

[[noreturn]] void refuse(const std::string& message) { throw nb::value_error(message.c_str()); }

cv::Mat readGrey(const std::string& path) {
    try {
        return cv::imread(path, cv::IMREAD_GRAYSCALE);
    } catch (const cv::Exception&) {
        return cv::Mat();
    }
}

std::string resolveImagePath(const std::string& imageRoot, const std::string& imagePath) {
    if (imageRoot.empty() || fs::path(imagePath).is_absolute()) return imagePath;
    return (fs::path(imageRoot) / imagePath).string();
}

// K must be [[fx, 0, cx], [0, fy, cy], [0, 0, 1]] with positive focal lengths.
void setIntrinsics(const double* K, size_t camera, mycamera& c) {
    const bool pinhole = K[1] == 0.0 && K[3] == 0.0 && K[6] == 0.0 && K[7] == 0.0 && K[8] == 1.0;
    if (!pinhole || !(K[0] > 0.0) || !(K[4] > 0.0))
        refuse("K of camera " + std::to_string(camera) +
               " is not [[fx, 0, cx], [0, fy, cy], [0, 0, 1]] with positive fx and fy");
    c.fx = K[0], c.fy = K[4], c.cx = K[2], c.cy = K[5];
}

void checkImage(const cv::Mat& image, const cv::Mat& first, size_t camera) {
    if (image.empty()) refuse("the image of camera " + std::to_string(camera) + " has no pixel");
    // The refinement's own words for photographs of different sizes.
    if (image.size() != first.size()) refuse("current version does not support image with different size");
}

std::vector<int> checkedNeighbours(const std::vector<int64_t>& list, size_t camera, size_t count) {
    std::vector<int> checked;
    for (int64_t neighbour : list) {
        if (neighbour < 0 || uint64_t(neighbour) >= count)
            refuse("the scene lists neighbour " + std::to_string(neighbour) + " for camera " + std::to_string(camera) +
                   ", outside 0.." + std::to_string(count - 1));
        checked.push_back(int(neighbour));
    }
    return checked;
}

}  // namespace

SfmScene loadSceneFile(const std::string& path, const std::string& imageRoot) {
    SfmScene scene;
    bool loaded = false;
    const std::vector<std::string> lines = runCaptured([&](OutputCapture&) {
        std::ifstream in(path);
        if (!in.is_open()) return;
        const SceneImageReader reader = [&](const std::string& p) { return readGrey(resolveImagePath(imageRoot, p)); };
        loaded = loadSfmSceneFromStream(scene, in, path, reader);
    });
    if (!loaded) refuse(lines.empty() ? path + " cannot read" : failureMessage(lines));
    return scene;
}

SfmScene sceneFromArrays(const SceneArrays& arrays) {
    const size_t n = arrays.count;
    if (n == 0) refuse("the scene has no camera");
    if (n > kMaxCameras) refuse("the scene has " + std::to_string(n) + " cameras; at most 1000000 are supported");
    if (arrays.images.size() != n || arrays.neighbours.size() != n)
        refuse("the scene has " + std::to_string(n) + " cameras but " + std::to_string(arrays.images.size()) +
               " images and " + std::to_string(arrays.neighbours.size()) + " neighbour lists");
    SfmScene scene;
    for (size_t i = 0; i < n; ++i) {
        mycamera camera;
        setIntrinsics(arrays.K + 9 * i, i, camera);
        for (int k = 0; k < 9; ++k) camera.R[k] = arrays.R[9 * i + k];
        for (int k = 0; k < 3; ++k) camera.t[k] = arrays.t[3 * i + k];
        checkImage(arrays.images[i], arrays.images[0], i);
        scene.cameras.push_back(camera);
        scene.images.push_back(arrays.images[i]);
        scene.imagePaths.push_back("image" + std::to_string(i));
        scene.neighbourLists.push_back(checkedNeighbours(arrays.neighbours[i], i, n));
    }
    return scene;
}
