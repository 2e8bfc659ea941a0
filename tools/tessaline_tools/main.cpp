// tessaline_tools: companion program of the refiner. `import` brings a COLMAP
// model, its photographs and a mesh into the refiner's files; `render` draws a
// mesh from a scene camera to judge a run.
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "ImportScene.h"
#include "RenderView.h"
#include "ToolError.h"

using namespace tessaline_tools;

int main(int argc, char** argv) {
    CLI::App app{"Companion of tessaline_refine: bring your own data in, and look at what a run did."};
    app.require_subcommand(1);

    ImportOptions importOptions;
    CLI::App* import = app.add_subcommand(
        "import",
        "Write OUT_DIR/scene.sfm and OUT_DIR/mesh.ply from a COLMAP model (text or binary), its photographs and a "
        "mesh (PLY or OBJ), so that `cd OUT_DIR && tessaline_refine scene.sfm mesh.ply refined.ply` runs.");
    import->add_option("MODEL_DIR", importOptions.modelDir,
                       "folder with cameras, images and points3D (.bin or .txt)")->required();
    import->add_option("IMAGE_DIR", importOptions.imageDir, "folder the model's image names are relative to")
        ->required();
    import->add_option("MESH", importOptions.meshPath, "initial mesh in the model's frame: PLY or OBJ")->required();
    import->add_option("OUT_DIR", importOptions.outDir, "folder for scene.sfm and mesh.ply (made if missing)")
        ->required();
    import->add_option("-k,--neighbours", importOptions.neighbours,
                       "most neighbours listed per image, ranked by shared points with a useful angle")
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

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::cout << "Error: " << e.what() << std::endl << "Run with --help for the usage." << std::endl;
        return 2;
    }

    try {
        if (*import) runImport(importOptions);
        if (*render) runRender(renderOptions);
    } catch (const ToolError& e) {
        std::cout << "Error: " << e.what() << std::endl;
        return 1;
    } catch (const std::exception& e) {
        std::cout << "Error: " << e.what() << std::endl;
        return 1;
    }
    return 0;
}
