#include "RefineRequest.h"

#include "MeshWriters.h"
#include "RefinementPresets.h"

namespace tessaline::frontend {

namespace {

std::string presetList() {
    std::string list;
    for (const std::string& name : refinementPresetNames()) list += (list.empty() ? "" : ", ") + name;
    return list;
}

// The numbers of the adaptive descent, which the quality preset turns on;
// they change nothing where it is off (the reference preset).
void addAdaptiveOptions(CLI::App& app, SettingOverrides& o, const char* group) {
    app.add_option("--max-move", o.maxMove,
                   "adaptive descent: largest move of a vertex in one iteration, in pixel footprints")
        ->check(CLI::Range(1e-6f, 1e3f))->group(group);
    app.add_option("--settled-move", o.settledMove,
                   "adaptive descent: a vertex that moves less than this many pixel footprints has settled")
        ->check(CLI::Range(0.0f, 1e3f))->group(group);
    app.add_option("--settled-share", o.settledShare,
                   "adaptive descent: a level ends when at most this share of the vertices still moves (0 to 1)")
        ->check(CLI::Range(0.0f, 1.0f))->group(group);
}

void addSettingOptions(CLI::App& app, SettingOverrides& o) {
    const char* group = "Refinement numbers (over the preset)";
    for (int level = 0; level < 3; ++level)
        app.add_option("--iterations-level" + std::to_string(level), o.iterations[level],
                       "iterations of the descent at level " + std::to_string(level) +
                           (level == 0 ? " (the photographs' size)" : level == 1 ? " (half size)" : " (quarter size)"))
            ->check(CLI::Range(0, 100000))
            ->group(group);
    app.add_option("--division-passes", o.divisionPasses, "rounds of facet division before each level's descent")
        ->check(CLI::Range(0, 10))->group(group);
    app.add_option("--photometric-step", o.photometricStep, "step along the photometric gradient")
        ->check(CLI::Range(0.0f, 1e9f))->group(group);
    app.add_option("--first-order-step", o.firstOrderStep, "smoothness step at the levels that smooth to first order")
        ->check(CLI::Range(0.0f, 1e3f))->group(group);
    app.add_option("--second-order-step", o.secondOrderStep, "smoothness step at the other levels")
        ->check(CLI::Range(0.0f, 1e3f))->group(group);
    app.add_option("--ncc-half-window", o.nccHalfWindow, "half side of the correlation window (2: 5 x 5)")
        ->check(CLI::Range(1, 7))->group(group);
    app.add_option("--selection-pixels", o.selectionPixels,
                   "a facet is divided when it covers this many pixels in --selection-images images")
        ->check(CLI::Range(1, 1000000))->group(group);
    app.add_option("--selection-images", o.selectionImages, "images of the facet selection's rule")
        ->check(CLI::Range(1, 1000))->group(group);
    app.add_option("--pairs-per-camera", o.pairsPerCamera,
                   "neighbours each camera is compared with (the first of its list)")
        ->check(CLI::Range(1, 1000))->group(group);
    addAdaptiveOptions(app, o, group);
}

void applyOverrides(const SettingOverrides& o, RefinementSettings& s) {
    for (int level = 0; level < 3; ++level) {
        if (o.iterations[level] >= 0) s.levels[level].iterations = o.iterations[level];
        if (o.divisionPasses >= 0) s.levels[level].division_passes = o.divisionPasses;
    }
    if (o.photometricStep >= 0.0f) s.steps.photometric = o.photometricStep;
    if (o.firstOrderStep >= 0.0f) s.steps.first_order = o.firstOrderStep;
    if (o.secondOrderStep >= 0.0f) s.steps.second_order = o.secondOrderStep;
    if (o.nccHalfWindow >= 0) s.ncc_half_window = o.nccHalfWindow;
    if (o.selectionPixels >= 0) s.selection.min_pixels = o.selectionPixels;
    if (o.selectionImages >= 0) s.selection.min_images = o.selectionImages;
    if (o.pairsPerCamera >= 0) s.pairs_per_camera = o.pairsPerCamera;
    if (o.maxMove >= 0.0f) s.adaptive.max_move = o.maxMove;
    if (o.settledMove >= 0.0f) s.adaptive.settled_move = o.settledMove;
    if (o.settledShare >= 0.0f) s.adaptive.settled_share = o.settledShare;
}

std::string parseDevice(const std::string& text, RefineRequest& r) {
    if (text == "auto") return r.backend = BackendChoice::Auto, "";
    if (text == "cpu") return r.backend = BackendChoice::Cpu, "";
    if (text == "cuda") return r.backend = BackendChoice::Cuda, "";
    if (!text.empty() && text.size() < 4 && text.find_first_not_of("0123456789") == std::string::npos) {
        r.backend = BackendChoice::Cuda;
        r.deviceIndex = std::stoi(text);
        return "";
    }
    return "--device: expected cpu, cuda, auto or a CUDA device index, got '" + text + "'";
}

std::string assignPaths(RefineRequest& r) {
    const size_t wanted = r.fromColmap() ? 2 : 3;
    if (r.fromColmap() != !r.imageDir.empty()) return "--colmap and --images go together";
    if (r.inputs.size() != wanted)
        return r.fromColmap() ? "with --colmap, give MESH and OUT (the scene comes from the model)"
                              : "give SCENE, MESH and OUT (or --colmap MODEL_DIR --images IMAGE_DIR MESH OUT)";
    if (!r.fromColmap()) r.scenePath = r.inputs[0];
    r.meshPath = r.inputs[wanted - 2];
    r.outPath = r.inputs[wanted - 1];
    if (!writers::isWritableMeshPath(r.outPath))
        return "OUT must end in " + std::string(writers::writableMeshExtensions()) + ": " + r.outPath;
    if (!r.keepWorkDir.empty() && !r.fromColmap()) return "--keep-work goes with --colmap";
    return "";
}

}  // namespace

void addRefineOptions(CLI::App& app, RefineRequest& r, SettingOverrides& overrides, std::string& device) {
    r.preset = kDefaultRefinementPreset;
    app.add_option("INPUTS", r.inputs, "SCENE.sfm MESH OUT, or MESH OUT with --colmap; OUT ends in .ply, .obj or .glb")
        ->required()->expected(2, 3);
    app.add_option("--colmap", r.colmapDir, "COLMAP model folder (cameras, images, points3D as .bin or .txt)");
    app.add_option("--images", r.imageDir, "folder the COLMAP model's image names are relative to");
    app.add_option("--keep-work", r.keepWorkDir, "keep the imported scene in this folder (default: removed)");
    app.add_option("--neighbours", r.neighbours, "neighbours listed per image by the import")
        ->check(CLI::Range(1, 1000))->capture_default_str();
    app.add_option("--preset", r.preset, "refinement numbers: " + presetList())->capture_default_str();
    app.add_option("--finest-level", r.finestLevel,
                   "finest level refined: 0 refines at 1/4, 1/2 and full size; 1 stops at 1/2; 2 at 1/4")
        ->check(CLI::Range(0, 2))->capture_default_str();
    app.add_option("--device", device, "cpu, cuda, auto (CUDA when a device answers) or a CUDA device index")
        ->capture_default_str();
    app.add_option("--threads", r.threads, "threads of the CPU backend (default: every core)")
        ->check(CLI::Range(1, 4096));
    app.add_option("--max-image-size", r.maxImageSide,
                   "scale the photographs (and intrinsics) down so that their longest side is at most PIXELS")
        ->check(CLI::Range(16, 1000000));
    app.add_option("--memory-limit", r.memoryLimitMiB,
                   "memory available to the run in MiB, instead of what the machine reports")
        ->check(CLI::Range(1.0, 1e12));
    app.add_flag("--dry-run", r.dryRun, "print the memory estimate and stop");
    app.add_flag("-q,--quiet", r.quiet, "no progress lines");
    addSettingOptions(app, overrides);
}

std::string completeRefineRequest(RefineRequest& r, const SettingOverrides& overrides, const std::string& device) {
    if (const std::string problem = assignPaths(r); !problem.empty()) return problem;
    if (const std::string problem = parseDevice(device, r); !problem.empty()) return problem;
    if (!refinementPreset(r.preset, r.settings)) return "--preset: no preset '" + r.preset + "'; use " + presetList();
    applyOverrides(overrides, r.settings);
    return "";
}

}  // namespace tessaline::frontend
