#include "refineMeshAtLevel.h"

#include <climits>
#include <cstring>
#include <iostream>

#include "ProgramCUDA_optimization.h"

std::vector<unsigned char> buildPairMask(const std::vector<std::vector<int>>& neighbourLists, int num_cameras) {
    std::vector<unsigned char> pair_mask(size_t(num_cameras) * size_t(num_cameras), 0);
    const int lists = int(neighbourLists.size()) < num_cameras ? int(neighbourLists.size()) : num_cameras;
    for (int i = 0; i < lists; ++i) {
        const int m = neighbourLists[i].size() < 6 ? int(neighbourLists[i].size()) : 6;
        for (int j = 0; j < m; ++j) {
            const int k = neighbourLists[i][j];
            // The scene loader rejects indices outside the scene; this keeps
            // any other caller from writing past the table.
            if (k >= 0 && k < num_cameras) pair_mask[size_t(i) * num_cameras + k] = 1;
        }
    }
    return pair_mask;
}

bool refineMeshAtLevel(TriMesh& mesh, const DeviceHandle& device, const std::vector<mycamera>& cameraList,
                       const std::vector<cv::Mat>& imgList, const std::vector<std::vector<int>>& neighbourLists,
                       int iterations, bool first_order_smoothing) {
    // The checks report as they always have; since nothing after them can
    // work on an empty list or on images of unequal size, the call then
    // ends and the run stops in order.
    bool usable = true;
    if (imgList.empty()) {
        std::cout << "Error: imgList.size() <= 0" << std::endl;
        return false;
    }
    if (cameraList.size() != imgList.size()) {
        std::cout << "Error: cameraList.size() != imgList.size()" << std::endl;
        usable = false;
    }
    for (const cv::Mat& img : imgList) {
        if (img.cols != imgList[0].cols || img.rows != imgList[0].rows) {
            std::cout << "Error: current version does not support image with different size" << std::endl;
            usable = false;
        }
    }
    if (!usable) return false;

    const int num_cameras = int(cameraList.size());
    const int width = imgList[0].cols;
    const int height = imgList[0].rows;
    if ((long long)num_cameras * width * height >= (long long)INT_MAX) {
        std::cout << "Error: the images of this level hold more than 2^31 pixels together" << std::endl;
        return false;
    }

    std::vector<mycamera_cuda> cameras_cuda(num_cameras);
    for (int i = 0; i < num_cameras; ++i) toCameraCuda(cameras_cuda[i], cameraList[i]);

    const size_t imageBytes = size_t(width) * size_t(height);
    std::vector<unsigned char> image_stack(imageBytes * num_cameras);
    for (int i = 0; i < num_cameras; ++i) {
        const cv::Mat& img = imgList[i];
        if (img.isContinuous()) {
            std::memcpy(image_stack.data() + i * imageBytes, img.data, imageBytes);
        } else {
            for (int y = 0; y < height; ++y)
                std::memcpy(image_stack.data() + i * imageBytes + size_t(y) * width, img.ptr(y), size_t(width));
        }
    }

    updateMeshConnectivity(mesh);
    long long entries = 0;
    for (const auto& ring : mesh.valences) entries += (long long)ring.size();
    if (entries > INT_MAX) {
        std::cout << "Error: the mesh's one-rings hold more than 2^31 entries" << std::endl;
        return false;
    }
    const int num_valence_entries = int(entries);
    std::vector<int> valence_list;
    std::vector<int> valence_counts(mesh.num_v), valence_offsets(mesh.num_v);
    valence_list.reserve(num_valence_entries);
    for (int v = 0; v < mesh.num_v; ++v) {
        valence_offsets[v] = int(valence_list.size());
        valence_counts[v] = int(mesh.valences[v].size());
        valence_list.insert(valence_list.end(), mesh.valences[v].begin(), mesh.valences[v].end());
    }

    const std::vector<unsigned char> pair_mask = buildPairMask(neighbourLists, num_cameras);

    MeshOptimizationArgs args;
    args.num_v = mesh.num_v;
    args.vertices = mesh.vertices.data();
    args.num_f = mesh.num_f;
    args.facets = mesh.facets.data();
    args.num_valence_entries = num_valence_entries;
    args.valence_list = valence_list.data();
    args.valence_counts = valence_counts.data();
    args.valence_offsets = valence_offsets.data();
    args.num_cameras = num_cameras;
    args.width = width;
    args.height = height;
    args.cameras = cameras_cuda.data();
    args.images = image_stack.data();
    args.iterations = iterations;
    args.pair_mask = pair_mask.data();
    args.first_order_smoothing = first_order_smoothing;
    return Integrated_Mesh_Optimization_CUDA(device, args) == DeviceStatus::Ok;
}
