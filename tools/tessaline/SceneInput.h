// The scene as `tessaline refine` reads it: image paths in the scene file
// are taken relative to the scene file's folder (absolute ones as they are),
// so a run can start from any working directory. The scene can be read
// without its photographs, for the memory estimate, and its photographs
// scaled down in memory.
#pragma once

#include <string>
#include <vector>

#include "ImageHeader.h"
#include "RunShape.h"
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

// The image and camera scaling of RunShape.h, which the front end uses too.
using memory::scaleCamera;
using memory::scaledSizes;
using memory::scaleForLongestSide;

// Shrinks every photograph by `scale` (area averaging) and its camera alike
// (scaleCamera).
void scaleScene(SfmScene& scene, double scale);

// The same for the scene of a process of a shared run, whose photographs
// all have `photoSize` and of which it holds only some (the others have no
// pixels; their cameras are scaled all the same). Returns the new size.
memory::ImageSize scaleSharedScene(SfmScene& scene, double scale, memory::ImageSize photoSize);

}  // namespace tessaline::frontend
