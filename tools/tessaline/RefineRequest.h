// `tessaline refine`: what the command line asks for, and its parse.
//
//   tessaline refine SCENE.sfm MESH OUT.{ply,obj,glb} [options]
//   tessaline refine --colmap MODEL_DIR --images IMAGE_DIR MESH OUT.{ply,obj,glb} [options]
#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "RefinementSettings.h"

namespace tessaline::frontend {

enum class BackendChoice { Auto, Cpu, Cuda };

struct RefineRequest {
    std::vector<std::string> inputs;  // SCENE MESH OUT, or MESH OUT with --colmap
    std::string scenePath, meshPath, outPath;
    std::string colmapDir, imageDir, keepWorkDir;
    int neighbours = 8;  // of the import
    std::string preset;
    RefinementSettings settings;  // the preset with the options' numbers over it
    int finestLevel = 0;
    BackendChoice backend = BackendChoice::Auto;
    int deviceIndex = 0;
    int threads = 0;
    int maxImageSide = 0;  // 0: the photographs' own size
    double memoryLimitMiB = 0.0;  // 0: what the machine reports
    bool dryRun = false;
    bool quiet = false;

    bool fromColmap() const { return !colmapDir.empty(); }
};

// The numbers given on the command line over a preset; a field not given
// keeps the preset's value.
struct SettingOverrides {
    int iterations[3] = {-1, -1, -1};  // by level
    int divisionPasses = -1;
    float photometricStep = -1.0f, firstOrderStep = -1.0f, secondOrderStep = -1.0f;
    int nccHalfWindow = -1, selectionPixels = -1, selectionImages = -1, pairsPerCamera = -1;
    // The adaptive descent (the quality preset's): pixel footprints, share
    // of the vertices.
    float maxMove = -1.0f, settledMove = -1.0f, settledShare = -1.0f;
};

// Adds every option of `refine` to `app`, filling `request` and `overrides`;
// `device` receives the text of --device.
void addRefineOptions(CLI::App& app, RefineRequest& request, SettingOverrides& overrides, std::string& device);

// Checks what CLI11 cannot: the positional count for the form, the output's
// extension, the device, the preset's name; fills the paths, the backend and
// the settings. Returns "" when the request can run, else the reason.
std::string completeRefineRequest(RefineRequest& request, const SettingOverrides& overrides,
                                  const std::string& device);

}  // namespace tessaline::frontend
