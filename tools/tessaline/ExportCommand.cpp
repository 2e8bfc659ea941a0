#include <exception>
#include <iostream>

#include "CommandLine.h"
#include "Commands.h"
#include "CoordinateOffset.h"
#include "MeshReader.h"
#include "MeshWriters.h"

namespace tessaline::frontend {

int runExportCommand(int argc, char** argv) {
    CLI::App app{"Convert a mesh (PLY in any encoding, or OBJ) to OUT (.ply: binary PLY, .obj, .glb: binary glTF), "
                 "adding the coordinate offset of DIR/offset.txt when --scene-dir names an imported scene."};
    std::string meshPath, outPath, sceneDir;
    app.add_option("MESH", meshPath, "mesh to convert: PLY or OBJ")->required();
    app.add_option("OUT", outPath, "output mesh: .ply, .obj or .glb")->required();
    app.add_option("--scene-dir", sceneDir, "folder of the imported scene whose offset.txt (if any) is added");
    if (const auto status = cli::parse(app, argc, argv)) return *status;
    if (!writers::isWritableMeshPath(outPath))
        return cli::refuse("OUT must end in " + std::string(writers::writableMeshExtensions()) + ": " + outPath);
    try {
        double offset[3] = {0.0, 0.0, 0.0};
        std::string error;
        if (!sceneDir.empty() && !offset::readCoordinateOffset(sceneDir, offset, error)) return cli::fail(error);
        const TriMesh mesh = tessaline_tools::toTriMesh(tessaline_tools::readMeshFile(meshPath));
        if (!writers::writeMeshFile(outPath, mesh, offset, error)) return cli::fail(error);
        std::cout << "written " << outPath << " (" << mesh.num_v << " vertices, " << mesh.num_f << " facets)"
                  << std::endl;
        return cli::kSuccess;
    } catch (const std::exception& e) {
        // The reader's errors, and allocation failures.
        return cli::fail(e.what());
    }
}

}  // namespace tessaline::frontend
