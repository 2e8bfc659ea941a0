#include "RefineRun.h"

#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <iostream>
#include <optional>

#include "AnyMesh.h"
#include "CommandLine.h"
#include "CoordinateOffset.h"
#include "ImportScene.h"
#include "Job.h"
#include "LibraryOutput.h"
#include "MemoryCheck.h"
#include "MeshWriters.h"
#include "Progress.h"
#include "SceneInput.h"
#include "ToolError.h"
#include "cameraShare.h"
#include "processPlacement.h"
#include "runFlow.h"
#include "sharedScene.h"

namespace tessaline::frontend {

namespace {

namespace fs = std::filesystem;

// The folder a COLMAP model is imported into: the one --keep-work names, or
// a fresh one in the system's temporary folder, removed with this record.
class WorkFolder {
   public:
    explicit WorkFolder(const std::string& keep) {
        if (!keep.empty()) {
            path_ = keep;
            return;
        }
        std::string pattern = (fs::temp_directory_path() / "tessaline-work-XXXXXX").string();
        if (!mkdtemp(pattern.data())) throw tessaline_tools::ToolError("cannot make a work folder in " +
                                                                       fs::temp_directory_path().string());
        path_ = pattern;
        remove_ = true;
    }
    ~WorkFolder() {
        std::error_code ec;
        if (remove_) fs::remove_all(path_, ec);
    }
    WorkFolder(const WorkFolder&) = delete;
    WorkFolder& operator=(const WorkFolder&) = delete;
    const std::string& path() const { return path_; }

   private:
    std::string path_;
    bool remove_ = false;
};

std::vector<int> refinedLevels(int finestLevel) {
    std::vector<int> levels;
    for (int level = 2; level >= finestLevel; --level) levels.push_back(level);
    return levels;
}

long long peakMiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return (usage.ru_maxrss + 512) / 1024;
}

// Loads and scales the scene of a process on its own: every photograph.
bool loadWholeScene(const RefineRequest& request, const std::string& scenePath, SfmScene& scene) {
    if (!loadSceneBesideFile(scene, scenePath) || scene.images.empty()) return false;
    std::vector<memory::ImageSize> sizes;
    for (const cv::Mat& image : scene.images) sizes.push_back({image.cols, image.rows});
    scaleScene(scene, scaleForLongestSide(sizes, request.maxImageSide));
    return true;
}

// Loads and scales the scene of a process of a shared run: the photographs
// it holds, after every process has them and all have one size.
bool loadSceneShareOf(const RefineRequest& request, const std::string& scenePath, AgreedSteps& steps,
                      SfmScene& scene, SceneShare& share) {
    const ProcessGroup& group = jobProcesses().group;
    const bool loaded = loadSceneShare(scene, scenePath, request.settings, group, share,
                                       [&](const std::string& p) { return photographPath(scenePath, p); });
    if (!steps.passed(loaded) || !agreeOnPhotoSize(scene, group, share)) return false;
    const memory::ImageSize size{share.photoSize.width, share.photoSize.height};
    const std::vector<memory::ImageSize> sizes(scene.cameras.size(), size);
    const memory::ImageSize scaled = scaleSharedScene(scene, scaleForLongestSide(sizes, request.maxImageSide), size);
    share.photoSize = cv::Size(scaled.width, scaled.height);
    return true;
}

// Loads, scales and refines; `mesh` holds the result when every process
// got through (it has printed why when not).
bool refineScene(const RefineRequest& request, const std::string& scenePath, const DeviceSetup& setup,
                 AgreedSteps& steps, TriMesh& mesh, std::ostream& out) {
    SfmScene scene;
    SceneShare share;
    const bool shared = jobProcesses().group.distributed();
    if (shared ? !loadSceneShareOf(request, scenePath, steps, scene, share)
               : !steps.passed(loadWholeScene(request, scenePath, scene)))
        return false;
    const cv::Size size = shared ? share.photoSize : scene.images[0].size();
    if (!request.quiet)
        out << "Photographs: " << scene.images.size() << ", " << size.width << "x" << size.height
            << " pixels as refined" << std::endl;
    if (shared && !request.quiet)
        for (const std::string& line :
             describeShare(scene.neighbourLists, request.settings.pairs_per_camera, jobProcesses().group.size))
            out << "Process split: " << line << std::endl;
    // The launcher forwards a shared run's output line by line: no bar.
    const progress::ProgressStyle style = shared && !request.quiet
                                              ? progress::ProgressStyle::Lines
                                              : progress::progressStyleFor(STDOUT_FILENO, request.quiet);
    progress::ProgressReport report(refinedLevels(request.finestLevel), style, out);
    DeviceHandle device = setup.device;
    device.context.onIteration = [&report](long long done, long long total) {
        return report.iterationDone(done, total);
    };
    const bool refined = runLevels(mesh, scene, request.finestLevel, device, request.settings, shared ? &share : nullptr);
    report.finish();
    return steps.passed(refined, "refinement stopped; nothing was written");
}

void printResult(const RefineRequest& request, const TriMesh& mesh, const MemoryVerdict& verdict,
                 std::chrono::steady_clock::time_point start, std::ostream& out) {
    const long long seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start).count();
    out << "Running time: " << seconds << " s; peak memory " << peakMiB() << " MiB (estimated "
        << std::llround(double(verdict.need.peakHostBytes) / (1024.0 * 1024.0)) << " MiB)" << std::endl;
    out << "Written " << request.outPath << ": " << mesh.num_v << " vertices, " << mesh.num_f << " facets"
        << std::endl;
}

