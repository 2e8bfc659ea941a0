// Fuzz target of the refiner's scene file reader, loadSfmSceneFromStream.
//
// Input: the text of a scene file. No photograph is read: a path that holds
// "missing" stands for a photograph that cannot be read (so that the
// reader's refusal of it is reached too), any other path for a photograph of
// one pixel.
//
// Promises checked: a refusal prints an "Error: " line; an accepted scene has
// N >= 1 cameras and as many paths, photographs (each with pixels) and
// neighbour lists, paths of 1 to 1023 characters, neighbours inside 0..N-1,
// finite camera values and box (the file's numbers cannot spell a NaN or an
// infinity), and the line saying that N images have been loaded.
#include <cmath>
#include <sstream>

#include "FuzzTargets.h"
#include "SfmScene.h"

namespace tessaline_fuzz {

namespace {

cv::Mat standInImage(const std::string& imagePath) {
    static const cv::Mat onePixel(1, 1, CV_8UC1, cv::Scalar(128));
    if (imagePath.find("missing") != std::string::npos) return cv::Mat();
    return onePixel;
}

bool allFinite(const double* values, int n) {
    for (int k = 0; k < n; ++k)
        if (!std::isfinite(values[k])) return false;
    return true;
}

void checkCamera(const mycamera& camera) {
    require(allFinite(camera.R, 9) && allFinite(camera.t, 3), "camera pose values are finite");
    const double intrinsics[4] = {camera.fx, camera.fy, camera.cx, camera.cy};
    require(allFinite(intrinsics, 4), "camera intrinsics are finite");
}

void checkScene(const SfmScene& scene, const std::string& printed) {
    const size_t n = scene.cameras.size();
    require(n >= 1, "an accepted scene has a camera");
    require(scene.images.size() == n && scene.imagePaths.size() == n && scene.neighbourLists.size() == n,
            "one path, photograph and neighbour list per camera");
    for (size_t i = 0; i < n; ++i) {
        require(!scene.imagePaths[i].empty() && scene.imagePaths[i].size() <= 1023, "paths of 1 to 1023 characters");
        require(!scene.images[i].empty(), "every photograph has pixels");
        checkCamera(scene.cameras[i]);
        for (int neighbour : scene.neighbourLists[i])
            require(neighbour >= 0 && size_t(neighbour) < n, "neighbours inside the scene");
    }
    for (float bound : scene.boundingBox) require(std::isfinite(bound), "the bounding box is finite");
    require(printed.find(std::to_string(n) + " images have been loaded\n") != std::string::npos,
            "an accepted scene says how many images it loaded");
}

}  // namespace

Outcome fuzzSfmScene(const uint8_t* data, size_t size) {
    std::istringstream in(asString(data, size));
    SfmScene scene;
    std::string printed;
    const bool accepted =
        runCapturingOutput([&] { return loadSfmSceneFromStream(scene, in, "fuzz.sfm", standInImage); }, printed);
    if (!accepted) {
        require(hasErrorLine(printed), "a refused scene prints an Error: line");
        return Outcome::Refused;
    }
    checkScene(scene, printed);
    return Outcome::Accepted;
}

}  // namespace tessaline_fuzz
