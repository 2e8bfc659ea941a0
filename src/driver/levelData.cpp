#include "levelData.h"

#include <opencv2/imgproc.hpp>

void buildLevelData(const SfmScene& scene, float scale, std::vector<mycamera>& cameraList,
                    std::vector<cv::Mat>& imgList, std::vector<cv::Mat>& imgLaplaceList) {
    cameraList.clear();
    imgList.clear();
    imgLaplaceList.clear();
    for (size_t i = 0; i < scene.cameras.size(); ++i) {
        // Every level starts from the file's values, so scaling never compounds.
        mycamera camera = scene.cameras[i];
        scaleCameraToLevel(camera, scale);
        cameraList.push_back(camera);

        cv::Mat img;
        cv::resize(scene.images[i], img, cv::Size(0, 0), scale, scale, cv::INTER_LINEAR);
        imgList.push_back(img);

        cv::Mat blurred, laplace;
        cv::GaussianBlur(img, blurred, cv::Size(3, 3), 0.0, 0.0, cv::BORDER_REFLECT_101);
        cv::Laplacian(blurred, laplace, CV_8U, 3, 1.0, 0.0, cv::BORDER_REFLECT_101);
        imgLaplaceList.push_back(laplace);
    }
}
