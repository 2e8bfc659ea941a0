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
#include "LibraryOutput.h"
#include "MemoryCheck.h"
#include "MeshWriters.h"
#include "Progress.h"
#include "SceneInput.h"
#include "ToolError.h"
#include "runFlow.h"

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

// Loads, scales and refines; `mesh` holds the result when it returns true.
bool refineScene(const RefineRequest& request, const std::string& scenePath, const DeviceSetup& setup,
                 TriMesh& mesh, std::ostream& out) {
    SfmScene scene;
    if (!loadSceneBesideFile(scene, scenePath) || scene.images.empty()) return false;
    std::vector<memory::ImageSize> sizes;
    for (const cv::Mat& image : scene.images) sizes.push_back({image.cols, image.rows});
    scaleScene(scene, scaleForLongestSide(sizes, request.maxImageSide));
    if (!request.quiet)
        out << "Photographs: " << scene.images.size() << ", " << scene.images[0].cols << "x" << scene.images[0].rows
            << " pixels as refined" << std::endl;
    progress::ProgressReport report(refinedLevels(request.finestLevel),
                                    progress::progressStyleFor(STDOUT_FILENO, request.quiet), out);
    DeviceHandle device = setup.device;
    device.context.onIteration = [&report](long long done, long long total) {
        return report.iterationDone(done, total);
    };
    const bool refined = runLevels(mesh, scene, request.finestLevel, device, request.settings);
    report.finish();
    return refined;
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

int refineFromFiles(const RefineRequest& request, const std::string& scenePath, const std::string& meshPath) {
    const auto start = std::chrono::steady_clock::now();
    LibraryOutput library;
    std::ostream& out = library.user();
    double offset[3];
    std::string error;
    if (!offset::readCoordinateOffset(fs::path(scenePath).parent_path().string(), offset, error))
        return cli::fail(error);
    DeviceSetup setup;
    if (!chooseDevice(request, setup, error)) return cli::fail(error);
    out << setup.description << std::endl;
    TriMesh mesh;
    if (!tessaline_tools::readAnyMesh(meshPath, mesh, error)) return cli::fail(error);
    if (!fs::is_directory(fs::absolute(request.outPath).parent_path()))
        return cli::fail("the folder of " + request.outPath + " does not exist");
    out << "Mesh: " << mesh.num_v << " vertices, " << mesh.num_f << " facets" << std::endl;
    MemoryVerdict verdict;
    if (!checkMemory(request, scenePath, mesh, setup, out, verdict, error)) return cli::fail(error);
    if (!verdict.fits) return cli::kFailure;
    if (request.dryRun) return cli::kSuccess;
    if (!refineScene(request, scenePath, setup, mesh, out)) return cli::fail("refinement stopped; nothing was written");
    if (!writers::writeMeshFile(request.outPath, mesh, offset, error)) return cli::fail(error);
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
    setup = setupDevice(request.deviceIndex, context);
    return true;
}

// The size of the job when an MPI launcher (mpirun, or srun under SLURM)
// started this program as one of several processes; 1 otherwise.
int launchedProcesses() {
    for (const char* name : {"OMPI_COMM_WORLD_SIZE", "PMI_SIZE", "SLURM_STEP_NUM_TASKS"})
        if (const char* value = getenv(name)) return std::max(1, std::atoi(value));
    return 1;
}

int runRefine(const RefineRequest& request) {
    // Each process would refine the whole scene and write the same file:
    // say how a run is shared instead.
    if (const int processes = launchedProcesses(); processes > 1)
        return cli::fail("tessaline refine runs as one process, and this launch started " +
                         std::to_string(processes) + "; to share a run, import the scene (tessaline import) and "
                         "start mpirun -n " + std::to_string(processes) +
                         " tessaline_refine scene.sfm mesh.ply refined.ply from its folder");
    if (!request.fromColmap()) return refineFromFiles(request, request.scenePath, request.meshPath);
    const WorkFolder work(request.keepWorkDir);
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
