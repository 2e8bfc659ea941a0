#include "levelData.h"

#include <cstring>

#include <opencv2/imgproc.hpp>

void buildLevelData(const SfmScene& scene, float scale, std::vector<mycamera>& cameraList,
                    std::vector<cv::Mat>& imgList) {
    cameraList.clear();
    imgList.clear();
    for (size_t i = 0; i < scene.cameras.size(); ++i) {
        // Every level starts from the file's values, so scaling never compounds.
        mycamera camera = scene.cameras[i];
        scaleCameraToLevel(camera, scale);
        cameraList.push_back(camera);

        cv::Mat img;
        cv::resize(scene.images[i], img, cv::Size(0, 0), scale, scale, cv::INTER_LINEAR);
        imgList.push_back(img);
    }
}

std::vector<unsigned char> stackLevelImages(const std::vector<cv::Mat>& imgList) {
    if (imgList.empty()) return {};
    const int width = imgList[0].cols, height = imgList[0].rows;
    const size_t imageBytes = size_t(width) * size_t(height);
    std::vector<unsigned char> stack(imageBytes * imgList.size());
    for (size_t i = 0; i < imgList.size(); ++i) {
        unsigned char* out = stack.data() + i * imageBytes;
        const cv::Mat& img = imgList[i];
        if (img.isContinuous()) {
            std::memcpy(out, img.data, imageBytes);
            continue;
        }
        for (int y = 0; y < height; ++y) std::memcpy(out + size_t(y) * width, img.ptr(y), size_t(width));
    }
    return stack;
}

std::vector<mycamera_cuda> narrowCameras(const std::vector<mycamera>& cameraList) {
    std::vector<mycamera_cuda> cameras(cameraList.size());
    for (size_t i = 0; i < cameraList.size(); ++i) toCameraCuda(cameras[i], cameraList[i]);
    return cameras;
}
