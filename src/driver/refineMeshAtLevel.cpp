#include "refineMeshAtLevel.h"

#include <climits>
#include <iostream>

#include "ProgramCUDA_optimization.h"
#include "levelData.h"
#include "meshConnectivity.h"

std::vector<unsigned char> buildPairMask(const std::vector<std::vector<int>>& neighbourLists, int num_cameras,
                                         int pairsPerCamera) {
    std::vector<unsigned char> pair_mask(size_t(num_cameras) * size_t(num_cameras), 0);
    const int lists = int(neighbourLists.size()) < num_cameras ? int(neighbourLists.size()) : num_cameras;
    for (int i = 0; i < lists; ++i) {
        const int listed = int(neighbourLists[i].size());
        const int m = listed < pairsPerCamera ? listed : pairsPerCamera;
        for (int j = 0; j < m; ++j) {
            const int k = neighbourLists[i][j];
            // The scene loader rejects indices outside the scene; this keeps
            // any other caller from writing past the table.
            if (k >= 0 && k < num_cameras) pair_mask[size_t(i) * num_cameras + k] = 1;
        }
    }
    return pair_mask;
}

namespace {

// The checks of the level's lists. They report as they always have; since
// nothing after them can work on an empty list or on images of unequal
// size, the level then ends and the run stops in order.
// Only the images this process holds are looked at (all of them for one
// process).
bool levelListsUsable(const std::vector<mycamera>& cameraList, const std::vector<cv::Mat>& imgList, bool shared) {
    if (imgList.empty()) {
        std::cout << "Error: imgList.size() <= 0" << std::endl;
        return false;
    }
    bool usable = true;
    if (cameraList.size() != imgList.size()) {
        std::cout << "Error: cameraList.size() != imgList.size()" << std::endl;
        usable = false;
    }
    const cv::Mat* first = nullptr;
    for (const cv::Mat& img : imgList) {
        if (shared && img.empty()) continue;
        if (!first) first = &img;
        if (img.cols != first->cols || img.rows != first->rows) {
            std::cout << "Error: current version does not support image with different size" << std::endl;
            usable = false;
        }
    }
    if (!usable) return false;
    if (!first) return true;  // this process holds no camera of the run
    // Counted over every camera, held or not, so that all processes of a
    // shared run decide alike.
    if ((long long)imgList.size() * first->cols * first->rows >= (long long)INT_MAX) {
        std::cout << "Error: the images of this level hold more than 2^31 pixels together" << std::endl;
        return false;
    }
    return true;
}

// The size of the level's images: that of the first one with pixels.
cv::Size levelImageSize(const std::vector<cv::Mat>& imgList) {
    for (const cv::Mat& img : imgList)
        if (!img.empty()) return img.size();
    return imgList.empty() ? cv::Size() : imgList[0].size();
}

}  // namespace

bool refineMeshAtLevel(TriMesh& mesh, const DeviceHandle& device, const std::vector<mycamera>& cameraList,
                       const std::vector<cv::Mat>& imgList, const std::vector<std::vector<int>>& neighbourLists,
                       const LevelSettings& level, const RefinementSettings& settings,
                       const std::vector<uint8_t>& roles) {
    if (!levelListsUsable(cameraList, imgList, !roles.empty())) return false;
    updateMeshConnectivity(mesh);
    FlatOneRings rings;
    if (!flattenOneRings(mesh, rings)) {
        std::cout << "Error: the mesh's one-rings hold more than 2^31 entries" << std::endl;
        return false;
    }
    const int num_cameras = int(cameraList.size());
    const std::vector<mycamera_cuda> cameras = narrowCameras(cameraList);
    const std::vector<unsigned char> image_stack = stackLevelImages(imgList);
    const std::vector<unsigned char> pair_mask = buildPairMask(neighbourLists, num_cameras, settings.pairs_per_camera);

    MeshOptimizationArgs args;
    args.num_v = mesh.num_v;
    args.vertices = mesh.vertices.data();
    args.num_f = mesh.num_f;
    args.facets = mesh.facets.data();
    args.num_valence_entries = int(rings.list.size());
    args.valence_list = rings.list.data();
    args.valence_counts = rings.counts.data();
    args.valence_offsets = rings.offsets.data();
    args.num_cameras = num_cameras;
    const cv::Size size = levelImageSize(imgList);
    args.width = size.width;
    args.height = size.height;
    args.cameras = cameras.data();
    args.images = image_stack.data();
    args.iterations = level.iterations;
    args.pair_mask = pair_mask.data();
    args.first_order_smoothing = level.first_order_smoothing;
    args.steps = settings.steps;
    args.halfWindow = settings.ncc_half_window;
    args.adaptive = settings.adaptive;
    args.camera_roles = roles.empty() ? nullptr : roles.data();
    return Integrated_Mesh_Optimization_CUDA(device, args) == DeviceStatus::Ok;
}
