// Scene.from_colmap: the importer writes the scene file into a temporary
// folder, which is read back like any scene file and then removed.
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <nanobind/nanobind.h>

#include "ColmapModel.h"
#include "ImportScene.h"
#include "LibraryCall.h"
#include "SceneSources.h"
#include "ToolError.h"
#include "plyIO.h"

namespace nb = nanobind;
namespace fs = std::filesystem;

namespace {

// A fresh folder under the system's temporary folder, removed with all it
// holds when the object goes.
class TemporaryFolder {
   public:
    TemporaryFolder() {
        std::string pattern = (fs::temp_directory_path() / "tessaline-XXXXXX").string();
        if (mkdtemp(pattern.data())) path_ = pattern;
    }
    ~TemporaryFolder() {
        std::error_code ec;
        if (!path_.empty()) fs::remove_all(path_, ec);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    const std::string& path() const { return path_; }

   private:
    std::string path_;
};

// The importer takes its box from a mesh; without one, a triangle across
// the extent of the model's points stands in (the box is only reported).
TriMesh extentTriangle(const tessaline_tools::ColmapModel& model) {
    float lo[3] = {0.0f, 0.0f, 0.0f}, hi[3] = {1.0f, 1.0f, 1.0f};
    for (size_t p = 0; p < model.points.size(); ++p)
        for (int k = 0; k < 3; ++k) {
            const float x = float(model.points[p].xyz[k]);
            lo[k] = p == 0 ? x : std::fmin(lo[k], x);
            hi[k] = p == 0 ? x : std::fmax(hi[k], x);
        }
    TriMesh mesh;
    mesh.num_v = 3;
    mesh.num_f = 1;
    mesh.vertices = {lo[0], lo[1], lo[2], hi[0], hi[1], hi[2], lo[0], hi[1], lo[2]};
    mesh.facets = {0, 1, 2};
    return mesh;
}

void runImportInto(const TemporaryFolder& folder, const tessaline_tools::ImportOptions& options) {
    if (folder.path().empty()) throw tessaline_tools::ToolError("cannot make a temporary folder");
    const tessaline_tools::ColmapModel model = tessaline_tools::readColmapModel(options.modelDir);
    if (!savePly(extentTriangle(model), options.meshPath))
        throw tessaline_tools::ToolError("cannot write " + options.meshPath);
    tessaline_tools::runImport(options);
}

// A model far from the origin is moved near it by the import, which keeps
// the offset beside the scene file. The package holds meshes in float32 in
// the model's own frame, so a moved scene would not meet the user's mesh:
// such a model is refused, naming the command that moves it and back.
void refuseMovedModel(const std::string& sceneDir) {
    std::ifstream in(sceneDir + "/offset.txt");
    std::string offset;
    if (!in.is_open() || !std::getline(in, offset)) return;
    throw nb::value_error(("the model lies far from the origin (the import would move it by " + offset +
                           "), and Scene.from_colmap keeps the model's own frame: refine it with "
                           "tessaline refine --colmap, which moves it and writes the result back in its frame")
                              .c_str());
}

}  // namespace

SfmScene importColmapScene(const std::string& modelDir, const std::string& imageDir, int neighbours) {
    TemporaryFolder folder;
    tessaline_tools::ImportOptions options;
    options.modelDir = modelDir;
    options.imageDir = imageDir;
    options.meshPath = folder.path() + "/extent.ply";
    options.outDir = folder.path() + "/scene";
    options.neighbours = neighbours;
    std::string failure;
    runCaptured([&](OutputCapture&) {
        try {
            runImportInto(folder, options);
        } catch (const tessaline_tools::ToolError& e) {
            failure = e.what();
        }
    });
    if (!failure.empty()) throw nb::value_error(failure.c_str());
    refuseMovedModel(options.outDir);
    SfmScene scene = loadSceneFile(options.outDir + "/scene.sfm", options.outDir);
    // The folder goes away: name each photograph by its full path.
    for (std::string& path : scene.imagePaths)
        path = fs::weakly_canonical(fs::path(options.outDir) / path).string();
    return scene;
}
