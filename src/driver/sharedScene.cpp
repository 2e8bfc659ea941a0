#include "sharedScene.h"

#include <cstdint>
#include <iostream>
#include <vector>


namespace {

// The scene file alone: each photograph stands in as one pixel while the
// file is read, and is left without pixels afterwards.
bool loadSceneFile(SfmScene& scene, const std::string& path) {
    const bool read = loadSfmSceneWith(scene, path, [](const std::string&) { return cv::Mat(1, 1, CV_8U); });
    for (cv::Mat& image : scene.images) image.release();
    return read;
}

}  // namespace

bool loadSceneShare(SfmScene& scene, const std::string& path, const RefinementSettings& settings,
                    const ProcessGroup& group, SceneShare& share, const PhotoPath& photoPath) {
    if (!group.distributed()) {
        if (!loadSfmScene(scene, path) || scene.images.empty()) return false;
        share.cameras = shareCameras(scene.neighbourLists, settings.pairs_per_camera, 1, 0);
        share.photoSize = scene.images[0].size();
        return true;
    }
    if (!loadSceneFile(scene, path) || scene.images.empty()) return false;
    share.cameras = shareCameras(scene.neighbourLists, settings.pairs_per_camera, group.size, group.rank);
    for (size_t c = 0; c < scene.images.size(); ++c) {
        if (!share.cameras.held(int(c))) continue;
        const std::string file = photoPath ? photoPath(scene.imagePaths[c]) : scene.imagePaths[c];
        scene.images[c] = readGreyImage(file);
        if (scene.images[c].cols < 1 || scene.images[c].rows < 1) {
            std::cout << "Error: fail to load " << file << std::endl;
            return false;
        }
    }
    return true;
}

bool agreeOnPhotoSize(const SfmScene& scene, const ProcessGroup& group, SceneShare& share) {
    if (!group.distributed()) return true;
    const size_t n = scene.images.size();
    std::vector<uint64_t> sizes(2 * n, 0);
    for (size_t c = 0; c < n; ++c) {
        if (!share.cameras.owned(int(c))) continue;
        sizes[2 * c] = uint64_t(scene.images[c].cols);
        sizes[2 * c + 1] = uint64_t(scene.images[c].rows);
    }
    if (!group.sumIntegers || !group.sumIntegers(sizes.data(), sizes.size())) return false;
    share.photoSize = cv::Size(int(sizes[0]), int(sizes[1]));
    for (size_t c = 1; c < n; ++c) {
        if (sizes[2 * c] == sizes[0] && sizes[2 * c + 1] == sizes[1]) continue;
        std::cout << "Error: the photographs differ in size: " << scene.imagePaths[0] << " is " << sizes[0] << "x"
                  << sizes[1] << ", " << scene.imagePaths[c] << " is " << sizes[2 * c] << "x" << sizes[2 * c + 1]
                  << "; a run shared by several processes needs one size" << std::endl;
        return false;
    }
    return true;
}
