// The scene as `tessaline refine` reads it: image paths in the scene file
// are taken relative to the scene file's folder (absolute ones as they are),
// so a run can start from any working directory. The scene can be read
// without its photographs, for the memory estimate, and its photographs
// scaled down in memory.
#pragma once

#include <string>
#include <vector>

#include "ImageHeader.h"
#include "SfmScene.h"

namespace tessaline::frontend {

// The path of a scene file's image path, from the working directory.
std::string photographPath(const std::string& scenePath, const std::string& imagePath);

// The scene file with its photographs (grey). Prints what loadSfmScene
// prints; false when it has printed why the scene cannot be used.
bool loadSceneBesideFile(SfmScene& scene, const std::string& scenePath);

// The scene file alone, each photograph without pixels, and the sizes of
// the photographs from their files' headers. False, with a one-line reason,
// when the file or a photograph cannot be read.
bool loadSceneShape(SfmScene& scene, const std::string& scenePath, std::vector<memory::ImageSize>& sizes,
                    std::string& error);

// The scale that brings the longest side of every photograph to at most
// `maxSide` (1 when they are small enough, or maxSide is 0).
double scaleForLongestSide(const std::vector<memory::ImageSize>& sizes, int maxSide);

// Each size times `scale`, rounded, at least 1.
std::vector<memory::ImageSize> scaledSizes(const std::vector<memory::ImageSize>& sizes, double scale);

// Scales a camera for an image resized by sx across and sy down (see below),
// rebuilding K, K_inv and P.
void scaleCamera(mycamera& camera, double sx, double sy);

// Shrinks every photograph by `scale` (area averaging) and its camera alike:
// with pixel centres at whole coordinates, x' = (x + 1/2) s - 1/2, so
// fx, fy scale by the images' own ratios and cx, cy move accordingly.
void scaleScene(SfmScene& scene, double scale);

}  // namespace tessaline::frontend
