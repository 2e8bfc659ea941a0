#include "PhotoConsistency.h"

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <sstream>

#include "JsonText.h"
#include "ProgramCUDA_library.h"
#include "ProgramCUDA_optimization.h"
#include "meshSubdivision.h"

namespace tessaline::photo {

namespace {

// What the mesh looks like from one camera: per pixel its depth and facet
// (and the weights, which nothing here reads).
struct CameraRender {
    cv::Mat depth, facet, baryB, baryC;
};

// Warps target j into reference i and correlates; adds the valid pixels.
bool scorePair(const DeviceHandle& device, const SfmScene& scene, const std::vector<mycamera>& cameras,
               const std::vector<CameraRender>& renders, const std::vector<float>& referenceGrey, PairScore& score) {
    const cv::Mat& image = scene.images[size_t(score.reference)];
    const int width = image.cols, height = image.rows;
    const size_t pixels = size_t(width) * size_t(height);
    const cv::Mat target = scene.images[size_t(score.target)].isContinuous()
                               ? scene.images[size_t(score.target)]
                               : scene.images[size_t(score.target)].clone();
    std::vector<float> warped(pixels), cc(pixels);
    std::vector<unsigned char> mask(pixels);
    PerspectiveWarpArgs warp;
    toCameraCuda(warp.camera_ref, cameras[size_t(score.reference)]);
    toCameraCuda(warp.camera_tar, cameras[size_t(score.target)]);
    warp.depth_ref = renders[size_t(score.reference)].depth.ptr<float>();
    warp.facet_ref = renders[size_t(score.reference)].facet.ptr<int>();
    warp.depth_tar = renders[size_t(score.target)].depth.ptr<float>();
    warp.image_tar = target.ptr<uint8_t>();
    warp.width = width;
    warp.height = height;
    warp.warped = warped.data();
    if (Perspective_Image_Model_Image_Warp_CUDA(device, warp) != DeviceStatus::Ok) return false;
    CcArgs ncc;
    ncc.width = width;
    ncc.height = height;
    ncc.imageA = referenceGrey.data();
    ncc.imageB = warped.data();
    ncc.cc = cc.data();
    ncc.mask = mask.data();
    ncc.halfWindow = kHalfWindow;
    if (Compute_CC_CUDA(device, ncc) != DeviceStatus::Ok) return false;
    for (size_t p = 0; p < pixels; ++p)
        if (mask[p] == 1 && std::isfinite(cc[p])) {
            score.nccSum += double(cc[p]);
            ++score.validPixels;
        }
    return true;
}

std::vector<float> greyOf(const cv::Mat& image) {
    std::vector<float> grey;
    grey.reserve(size_t(image.cols) * size_t(image.rows));
    for (int y = 0; y < image.rows; ++y)
        for (int x = 0; x < image.cols; ++x) grey.push_back(float(image.at<uint8_t>(y, x)));
    return grey;
}

}  // namespace

std::vector<std::pair<int, int>> comparedPairs(const SfmScene& scene, int neighbours) {
    const int n = int(scene.cameras.size());
    std::vector<std::pair<int, int>> pairs;
    for (int i = 0; i < n && i < int(scene.neighbourLists.size()); ++i) {
        const std::vector<int>& list = scene.neighbourLists[size_t(i)];
        std::vector<bool> listed(size_t(n), false);
        for (size_t k = 0; k < list.size() && int(k) < neighbours; ++k)
            if (list[k] >= 0 && list[k] < n && list[k] != i) listed[size_t(list[k])] = true;
        for (int j = 0; j < n; ++j)
            if (listed[size_t(j)]) pairs.push_back({i, j});
    }
    return pairs;
}

bool measurePhotoConsistency(const DeviceHandle& device, const SfmScene& scene, const TriMesh& mesh, int neighbours,
                             PhotoConsistency& result, std::string& error) {
    result = PhotoConsistency();
    if (scene.images.empty()) return true;
    const int width = scene.images[0].cols, height = scene.images[0].rows;
    for (const cv::Mat& image : scene.images)
        if (image.cols != width || image.rows != height) {
            error = "the photographs differ in size";
            return false;
        }
    // The cameras as the refinement's finest level has them: K, K^-1 and P
    // rebuilt from the file's values.
    std::vector<mycamera> cameras = scene.cameras;
    for (mycamera& camera : cameras) scaleCameraToLevel(camera, 1.0);
    std::vector<CameraRender> renders(scene.images.size());
    for (size_t c = 0; c < renders.size(); ++c) {
        CameraRender& r = renders[c];
        if (!renderFacetMaps(mesh, device, cameras[c], width, height, r.depth, r.facet, r.baryB, r.baryC)) {
            error = "the render of camera " + std::to_string(c) + " failed";
            return false;
        }
    }
    double sum = 0.0;
    int greyOfCamera = -1;
    std::vector<float> grey;
    for (const auto& [i, j] : comparedPairs(scene, neighbours)) {
        if (greyOfCamera != i) grey = greyOf(scene.images[size_t(i)]), greyOfCamera = i;
        PairScore score;
        score.reference = i, score.target = j;
        if (!scorePair(device, scene, cameras, renders, grey, score)) {
            error = "the pair " + std::to_string(i) + " - " + std::to_string(j) + " failed on the device";
            return false;
        }
        sum += score.nccSum;
        result.validPixels += score.validPixels;
        result.pairs.push_back(score);
    }
    result.meanNcc = result.validPixels > 0 ? sum / double(result.validPixels) : 0.0;
    return true;
}

std::string photoConsistencyJson(const PhotoConsistency& result, const std::string& scenePath,
                                 const std::string& meshPath, int neighbours) {
    std::ostringstream out;
    out << "{\"scene\": " << cli::jsonString(scenePath) << ", \"mesh\": " << cli::jsonString(meshPath)
        << ", \"neighbours\": " << neighbours << ", \"pairs\": " << result.pairs.size()
        << ", \"valid_pixels\": " << result.validPixels
        << ", \"mean_ncc\": " << (result.validPixels > 0 ? cli::jsonNumber(result.meanNcc) : "null") << "}";
    return out.str();
}

}  // namespace tessaline::photo
