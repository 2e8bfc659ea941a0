// The scene of the driver tests: two cameras 5 units in front of the origin,
// 0.1 apart, with 128 x 96 random photographs, each listing the other.
#pragma once

#include <algorithm>

#include <opencv2/core.hpp>

#include "SfmScene.h"

namespace driver_test {

inline SfmScene twoCameraScene(double fx, double fy, double cx, double cy) {
    SfmScene scene;
    for (int i = 0; i < 2; ++i) {
        mycamera cam;
        const double R[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
        std::copy(R, R + 9, cam.R);
        cam.t[0] = 0.1 * i, cam.t[1] = 0, cam.t[2] = 5;
        cam.fx = fx, cam.fy = fy, cam.cx = cx, cam.cy = cy;
        scene.cameras.push_back(cam);
        scene.images.emplace_back(96, 128, CV_8UC1);
        cv::randu(scene.images.back(), 0, 256);
    }
    scene.neighbourLists = {{1}, {0}};
    return scene;
}

}  // namespace driver_test
