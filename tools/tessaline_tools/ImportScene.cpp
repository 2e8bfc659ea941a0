#include "ImportScene.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <iostream>
#include <locale>
#include <map>
#include <set>
#include <sstream>

#include <opencv2/imgcodecs.hpp>

#include "FileIO.h"
#include "ImportPhotographs.h"
#include "SceneOffset.h"
#include "ToolError.h"
#include "plyIO.h"

namespace fs = std::filesystem;

namespace tessaline_tools {

namespace {

constexpr double kGoodAngleDeg = 5.0;
constexpr double kBoxPadding = 0.05;

bool isImageFile(const fs::path& p) {
    const std::string ext = lowerCaseExtension(p.string());
    static const std::set<std::string> exts = {".png", ".jpg", ".jpeg", ".tif", ".tiff", ".bmp",
                                               ".ppm", ".pgm",  ".pnm",  ".webp", ".jp2"};
    return exts.count(ext) > 0;
}

std::string formatSceneFile(const std::vector<ImportView>& views, const double box[6],
                            const std::vector<std::vector<int>>& neighbours) {
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out.precision(17);
    out << views.size() << "\n";
    for (const ImportView& v : views) {
        out << v.scenePath;
        for (double r : v.camera.R) out << ' ' << r;
        for (double t : v.camera.t) out << ' ' << t;
        out << ' ' << v.camera.fx << ' ' << v.camera.fy << ' ' << v.camera.cx << ' ' << v.camera.cy << "\n";
    }
    // The tool reads the box as float32: nine digits give it back exactly.
    out.precision(9);
    out << float(box[0]) << ' ' << float(box[3]) << ' ' << float(box[1]) << ' ' << float(box[4]) << ' '
        << float(box[2]) << ' ' << float(box[5]) << "\n";
    for (size_t i = 0; i < neighbours.size(); ++i) {
        out << i << ' ' << neighbours[i].size();
        for (int j : neighbours[i]) out << ' ' << j;
        out << "\n";
    }
    return out.str();
}

}  // namespace

void quaternionToRotation(const double q[4], double R[9]) {
    const double n = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
    const double w = q[0] / n, x = q[1] / n, y = q[2] / n, z = q[3] / n;
    R[0] = 1 - 2 * (y * y + z * z);
    R[1] = 2 * (x * y - w * z);
    R[2] = 2 * (x * z + w * y);
    R[3] = 2 * (x * y + w * z);
    R[4] = 1 - 2 * (x * x + z * z);
    R[5] = 2 * (y * z - w * x);
    R[6] = 2 * (x * z - w * y);
    R[7] = 2 * (y * z + w * x);
    R[8] = 1 - 2 * (x * x + y * y);
}

mycamera cameraFromColmap(const ColmapCamera& camera, const ColmapImage& image) {
    const LensCamera lens = lensOfColmapCamera(camera);
    mycamera c;
    c.fx = lens.fx;
    c.fy = lens.fy;
    c.cx = lens.cx;
    c.cy = lens.cy;
    quaternionToRotation(image.q, c.R);
    for (int k = 0; k < 3; ++k) c.t[k] = image.t[k];
    updateIntrinsicMatrices(c);
    updateProjectionMatrix(c);
    return c;
}

std::vector<std::vector<int>> rankNeighbours(const ColmapModel& model, const std::vector<int>& order,
                                             int maxNeighbours) {
    const size_t n = order.size();
    std::map<int, int> sceneIndex;  // model image index to scene camera
    std::vector<std::array<double, 3>> centres(n);
    for (size_t i = 0; i < n; ++i) {
        sceneIndex[order[i]] = int(i);
        const ColmapImage& image = model.images[size_t(order[i])];
        double R[9];
        quaternionToRotation(image.q, R);
        for (int k = 0; k < 3; ++k)
            centres[i][size_t(k)] = -(R[k] * image.t[0] + R[3 + k] * image.t[1] + R[6 + k] * image.t[2]);
    }

    std::vector<double> score(n * n, 0.0);
    std::vector<int> seen;
    const double goodAngle = kGoodAngleDeg * M_PI / 180.0;
    for (const ColmapPoint3D& p : model.points) {
        seen.clear();
        for (const ColmapTrackElement& el : p.track) {
            const auto it = sceneIndex.find(model.findImage(el.imageId));
            if (it != sceneIndex.end() && std::find(seen.begin(), seen.end(), it->second) == seen.end())
                seen.push_back(it->second);
        }
        for (size_t a = 0; a < seen.size(); ++a)
            for (size_t b = a + 1; b < seen.size(); ++b) {
                double ra[3], rb[3];
                for (int k = 0; k < 3; ++k) {
                    ra[k] = centres[size_t(seen[a])][size_t(k)] - p.xyz[k];
                    rb[k] = centres[size_t(seen[b])][size_t(k)] - p.xyz[k];
                }
                const double la = std::sqrt(ra[0] * ra[0] + ra[1] * ra[1] + ra[2] * ra[2]);
                const double lb = std::sqrt(rb[0] * rb[0] + rb[1] * rb[1] + rb[2] * rb[2]);
                if (!(la > 0) || !(lb > 0)) continue;
                const double cosA = (ra[0] * rb[0] + ra[1] * rb[1] + ra[2] * rb[2]) / (la * lb);
                const double angle = std::acos(std::max(-1.0, std::min(1.0, cosA)));
                const double w = std::min(1.0, angle / goodAngle);
                score[size_t(seen[a]) * n + size_t(seen[b])] += w;
                score[size_t(seen[b]) * n + size_t(seen[a])] += w;
            }
    }

    std::vector<std::vector<int>> lists(n);
    for (size_t i = 0; i < n; ++i) {
        std::vector<int> others;
        for (size_t j = 0; j < n; ++j)
            if (j != i && score[i * n + j] > 0) others.push_back(int(j));
        std::stable_sort(others.begin(), others.end(),
                         [&](int a, int b) { return score[i * n + size_t(a)] > score[i * n + size_t(b)]; });
        if (others.size() > size_t(maxNeighbours)) others.resize(size_t(maxNeighbours));
        lists[i] = others;
    }
    return lists;
}

void paddedMeshBox(const MeshData& mesh, double box[6]) {
    for (int k = 0; k < 3; ++k) {
        box[k] = HUGE_VAL;
        box[3 + k] = -HUGE_VAL;
    }
    for (size_t i = 0; i < mesh.vertices.size(); i += 3)
        for (int k = 0; k < 3; ++k) {
            box[k] = std::min(box[k], mesh.vertices[i + size_t(k)]);
            box[3 + k] = std::max(box[3 + k], mesh.vertices[i + size_t(k)]);
        }
    const double side = std::max({box[3] - box[0], box[4] - box[1], box[5] - box[2]});
    for (int k = 0; k < 3; ++k) {
        box[k] -= kBoxPadding * side;
        box[3 + k] += kBoxPadding * side;
    }
}

namespace {

// What an import writes, besides the cameras.
struct ImportScene {
    MeshData mesh;  // moved by the offset
    cv::Size size;  // of every photograph in scene.sfm
    std::vector<std::vector<int>> neighbours;
    SceneOffset offset;
    double box[6] = {0, 0, 0, 0, 0, 0};
};

ColmapModel readAndReportModel(const std::string& modelDir) {
    ColmapModel model = readColmapModel(modelDir);
    std::cout << "model " << modelDir << " (" << (model.format == ColmapFormat::Binary ? "binary" : "text")
              << "): " << model.cameras.size() << " cameras, " << model.images.size() << " registered images, "
              << model.points.size() << " points" << std::endl;
    return model;
}

MeshData readAndReportMesh(const std::string& meshPath) {
    MeshData mesh = readMeshFile(meshPath);
    if (mesh.numVertices() == 0 || mesh.numFacets() == 0) throw ToolError("the mesh " + meshPath + " is empty");
    std::cout << "mesh " << meshPath << ": " << mesh.numVertices() << " vertices, " << mesh.numFacets()
              << " triangles";
    if (mesh.polygonsSplit > 0) std::cout << " (" << mesh.polygonsSplit << " polygons split into triangles)";
    std::cout << std::endl;
    return mesh;
}

// The registered images as cameras, ordered by image name.
std::vector<ImportView> viewsByName(const ColmapModel& model) {
    std::vector<ImportView> views(model.images.size());
    for (size_t i = 0; i < model.images.size(); ++i) views[i].modelIndex = int(i);
    std::sort(views.begin(), views.end(), [&](const ImportView& a, const ImportView& b) {
        return model.images[size_t(a.modelIndex)].name < model.images[size_t(b.modelIndex)].name;
    });
    if (views.size() < 2)
        throw ToolError("the model registers " + std::to_string(views.size()) + " images; the tool needs at least two");
    for (ImportView& v : views) {
        const ColmapImage& image = model.images[size_t(v.modelIndex)];
        const ColmapCamera& camera = model.cameras.at(image.cameraId);
        v.name = image.name;
        v.lens = lensOfColmapCamera(camera);
        v.modelSize = cv::Size(int(camera.width), int(camera.height));
        quaternionToRotation(image.q, v.camera.R);
        for (int k = 0; k < 3; ++k) v.camera.t[k] = image.t[k];
    }
    return views;
}

// Names the photographs in the folder that the model left out.
void reportLeftOut(const std::vector<ImportView>& views, const fs::path& imageDir) {
    std::set<std::string> registered;
    for (const ImportView& v : views) registered.insert(v.name);
    std::vector<std::string> leftOut;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(imageDir, fs::directory_options::skip_permission_denied, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        if (!it->is_regular_file(ec) || !isImageFile(it->path())) continue;
        const std::string rel = it->path().lexically_relative(imageDir).generic_string();
        if (!registered.count(rel)) leftOut.push_back(rel);
    }
    std::sort(leftOut.begin(), leftOut.end());
    if (leftOut.empty()) return;
    std::cout << "left out " << leftOut.size() << " image" << (leftOut.size() > 1 ? "s" : "")
              << " the model did not register:";
    for (const std::string& name : leftOut) std::cout << ' ' << name;
    std::cout << std::endl;
}

// Warns when fewer than half of the model's points lie in the box.
void checkPointsInBox(const ColmapModel& model, const double box[6]) {
    size_t inside = 0;
    for (const ColmapPoint3D& p : model.points) {
        bool in = true;
        for (int k = 0; k < 3; ++k) in = in && p.xyz[k] >= box[k] && p.xyz[k] <= box[3 + k];
        inside += in;
    }
    if (!model.points.empty() && inside * 2 < model.points.size())
        std::cout << "Warning: only " << inside << " of the model's " << model.points.size()
                  << " points lie in the mesh's box; is the mesh in the model's frame?" << std::endl;
}

void printNeighboursAndBox(const std::vector<ImportView>& views, const std::vector<std::vector<int>>& neighbours,
                           const double box[6]) {
    for (size_t i = 0; i < views.size(); ++i) {
        std::cout << "camera " << i << " " << views[i].name << ": neighbours";
        for (int j : neighbours[i]) std::cout << ' ' << j;
        if (neighbours[i].empty()) std::cout << " none (it shares no points with another image)";
        std::cout << std::endl;
    }
    std::cout << "bounding box " << box[0] << ' ' << box[3] << ' ' << box[1] << ' ' << box[4] << ' ' << box[2]
              << ' ' << box[5] << std::endl;
}

// Removes the folders made by a failed import (only while they are empty),
// the last made first.
void removeFolders(const std::vector<std::string>& folders) {
    std::error_code ec;
    for (auto it = folders.rbegin(); it != folders.rend(); ++it) fs::remove(*it, ec);
}

// Writes the resampled photographs, scene.sfm, mesh.ply and, for a moved
// model, offset.txt into the output folder (made if missing, and removed
// again when it was made here and nothing could be written). An offset.txt
// left by an earlier import into the folder goes.
void writeImport(const ImportOptions& options, const std::vector<ImportView>& views, const ImportScene& scene) {
    const fs::path outDir(options.outDir);
    std::error_code ec;
    std::vector<std::string> created;
    if (!fs::exists(outDir, ec)) created.push_back(outDir.string());
    fs::create_directories(outDir, ec);
    if (ec || !fs::is_directory(outDir, ec)) throw ToolError("cannot make the output folder " + options.outDir);
    try {
        auto files = writeResampledPhotographs(views, scene.size, options.imageDir, options.outDir, created);
        const std::string offsetPath = (outDir / "offset.txt").string();
        if (scene.offset.applied) files.push_back(std::make_unique<PendingFile>(offsetPath, offsetText(scene.offset)));
        // The scene file is committed last: once it is there, so is all it needs.
        const std::string scenePath = (outDir / "scene.sfm").string();
        files.push_back(std::make_unique<PendingFile>(scenePath, formatSceneFile(views, scene.box, scene.neighbours)));
        const std::string meshPath = (outDir / "mesh.ply").string();
        if (!savePly(toTriMesh(scene.mesh), meshPath)) throw ToolError("cannot write " + meshPath);
        if (!scene.offset.applied) fs::remove(offsetPath, ec);
        for (auto& file : files) file->commit();
        std::cout << "wrote " << scenePath << " (" << views.size() << " cameras, " << scene.size.width << "x"
                  << scene.size.height << ") and " << meshPath << std::endl;
    } catch (...) {
        removeFolders(created);
        throw;
    }
}

// Moves mesh, cameras and the model's points by the offset the mesh calls
// for, and says so.
SceneOffset moveNearOrigin(MeshData& mesh, std::vector<ImportView>& views, ColmapModel& model) {
    const SceneOffset offset = chooseOffset(mesh);
    if (!offset.applied) return offset;
    shiftMesh(mesh, offset);
    for (ImportView& v : views) shiftTranslation(v.camera.R, v.camera.t, offset);
    for (ColmapPoint3D& p : model.points)
        for (int k = 0; k < 3; ++k) p.xyz[k] -= offset.xyz[k];
    std::string text = offsetText(offset);
    text.pop_back();
    std::cout << "the model lies far from the origin: moved by -(" << text
              << "); offset.txt holds the offset to add back to refined meshes" << std::endl;
    return offset;
}

}  // namespace

void runImport(const ImportOptions& options) {
    if (options.neighbours < 1) throw ToolError("--neighbours must be at least 1");
    ColmapModel model = readAndReportModel(options.modelDir);
    ImportScene scene;
    scene.mesh = readAndReportMesh(options.meshPath);
    std::vector<ImportView> views = viewsByName(model);
    scene.size = checkPhotographs(views, options.imageDir);
    reportLeftOut(views, fs::path(options.imageDir));
    planPhotographs(views, scene.size, options.imageDir, options.outDir);

    std::vector<int> order;
    for (const ImportView& v : views) order.push_back(v.modelIndex);
    scene.neighbours = rankNeighbours(model, order, options.neighbours);
    scene.offset = moveNearOrigin(scene.mesh, views, model);
    for (ImportView& v : views) {
        updateIntrinsicMatrices(v.camera);
        updateProjectionMatrix(v.camera);
    }
    paddedMeshBox(scene.mesh, scene.box);
    checkPointsInBox(model, scene.box);
    printNeighboursAndBox(views, scene.neighbours, scene.box);
    // Everything is checked; now write.
    writeImport(options, views, scene);
}

}  // namespace tessaline_tools
