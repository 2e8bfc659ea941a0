// The photographs of an import, made fit for the refiner: one size for all,
// and pinhole cameras.
//
//  - Lens distortion: a photograph whose camera has distortion is resampled
//    into a pinhole camera of the same size, principal point kept, focal
//    lengths multiplied by one factor chosen so that every pixel of the new
//    image falls inside the photograph: the widest view without empty
//    pixels. The refiner has no mark for "no value" in a photograph; black
//    corners would be compared as if they were the scene.
//  - Sizes: when the photographs differ in size, every one is resampled to
//    the size most of them have (ties to the larger), and its intrinsics are
//    scaled with it, axis by axis.
//  - Resampling is bilinear (OpenCV's remap over a map computed here in
//    double precision), and the result is written grey and lossless (PNG)
//    into OUT_DIR/images under the model's image name, ".png" added unless
//    the name ends in it. Photographs that need neither stay where they are.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "ColmapModel.h"
#include "FileIO.h"
#include "LensModel.h"
#include "mycamera.h"

namespace tessaline_tools {

struct ImportView {
    int modelIndex = 0;     // into model.images
    std::string name;       // the model's image name
    LensCamera lens;        // the model's camera; pixel centres at integers
    cv::Size modelSize;     // the photograph's size as the model has it
    mycamera camera;        // pose and pinhole intrinsics written to scene.sfm
    bool resampled = false;
    std::string scenePath;  // the photograph as scene.sfm names it
};

// The camera of a COLMAP camera record, pixel centres moved to integers.
// Throws ToolError for a model the import does not take and for parameters
// it cannot use: a focal length that is not positive, and, with distortion,
// a principal point outside the photograph or a distortion that folds over
// inside it.
LensCamera lensOfColmapCamera(const ColmapCamera& camera);

// The factor for the focal lengths described above, for a photograph of
// `size` taken through `lens`; 1 without distortion. Throws ToolError when
// no factor up to 64 keeps the image inside the photograph.
double undistortedZoom(const LensCamera& lens, cv::Size size);

// The photograph through `source` resampled into the pinhole camera
// `target` (fx, fy, cx, cy) of `targetSize`.
cv::Mat resamplePhotograph(const cv::Mat& photo, const LensCamera& source, const mycamera& target,
                           cv::Size targetSize);

// Checks that every view's photograph is in `imageDir`, readable, and of its
// camera's size; returns the scene's size (the most common one). Prints one
// line when the sizes differ.
cv::Size checkPhotographs(const std::vector<ImportView>& views, const std::string& imageDir);

// Sets each view's pinhole intrinsics at `sceneSize`, whether it is
// resampled, and its path in scene.sfm. Prints one line for the
// undistorted photographs.
void planPhotographs(std::vector<ImportView>& views, cv::Size sceneSize, const std::string& imageDir,
                     const std::string& outDir);

// Resamples the views marked so into OUT_DIR/images, each under a temporary
// name until commit. `createdFolders` receives the folders made here.
std::vector<std::unique_ptr<PendingFile>> writeResampledPhotographs(const std::vector<ImportView>& views,
                                                                    cv::Size sceneSize, const std::string& imageDir,
                                                                    const std::string& outDir,
                                                                    std::vector<std::string>& createdFolders);

// The path written into the scene file for a file: relative to the output
// folder, or absolute where no relative path exists. Throws ToolError for a
// path with a blank or over 1023 characters.
std::string scenePathFor(const std::string& file, const std::string& outDir);

// The extension of a file name, lower case, with its dot (".png").
std::string lowerCaseExtension(const std::string& path);

}  // namespace tessaline_tools
