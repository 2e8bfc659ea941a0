// Where a Scene comes from: the tool's scene file, arrays in memory, or a
// COLMAP model through the importer. Each raises ValueError with the
// message the command line (or the importer) prints for bad input.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "SfmScene.h"

// The scene file at `path`; image paths in it are taken relative to
// `imageRoot`, or to the working directory (as the tool does) when it is
// empty.
SfmScene loadSceneFile(const std::string& path, const std::string& imageRoot);

// One camera per entry: K (9, row by row, no skew), R (9, row by row) and
// t (3), world to camera; 8-bit grey images of one size; neighbour lists.
struct SceneArrays {
    size_t count = 0;
    const double* K = nullptr;
    const double* R = nullptr;
    const double* t = nullptr;
    std::vector<cv::Mat> images;
    std::vector<std::vector<int64_t>> neighbours;
};
SfmScene sceneFromArrays(const SceneArrays& arrays);

// The registered images of a COLMAP model (text or binary) with the
// photographs in `imageDir`, through the importer (cameras ordered by image
// name, principal point moved to the tool's convention, `neighbours` ranked
// neighbours per camera). The box is that of the model's points, padded.
SfmScene importColmapScene(const std::string& modelDir, const std::string& imageDir, int neighbours);
