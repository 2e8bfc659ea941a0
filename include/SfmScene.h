// A calibrated photo set: photographs, poses and intrinsics at full
// resolution, a bounding box and per-camera neighbour lists.
#pragma once

#include <functional>
#include <istream>
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

// Gives the photograph at a path of the scene file as one 8-bit grey
// channel, or a matrix without pixels when there is none to read.
using SceneImageReader = std::function<cv::Mat(const std::string& imagePath)>;

// The scene file's text from `in` (switched to the classic locale), each
// photograph taken from `readImage` as soon as its camera block has been
// read. Messages name the file `name`. Prints what loadSfmScene prints after
// its "loading " line, and returns what it returns; loadSfmScene is this
// reader over the file, with the photographs read from disk.
bool loadSfmSceneFromStream(SfmScene& scene, std::istream& in, const std::string& name,
                            const SceneImageReader& readImage);

// loadSfmScene with the photographs taken from `readImage`: the "loading "
// line, the file opened (or "<path> cannot read"), then the stream reader.
bool loadSfmSceneWith(SfmScene& scene, const std::string& path, const SceneImageReader& readImage);

// cv::imread with the grey flag; a photograph that cannot be read (or whose
// decoder throws) comes back without pixels.
cv::Mat readGreyImage(const std::string& imagePath);
