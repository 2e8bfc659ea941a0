// The cameras and images of one level, derived from the full-resolution
// scene, and the flat forms the device takes of them.
#pragma once

#include <vector>

#include <opencv2/core.hpp>

#include "SfmScene.h"
#include "mycamera.h"

// Empties both lists and fills them for `scale`: each scene camera copied
// and scaled (K, K_inv, P rebuilt), each photograph resized with linear
// interpolation (a photograph this process does not hold, without pixels,
// stays without). The facet selection reads only the number and sizes of
// the level's images, so no image derived from them is made.
void buildLevelData(const SfmScene& scene, float scale, std::vector<mycamera>& cameraList,
                    std::vector<cv::Mat>& imgList);

// The images of a level that have pixels, back to back, width * height
// bytes each, rows without gaps; each must have the first one's size.
std::vector<unsigned char> stackLevelImages(const std::vector<cv::Mat>& imgList);

// The size cv::resize gives an image of `size` at `scale`.
cv::Size levelSize(cv::Size size, float scale);

// The cameras narrowed to the device's float records, in order.
std::vector<mycamera_cuda> narrowCameras(const std::vector<mycamera>& cameraList);
