// tessaline_synth OUT_DIR [options]: generates a synthetic scene and writes
// it into OUT_DIR.
#include <chrono>
#include <cstdio>
#include <exception>
#include <iostream>
#include <map>
#include <string>

#include <CLI/CLI.hpp>

#include "CommandLine.h"
#include "SynthScene.h"

namespace tessaline::synth {

namespace {

// What was written, one fact a line.
void printSummary(const SynthScene& scene, const std::string& folder, double seconds) {
    const SynthOptions& so = scene.options;
    char line[160];
    std::cout << "Synthetic scene written to " << folder << "\n";
    std::snprintf(line, sizeof line, "  cameras: %d on %d ring%s, %d x %d pixels, focal length %.2f pixels",
                  so.views, so.rings, so.rings > 1 ? "s" : "", so.width, so.height, scene.cameras[0].fx);
    std::cout << line << "\n";
    std::snprintf(line, sizeof line, "  truth: %d vertices, %d facets, bounding-box diagonal %.4g",
                  scene.truth.num_v, scene.truth.num_f, scene.truthDiagonal);
    std::cout << line << "\n";
    std::snprintf(line, sizeof line, "  initial: %d vertices, %d facets, outward offset %.3g of the diagonal",
                  scene.initial.num_v, scene.initial.num_f, so.initialOffset);
    std::cout << line;
    if (so.initialNoise > 0.0) {
        std::snprintf(line, sizeof line, ", noise up to %.3g", so.initialNoise);
        std::cout << line;
    }
    std::cout << "\n";
    std::cout << "  object at least " << so.marginPixels << " pixels from the image border in every view\n";
    if (!scene.distortion.isZero())
        std::cout << "  photographs with the lens distortion of " << so.lensModel << " (strength " << so.distortion
                  << "); the COLMAP model in colmap/ describes them, no scene.sfm\n";
    else if (so.colmapModel)
        std::cout << "  COLMAP model in colmap/\n";
    std::snprintf(line, sizeof line, "  generated in %.2f s", seconds);
    std::cout << line << std::endl;
}

}  // namespace

int runSynthCommand(int argc, char** argv) {
    const auto start = std::chrono::steady_clock::now();
    SynthOptions o;
    std::string folder;
    CLI::App app{"Generates a synthetic scene with known ground truth: photographs, scene.sfm, truth.ply "
                 "and initial.ply in OUT_DIR."};
    app.add_option("OUT_DIR", folder, "Folder to write the scene into (created when missing)")->required();
    app.add_option("--views", o.views, "Number of photographs")->capture_default_str();
    app.add_option("--width", o.width, "Image width in pixels")->capture_default_str();
    app.add_option("--height", o.height, "Image height in pixels")->capture_default_str();
    app.add_option("--seed", o.seed, "Seed of the shape and texture")->capture_default_str();
    const std::map<std::string, SynthForm> forms = {
        {"blob", SynthForm::Blob}, {"box", SynthForm::Box}, {"cylinder", SynthForm::Cylinder}};
    app.add_option("--shape", o.form,
                   "Solid under the relief: blob (ellipsoid), box (sharp edges and corners) or cylinder (upright, "
                   "flat caps, sharp rims); default blob")
        ->transform(CLI::CheckedTransformer(forms));
    app.add_option("--detail", o.detail, "Depth of the surface relief (0: smooth solid)")->capture_default_str();
    app.add_option("--rings", o.rings, "Camera rings: 1, or 2 at alternating elevations")->capture_default_str();
    app.add_option("--margin", o.marginPixels,
                   "Smallest distance of the object from the image border, in pixels "
                   "(default: 18% of the smaller side, at least 20)");
    app.add_option("--distance", o.cameraDistance, "Camera distance in bounding radii")->capture_default_str();
    app.add_option("--truth-level", o.truthLevel, "Subdivision level of the truth (20*4^L facets)")
        ->capture_default_str();
    app.add_option("--initial-level", o.initialLevel, "Subdivision level of the initial mesh")->capture_default_str();
    app.add_option("--initial-offset", o.initialOffset,
                   "Mean outward offset of the initial mesh, as a fraction of the truth's diagonal")
        ->capture_default_str();
    app.add_option("--initial-noise", o.initialNoise,
                   "Random displacement of each initial vertex along its direction from the centre, uniform up to "
                   "this fraction of the truth's diagonal either way (0 to 0.05), drawn from the seed")
        ->capture_default_str();
    app.add_option("--supersample", o.supersample, "Rays per pixel along each axis")->capture_default_str();
    app.add_option("--lens", o.lensModel,
                   "Camera model of the photographs: PINHOLE, or SIMPLE_RADIAL, RADIAL, OPENCV or FULL_OPENCV, "
                   "rendered with a known distortion and written as a COLMAP model only (colmap/), without "
                   "scene.sfm")
        ->capture_default_str();
    app.add_option("--distortion", o.distortion, "Strength of the lens distortion (1: the built-in coefficients)")
        ->capture_default_str();
    app.add_flag("--colmap", o.colmapModel, "Also write the scene as a COLMAP text model into OUT_DIR/colmap");
    if (const auto status = cli::parse(app, argc, argv)) return *status;
    if (const std::string problem = checkSynthOptions(o); !problem.empty()) return cli::refuse(problem);

    try {
        SynthScene scene;
        std::string error;
        if (!makeSynthScene(o, scene, error) || !writeSynthScene(scene, folder, error)) return cli::fail(error);
        printSummary(scene, folder, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        return cli::kSuccess;
    } catch (const std::exception& e) {
        // OpenCV and the standard library report by exception (e.g. out of
        // memory for a huge image); stop with a message instead of aborting.
        return cli::fail(e.what());
    }
}

}  // namespace tessaline::synth
