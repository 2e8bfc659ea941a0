#include "ToolsCommand.h"

#include <exception>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "CommandLine.h"
#include "ImportScene.h"
#include "RenderView.h"
#include "ToolError.h"

namespace tessaline_tools {

int runToolsCommand(int argc, char** argv) {
    CLI::App app{"Companion of tessaline_refine: bring your own data in, and look at what a run did."};
    app.require_subcommand(1);

    ImportOptions importOptions;
    CLI::App* import = app.add_subcommand(
        "import",
        "Write OUT_DIR/scene.sfm and OUT_DIR/mesh.ply from a COLMAP model (text or binary), its photographs and a "
        "mesh (PLY or OBJ), so that `cd OUT_DIR && tessaline_refine scene.sfm mesh.ply refined.ply` runs. Cameras "
        "with lens distortion (SIMPLE_RADIAL, RADIAL, OPENCV, FULL_OPENCV) and photographs of other sizes are "
        "resampled into OUT_DIR/images; a model far from the origin is moved near it, and OUT_DIR/offset.txt holds "
        "the offset to add back.");
    import->add_option("MODEL_DIR", importOptions.modelDir,
                       "folder with cameras, images and points3D (.bin or .txt)")->required();
    import->add_option("IMAGE_DIR", importOptions.imageDir, "folder the model's image names are relative to")
        ->required();
    import->add_option("MESH", importOptions.meshPath, "initial mesh in the model's frame: PLY or OBJ")->required();
    import->add_option("OUT_DIR", importOptions.outDir, "folder for scene.sfm and mesh.ply (made if missing)")
        ->required();
    import->add_option("-k,--neighbours", importOptions.neighbours,
                       "most neighbours listed per image, ranked by shared points with a useful angle")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();

    RenderOptions renderOptions;
    CLI::App* render = app.add_subcommand(
        "render",
        "Draw MESH from one camera of SCENE beside the photograph and over it; with --compare, colour it by the "
        "distance to another mesh.");
    render->add_option("SCENE", renderOptions.scenePath, "scene file; its image paths are relative to its folder")
        ->required();
    render->add_option("MESH", renderOptions.meshPath, "mesh to draw: PLY or OBJ")->required();
    render->add_option("CAMERA", renderOptions.camera, "camera index from 0, or a photograph's file name")
        ->required();
    render->add_option("OUT", renderOptions.outPath, "image to write (.png)")->required();
    render->add_option("--compare", renderOptions.comparePath,
                       "second mesh: colour MESH by its distance to it, with a colour bar");

    if (const auto status = tessaline::cli::parse(app, argc, argv)) return *status;

    try {
        if (*import) runImport(importOptions);
        if (*render) runRender(renderOptions, cpuDevice(tessaline::cli::runContext()));
    } catch (const ReportedFailure&) {
        return tessaline::cli::kFailure;
    } catch (const std::exception& e) {
        // ToolError, and library exceptions (OpenCV, out of memory).
        return tessaline::cli::fail(e.what());
    }
    return tessaline::cli::kSuccess;
}

}  // namespace tessaline_tools
