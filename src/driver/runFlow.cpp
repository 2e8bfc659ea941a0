#include "runFlow.h"

#include <sys/resource.h>

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
#include "processPlacement.h"
#include "processStart.h"
#include "rankOutput.h"
#include "refineMeshAtLevel.h"

namespace {

// Each path is held as a C string of at most 1023 characters.
constexpr size_t kMaxPathLength = 1023;

// The sizes of a level's images: from the images where this process holds
// them all, from the photographs' one size in a shared run.
std::vector<cv::Size> levelSizes(const std::vector<cv::Mat>& imgList, const SceneShare* share, float scale) {
    std::vector<cv::Size> sizes;
    for (const cv::Mat& img : imgList)
        sizes.push_back(share ? levelSize(share->photoSize, scale) : img.size());
    return sizes;
}

// The cameras this process renders for the facet selection: its references.
std::vector<bool> ownedCameras(const CameraShare& share) {
    std::vector<bool> owned(share.owner.size());
    for (size_t c = 0; c < owned.size(); ++c) owned[c] = share.owned(int(c));
    return owned;
}

}  // namespace

bool runLevels(TriMesh& mesh, const SfmScene& scene, int levelOfDetails, const DeviceHandle& device,
               const RefinementSettings& settings, const SceneShare* share) {
    if (share && !share->cameras.shared()) share = nullptr;  // one process holds everything
    std::vector<mycamera> cameraList;
    std::vector<cv::Mat> imgList;
    for (int level = 2; level >= 0; --level) {
        float scale = 1.0f;
        for (int k = 0; k < level; ++k) scale *= 0.5f;
        buildLevelData(scene, scale, cameraList, imgList);
        const LevelSettings& levelSettings = settings.levels[level];
        const std::vector<cv::Size> sizes = levelSizes(imgList, share, scale);
        const std::vector<bool> rendered = share ? ownedCameras(share->cameras) : std::vector<bool>();
        if (!subdivideMeshAdaptively(mesh, device, cameraList, sizes, sizes[0].width, sizes[0].height,
                                     settings.selection, levelSettings.division_passes, rendered))
            return false;
        if (level < levelOfDetails) break;
        std::cout << "mesh refining at level " << level << std::endl;
        const std::vector<uint8_t> roles = share ? share->cameras.roles : std::vector<uint8_t>();
        if (!refineMeshAtLevel(mesh, device, cameraList, imgList, scene.neighbourLists, levelSettings, settings,
                               roles))
            return false;
    }
    return true;
}

