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
        if (!scene.images[i].empty()) cv::resize(scene.images[i], img, cv::Size(0, 0), scale, scale, cv::INTER_LINEAR);
        imgList.push_back(img);
    }
}

std::vector<unsigned char> stackLevelImages(const std::vector<cv::Mat>& imgList) {
    std::vector<const cv::Mat*> held;
    for (const cv::Mat& img : imgList)
        if (!img.empty()) held.push_back(&img);
    if (held.empty()) return {};
    const int width = held[0]->cols, height = held[0]->rows;
    const size_t imageBytes = size_t(width) * size_t(height);
    std::vector<unsigned char> stack(imageBytes * held.size());
    for (size_t i = 0; i < held.size(); ++i) {
        unsigned char* out = stack.data() + i * imageBytes;
        const cv::Mat& img = *held[i];
        if (img.isContinuous()) {
            std::memcpy(out, img.data, imageBytes);
            continue;
        }
        for (int y = 0; y < height; ++y) std::memcpy(out + size_t(y) * width, img.ptr(y), size_t(width));
    }
    return stack;
}

cv::Size levelSize(cv::Size size, float scale) {
    return cv::Size(cvRound(double(size.width) * double(scale)), cvRound(double(size.height) * double(scale)));
}

std::vector<mycamera_cuda> narrowCameras(const std::vector<mycamera>& cameraList) {
    std::vector<mycamera_cuda> cameras(cameraList.size());
    for (size_t i = 0; i < cameraList.size(); ++i) toCameraCuda(cameras[i], cameraList[i]);
    return cameras;
}