// The offset, the device and the mesh, each step agreed by every process.
bool prepareRun(const RefineRequest& request, const std::string& scenePath, const std::string& meshPath,
                AgreedSteps& steps, double offset[3], DeviceSetup& setup, TriMesh& mesh, std::ostream& out) {
    std::string error;
    if (!steps.passed(offset::readCoordinateOffset(fs::path(scenePath).parent_path().string(), offset, error), error))
        return false;
    if (!steps.passed(chooseDevice(request, setup, error), error)) return false;
    out << setup.description << std::endl;
    if (!steps.passed(tessaline_tools::readAnyMesh(meshPath, mesh, error), error)) return false;
    if (!steps.passed(fs::is_directory(fs::absolute(request.outPath).parent_path()),
                      "the folder of " + request.outPath + " does not exist"))
        return false;
    out << "Mesh: " << mesh.num_v << " vertices, " << mesh.num_f << " facets" << std::endl;
    return true;
}

// In a shared run every process prints to its own captured output (RankOutput),
// and only the first writes the mesh.
int refineFromFiles(const RefineRequest& request, const std::string& scenePath, const std::string& meshPath) {
    const auto start = std::chrono::steady_clock::now();
    const ProcessGroup& group = jobProcesses().group;
    RankOutput rankOutput(group.rank);
    AgreedSteps steps(group, rankOutput);
    LibraryOutput library;
    std::ostream& out = library.user();
    double offset[3];
    DeviceSetup setup;
    TriMesh mesh;
    if (!prepareRun(request, scenePath, meshPath, steps, offset, setup, mesh, out)) return cli::kFailure;
    MemoryVerdict verdict;
    std::string error;
    const bool checked = checkMemory(request, scenePath, mesh, setup, out, verdict, error);
    if (!steps.passed(checked, error) || !steps.passed(verdict.fits)) return cli::kFailure;
    if (request.dryRun) return cli::kSuccess;
    if (!refineScene(request, scenePath, setup, steps, mesh, out)) return cli::kFailure;
    if (group.rank == 0 && !writers::writeMeshFile(request.outPath, mesh, offset, error)) return cli::fail(error);
    printResult(request, mesh, verdict, start, out);
    return cli::kSuccess;
}

}  // namespace

bool chooseDevice(const RefineRequest& request, DeviceSetup& setup, std::string& error) {
    RunContext context = cli::runContext();
    if (request.threads > 0) context.threads = request.threads;
    if (request.backend == BackendChoice::Cpu) context.cpuOnly = true;
    if (request.backend == BackendChoice::Cuda) {
        context.cpuOnly = false;
        if (!cudaDeviceAvailable()) {
            error = "--device asks for CUDA and no CUDA device answers (or the build has no CUDA)";
            return false;
        }
        if (request.deviceIndex >= cudaDeviceCount()) {
            error = "--device " + std::to_string(request.deviceIndex) + ": there are " +
                    std::to_string(cudaDeviceCount()) + " CUDA devices";
            return false;
        }
    }
    setup = setupDevice(placeProcess(context, jobProcesses(), request.deviceIndex), context);
    return true;
}

int runRefine(const RefineRequest& request) {
    if (!request.fromColmap()) return refineFromFiles(request, request.scenePath, request.meshPath);
    // Every process of a shared run imports the model (the same bytes) into
    // a work folder of its own; the first keeps its folder when asked to.
    const WorkFolder work(jobProcesses().group.rank == 0 ? request.keepWorkDir : "");
    tessaline_tools::ImportOptions import;
    import.modelDir = request.colmapDir;
    import.imageDir = request.imageDir;
    import.meshPath = request.meshPath;
    import.outDir = work.path();
    import.neighbours = request.neighbours;
    {
        // --quiet keeps the import's report of cameras and neighbours too.
        std::optional<LibraryOutput> quietImport;
        if (request.quiet) quietImport.emplace();
        tessaline_tools::runImport(import);
    }
    return refineFromFiles(request, (fs::path(work.path()) / "scene.sfm").string(),
                           (fs::path(work.path()) / "mesh.ply").string());
}

}  // namespace tessaline::frontend
