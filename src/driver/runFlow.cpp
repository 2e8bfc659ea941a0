#include "runFlow.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "ProgramCUDA.h"
#include "RunEnvironment.h"
#include "SfmScene.h"
#include "TriMesh.h"
#include "levelData.h"
#include "meshSubdivision.h"
#include "plyIO.h"
#include "refineMeshAtLevel.h"

namespace {

// Each path is held as a C string of at most 1023 characters.
constexpr size_t kMaxPathLength = 1023;

}  // namespace

bool runLevels(TriMesh& mesh, const SfmScene& scene, int levelOfDetails, const DeviceHandle& device,
               const RefinementSettings& settings) {
    std::vector<mycamera> cameraList;
    std::vector<cv::Mat> imgList;
    for (int level = 2; level >= 0; --level) {
        float scale = 1.0f;
        for (int k = 0; k < level; ++k) scale *= 0.5f;
        buildLevelData(scene, scale, cameraList, imgList);
        const LevelSettings& levelSettings = settings.levels[level];
        if (!subdivideMeshAdaptively(mesh, device, cameraList, imgList, imgList[0].cols, imgList[0].rows,
                                     settings.selection, levelSettings.division_passes))
            return false;
        if (level < levelOfDetails) break;
        std::cout << "mesh refining at level " << level << std::endl;
        if (!refineMeshAtLevel(mesh, device, cameraList, imgList, scene.neighbourLists, levelSettings, settings))
            return false;
    }
    return true;
}

namespace {

int run(int argc, char** argv) {
    // The running time is wall-clock time: on the CPU backend several threads
    // work at once, and their summed processor time would overstate it.
    const auto start = std::chrono::steady_clock::now();

    if (argc < 4) {
        std::cout << "Please specify the paths of SFM file, initial PLY file and output PLY file... exit" << std::endl;
        return 0;
    }
    for (int k = 1; k <= 3; ++k) {
        if (std::strlen(argv[k]) > kMaxPathLength) {
            std::cout << "Error: argument " << k << " is longer than " << kMaxPathLength
                      << " characters; use a shorter path" << std::endl;
            return 0;
        }
    }
    const std::string PathSFM = argv[1], PathInitPLY = argv[2], PathRefinedPLY = argv[3];
    std::cout << "PathSFM: " << PathSFM << std::endl;
    std::cout << "PathInitPLY: " << PathInitPLY << std::endl;
    std::cout << "PathRefinedPLY: " << PathRefinedPLY << std::endl;

    int deviceIndex = 0;
    int levelOfDetails = 0;
    if (argc > 4) {
        deviceIndex = levelOfDetails = std::atoi(argv[4]);
        if (levelOfDetails < 0 || levelOfDetails > 2) {
            std::cout << "Level of Details should be 0, 1 or 2." << std::endl;
            return 0;
        }
    }
    std::cout << "CUDA_DEIVCE_INDEX " << deviceIndex << std::endl;
    std::cout << "Level of Details " << levelOfDetails << std::endl;
    std::cout << std::endl;

    // The device chosen here runs every call of the run, under the context
    // that the environment asks for.
    std::vector<std::string> warnings;
    const RunContext context = runContextFromEnvironment(warnings);
    for (const std::string& warning : warnings) std::cout << warning << std::endl;
    const DeviceSetup setup = setupDevice(deviceIndex, context);
    std::cout << "Setting up CUDA device" << std::endl;
    std::cout << setup.description << std::endl;
    std::cout << "Device memory total: " << setup.totalMB << "MB" << std::endl;
    std::cout << "Device memory aviable: " << setup.freeMB << "MB" << std::endl;
    std::cout << std::endl;

    SfmScene scene;
    if (!loadSfmScene(scene, PathSFM) || scene.images.empty()) {
        std::cout << "Error: the scene could not be loaded; nothing was written" << std::endl;
        return 0;
    }
    TriMesh mesh;
    std::cout << std::endl;
    if (!loadPly(mesh, PathInitPLY)) {
        std::cout << "Error: the initial mesh could not be loaded; nothing was written" << std::endl;
        return 0;
    }
    std::cout << std::endl;

    if (!runLevels(mesh, scene, levelOfDetails, setup.device)) {
        std::cout << "Error: refinement stopped; nothing was written" << std::endl;
        return 0;
    }

    const auto end = std::chrono::steady_clock::now();
    const long long seconds = std::chrono::duration_cast<std::chrono::seconds>(end - start).count();
    std::cout << "Tessaline_refine running time: " << seconds << "s" << std::endl;
    savePly(mesh, PathRefinedPLY);
    return 1;
}

}  // namespace

int runTessalineRefine(int argc, char** argv) {
    // The system's own code reports failures as lines; what the libraries
    // throw is caught here so that a run always ends in order.
    try {
        return run(argc, argv);
    } catch (const cv::Exception& e) {
        std::cout << "Error: image processing failed: " << e.what() << std::endl;
    } catch (const std::bad_alloc&) {
        std::cout << "Error: out of memory" << std::endl;
    } catch (const std::exception& e) {
        std::cout << "Error: " << e.what() << std::endl;
    }
    return 0;
}