namespace {

struct RunArguments {
    std::string sfm, initialPly, refinedPly;
    int deviceIndex = 0;
    int levelOfDetails = 0;
};

// The command line, with its lines; false when it is refused.
bool parseArguments(int argc, char** argv, RunArguments& args) {
    if (argc < 4) {
        std::cout << "Please specify the paths of SFM file, initial PLY file and output PLY file... exit" << std::endl;
        return false;
    }
    for (int k = 1; k <= 3; ++k) {
        if (std::strlen(argv[k]) > kMaxPathLength) {
            std::cout << "Error: argument " << k << " is longer than " << kMaxPathLength
                      << " characters; use a shorter path" << std::endl;
            return false;
        }
    }
    args.sfm = argv[1], args.initialPly = argv[2], args.refinedPly = argv[3];
    std::cout << "PathSFM: " << args.sfm << std::endl;
    std::cout << "PathInitPLY: " << args.initialPly << std::endl;
    std::cout << "PathRefinedPLY: " << args.refinedPly << std::endl;
    if (argc > 4) {
        args.deviceIndex = args.levelOfDetails = std::atoi(argv[4]);
        if (args.levelOfDetails < 0 || args.levelOfDetails > 2) {
            std::cout << "Level of Details should be 0, 1 or 2." << std::endl;
            return false;
        }
    }
    std::cout << "CUDA_DEIVCE_INDEX " << args.deviceIndex << std::endl;
    std::cout << "Level of Details " << args.levelOfDetails << std::endl;
    std::cout << std::endl;
    return true;
}

// The device of this process, under the context that the environment asks
// for. The processes of a shared run on one machine take its CUDA devices
// in turn, or share its cores.
DeviceSetup startDevice(const RunArguments& args, const ProcessStart& processes) {
    std::vector<std::string> warnings;
    RunContext context = runContextFromEnvironment(warnings);
    for (const std::string& warning : warnings) std::cout << warning << std::endl;
    const int deviceIndex = placeProcess(context, processes, args.deviceIndex);
    const DeviceSetup setup = setupDevice(deviceIndex, context);
    std::cout << "Setting up CUDA device" << std::endl;
    std::cout << setup.description << std::endl;
    std::cout << "Device memory total: " << setup.totalMB << "MB" << std::endl;
    std::cout << "Device memory aviable: " << setup.freeMB << "MB" << std::endl;
    std::cout << std::endl;
    return setup;
}

void printStop(const std::string& what, const std::string& failedRanks) {
    std::cout << "Error: " << what << (failedRanks.empty() ? "" : " on rank " + failedRanks)
              << "; nothing was written" << std::endl;
}

// Each process's peak resident memory (host memory, which holds the
// kernels' buffers on the CPU backend), printed by the first process of a
// shared run, and with the profile.
void printPeakMemory(const ProcessGroup& group) {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::vector<uint64_t> kib(size_t(group.size), 0);
    kib[size_t(group.rank)] = uint64_t(usage.ru_maxrss);
    if (group.distributed() && !group.sumIntegers(kib.data(), kib.size())) return;
    std::cout << "Peak memory per process (MiB):";
    for (uint64_t k : kib) std::cout << " " << (k + 512) / 1024;
    std::cout << std::endl;
}

int run(int argc, char** argv, const ProcessStart& processes, RankOutput& output) {
    // The running time is wall-clock time: on the CPU backend several threads
    // work at once, and their summed processor time would overstate it.
    const auto start = std::chrono::steady_clock::now();
    const ProcessGroup& group = processes.group;
    RunArguments args;
    if (!parseArguments(argc, argv, args)) return 0;
    const DeviceSetup setup = startDevice(args, processes);

    const RefinementSettings settings;
    SfmScene scene;
    SceneShare share;
    std::string failed;
    const bool loaded = loadSceneShare(scene, args.sfm, settings, group, share);
    if (!everyProcessSucceeded(group, output, loaded, failed) || !agreeOnPhotoSize(scene, group, share)) {
        printStop("the scene could not be loaded", failed);
        return 0;
    }
    if (group.distributed())
        for (const std::string& line : describeShare(scene.neighbourLists, settings.pairs_per_camera, group.size))
            std::cout << "Process split: " << line << std::endl;
    TriMesh mesh;
    std::cout << std::endl;
    if (!everyProcessSucceeded(group, output, loadPly(mesh, args.initialPly), failed)) {
        printStop("the initial mesh could not be loaded", failed);
        return 0;
    }
    std::cout << std::endl;

    if (!everyProcessSucceeded(group, output, runLevels(mesh, scene, args.levelOfDetails, setup.device, settings, &share),
                               failed)) {
        printStop("refinement stopped", failed);
        return 0;
    }
    if (setup.device.context.profile || group.distributed()) printPeakMemory(group);
    const auto end = std::chrono::steady_clock::now();
    const long long seconds = std::chrono::duration_cast<std::chrono::seconds>(end - start).count();
    std::cout << "Tessaline_refine running time: " << seconds << "s" << std::endl;
    if (group.rank == 0) savePly(mesh, args.refinedPly);
    return 1;
}

// The run, with what the libraries throw caught, so that a run always ends
// in order; in a shared run a process that meets an exception ends the
// whole job, since the others cannot learn of it at their next sum.
int guardedRun(int argc, char** argv, const ProcessStart& processes, RankOutput& output) {
    try {
        return run(argc, argv, processes, output);
    } catch (const cv::Exception& e) {
        std::cout << "Error: image processing failed: " << e.what() << std::endl;
    } catch (const std::bad_alloc&) {
        std::cout << "Error: out of memory" << std::endl;
    } catch (const std::exception& e) {
        std::cout << "Error: " << e.what() << std::endl;
    }
    if (processes.group.distributed()) {
        output.relayOwnErrors();
        abortProcesses(0);
    }
    return 0;
}

}  // namespace

int runTessalineRefine(int argc, char** argv, const ProcessStart& processes) {
    RankOutput output(processes.group.rank);
    return guardedRun(argc, argv, processes, output);
}
