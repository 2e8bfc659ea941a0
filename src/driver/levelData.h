// The cameras and images of one level, derived from the full-resolution scene.
#pragma once

#include <vector>

#include <opencv2/core.hpp>

#include "SfmScene.h"
#include "mycamera.h"

// Empties the three lists and fills them for `scale`: each scene camera
// copied and scaled (K, K_inv, P rebuilt), each photograph resized with
// linear interpolation, and a Laplacian of its 3x3 Gaussian blur.
void buildLevelData(const SfmScene& scene, float scale, std::vector<mycamera>& cameraList,
                    std::vector<cv::Mat>& imgList, std::vector<cv::Mat>& imgLaplaceList);
