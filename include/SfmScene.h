// A calibrated photo set: photographs, poses and intrinsics at full
// resolution, a bounding box and per-camera neighbour lists.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "mycamera.h"

struct SfmScene {
    std::vector<cv::Mat> images;          // 8-bit, one channel, full resolution
    std::vector<std::string> imagePaths;  // as written in the file
    std::vector<mycamera> cameras;        // R, t, fx, fy, cx, cy set
    std::vector<std::vector<int>> neighbourLists;
    float boundingBox[6] = {0, 0, 0, 0, 0, 0};  // lower x,y,z then upper x,y,z
};

// Reads the scene file and every photograph (grey). Prints the "loading "
// line and, on success, the count and "Bounding Box: " lines. Returns true
// when the scene is complete and usable; on failure it has printed why.
bool loadSfmScene(SfmScene& scene, const std::string& path);
