#include "SceneInput.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <iostream>

#include <opencv2/imgproc.hpp>

namespace tessaline::frontend {

namespace fs = std::filesystem;

std::string photographPath(const std::string& scenePath, const std::string& imagePath) {
    return (fs::path(scenePath).parent_path() / imagePath).string();
}

bool loadSceneBesideFile(SfmScene& scene, const std::string& scenePath) {
    return loadSfmSceneWith(scene, scenePath,
                            [&](const std::string& p) { return readGreyImage(photographPath(scenePath, p)); });
}

bool loadSceneShape(SfmScene& scene, const std::string& scenePath, std::vector<memory::ImageSize>& sizes,
                    std::string& error) {
    sizes.clear();
    bool readable = true;
    const bool read = loadSfmSceneWith(scene, scenePath, [&](const std::string& p) {
        memory::ImageSize size;
        if (readable && !memory::readImageSize(photographPath(scenePath, p), size)) {
            error = "cannot read the photograph " + photographPath(scenePath, p);
            readable = false;
        }
        sizes.push_back(size);
        return cv::Mat(1, 1, CV_8U);  // stands for the photograph while the file is read
    });
    for (cv::Mat& image : scene.images) image.release();
    if (read && readable && scene.cameras.empty()) error = "the scene " + scenePath + " holds no camera";
    if (!read && error.empty()) error = "cannot use the scene " + scenePath;
    return read && readable && !scene.cameras.empty();
}

void scaleScene(SfmScene& scene, double scale) {
    if (scale == 1.0) return;
    for (size_t c = 0; c < scene.images.size() && c < scene.cameras.size(); ++c) {
        cv::Mat& image = scene.images[c];
        const memory::ImageSize size = scaledSizes({{image.cols, image.rows}}, scale)[0];
        const double sx = double(size.width) / image.cols, sy = double(size.height) / image.rows;
        cv::Mat smaller;
        cv::resize(image, smaller, cv::Size(size.width, size.height), 0, 0, cv::INTER_AREA);
        image = smaller;
        scaleCamera(scene.cameras[c], sx, sy);
    }
}

memory::ImageSize scaleSharedScene(SfmScene& scene, double scale, memory::ImageSize photoSize) {
    if (scale == 1.0) return photoSize;
    const memory::ImageSize size = scaledSizes({photoSize}, scale)[0];
    const double sx = double(size.width) / photoSize.width, sy = double(size.height) / photoSize.height;
    for (size_t c = 0; c < scene.images.size() && c < scene.cameras.size(); ++c) {
        if (!scene.images[c].empty()) {
            cv::Mat smaller;
            cv::resize(scene.images[c], smaller, cv::Size(size.width, size.height), 0, 0, cv::INTER_AREA);
            scene.images[c] = smaller;
        }
        scaleCamera(scene.cameras[c], sx, sy);
    }
    return size;
}

}  // namespace tessaline::frontend
