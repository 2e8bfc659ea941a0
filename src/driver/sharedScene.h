// The scene as a process of a run holds it: for one process every
// photograph; for a process of a shared run, the photographs of its
// reference cameras and of their pairs' targets, with the split of the
// cameras among the processes and the one size all photographs have.
#pragma once

#include <functional>
#include <string>

#include <opencv2/core.hpp>

#include "RefinementSettings.h"
#include "RunContext.h"
#include "SfmScene.h"
#include "cameraShare.h"

struct SceneShare {
    CameraShare cameras;  // of one process: every camera a reference
    cv::Size photoSize;   // the photographs' size, the same on every process
};

// Reads the scene file and the photographs this process holds; the others
// are left without pixels. Prints what loadSfmScene prints (and, for a
// shared run, "Error: fail to load <path>" for a photograph of its own that
// cannot be read). Returns false when this process cannot go on.
// In a shared run `photoPath`, when given, turns the scene file's image
// paths into the paths read (the front end takes them relative to the scene
// file's folder).
using PhotoPath = std::function<std::string(const std::string&)>;
bool loadSceneShare(SfmScene& scene, const std::string& path, const RefinementSettings& settings,
                    const ProcessGroup& group, SceneShare& share, const PhotoPath& photoPath = nullptr);

// A collective step of a shared run: every process learns the size of every
// photograph from the process that holds it as a reference, and the run can
// go on only when all have one size (one line from each process when not).
// One process has its sizes already: true.
bool agreeOnPhotoSize(const SfmScene& scene, const ProcessGroup& group, SceneShare& share);
