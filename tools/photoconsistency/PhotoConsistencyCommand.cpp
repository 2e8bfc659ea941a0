// tessaline_photoconsistency SCENE.sfm MESH.ply [--neighbours K] [--pairs]
// [--json]: photo-consistency of a mesh with the scene's photographs.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "CommandLine.h"
#include "PhotoConsistency.h"
#include "AnyMesh.h"
#include "plyIO.h"

namespace fs = std::filesystem;

namespace tessaline::photo {

namespace {

constexpr const char* kDescription =
    "Photo-consistency of a mesh with a calibrated photo set, for scenes without ground truth. For each camera as "
    "reference and each of the first K cameras of its neighbour list (the pairs the refinement compares), the mesh "
    "is rendered into both at full resolution, the neighbour's photograph is warped into the reference through the "
    "mesh, and the two are correlated over 5 x 5 windows (normalised cross-correlation, the refinement's window). "
    "A pixel counts where the whole window of the warped image has values (the surface is seen by both cameras "
    "all around it). Prints the mean correlation over all counted pixels of all pairs, each pixel of each pair "
    "counting once (1 is perfect agreement), and the number of pixels counted: compare meshes by both, since a "
    "mesh that shows fewer pixels could score a higher mean. Image paths in the scene file are taken relative to "
    "the scene file's folder.";

// Reads the scene with its photographs from the scene file's folder, whose
// image paths are relative to it, and returns to the working directory.
bool loadSceneFromItsFolder(SfmScene& scene, const std::string& path) {
    const fs::path absolute = fs::absolute(path);
    const fs::path previous = fs::current_path();
    std::error_code ec;
    fs::current_path(absolute.parent_path(), ec);
    if (ec) return false;
    const bool ok = loadSfmScene(scene, absolute.filename().string());
    fs::current_path(previous, ec);
    return ok && !ec;
}

void printTable(const PhotoConsistency& r, bool perPair) {
    char line[120];
    if (perPair) {
        std::cout << "reference target  valid pixels  mean NCC\n";
        for (const PairScore& p : r.pairs) {
            std::snprintf(line, sizeof line, "%9d %6d %13lld  %8.5f\n", p.reference, p.target, p.validPixels,
                          p.validPixels > 0 ? p.nccSum / double(p.validPixels) : 0.0);
            std::cout << line;
        }
    }
    std::snprintf(line, sizeof line, "pairs: %zu, valid pixels: %lld, mean NCC: ", r.pairs.size(), r.validPixels);
    std::cout << line;
    if (r.validPixels > 0) {
        std::snprintf(line, sizeof line, "%.6f", r.meanNcc);
        std::cout << line << "\n";
    } else {
        std::cout << "none (no pixel is seen by both cameras of a pair)\n";
    }
}

}  // namespace

int runPhotoConsistencyCommand(int argc, char** argv) {
    std::string scenePath, meshPath;
    int neighbours = kDefaultNeighbours;
    bool json = false, perPair = false;
    CLI::App app{kDescription};
    app.add_option("SCENE", scenePath, "Scene file (.sfm)")->required();
    app.add_option("MESH", meshPath, "Mesh to score (ASCII PLY)")->required();
    app.add_option("--neighbours", neighbours, "Cameras of each neighbour list compared with its camera")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000));
    app.add_flag("--pairs", perPair, "Print the score of every pair too");
    app.add_flag("--json", json, "Print the result as one line of JSON (the last line of the output)");
    if (const auto status = cli::parse(app, argc, argv)) return *status;

    try {
        SfmScene scene;
        if (!loadSceneFromItsFolder(scene, scenePath) || scene.images.empty())
            return cli::fail("cannot read the scene " + scenePath);
        TriMesh mesh;
        std::string meshError;
        if (!tessaline_tools::readAnyMesh(meshPath, mesh, meshError))
            return cli::fail("cannot read the mesh " + meshPath + ": " + meshError);
        const DeviceSetup setup = setupDevice(0, tessaline::cli::runContext());
        PhotoConsistency result;
        std::string error;
        if (!measurePhotoConsistency(setup.device, scene, mesh, neighbours, result, error)) return cli::fail(error);
        printTable(result, perPair);
        if (json) std::cout << photoConsistencyJson(result, scenePath, meshPath, neighbours) << "\n";
        std::cout << std::flush;
        return cli::kSuccess;
    } catch (const std::exception& e) {
        // Library errors and allocation failures end in order, not in an abort.
        return cli::fail(e.what());
    }
}

}  // namespace tessaline::photo
