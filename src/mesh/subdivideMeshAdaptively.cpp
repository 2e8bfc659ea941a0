// Adaptive facet selection: render the mesh into every camera of
// the level, count each facet's pixels per image, and divide the facets that
// cover 50 or more pixels in at least two images; at most two passes a call
// (the numbers of the selection are the caller's to set).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <limits>
#include <vector>

#include "ProgramCUDA.h"
#include "TriMesh.h"
#include "meshSubdivision.h"

bool renderFacetMaps(const TriMesh& mesh, const DeviceHandle& device, const mycamera& camera, int LU, int LV,
                     cv::Mat& depth_image, cv::Mat& facet_image, cv::Mat& bary_b_image, cv::Mat& bary_c_image) {
    // A negative extent renders nothing (the maps are made empty); the caller
    // has already reported it.
    const int cols = std::max(LU, 0), rows = std::max(LV, 0);
    // Made anew at LV x LU (create reuses the buffer of an image of the same
    // size and type, so a second pass allocates nothing).
    depth_image.create(rows, cols, CV_32F);
    facet_image.create(rows, cols, CV_32S);
    bary_b_image.create(rows, cols, CV_32F);
    bary_c_image.create(rows, cols, CV_32F);
    // The renderer's clear values; the depth clear is the largest finite
    // float32, bit pattern 0x7F7FFFFF.
    depth_image.setTo(cv::Scalar(double(std::numeric_limits<float>::max())));
    facet_image.setTo(cv::Scalar(-1));
    bary_b_image.setTo(cv::Scalar(-1.0));
    bary_c_image.setTo(cv::Scalar(-1.0));
    if (rows == 0 || cols == 0) return true;
    // Area origin BU = BV = 0. Freshly created matrices are continuous, so
    // each is one row-major block of LU*LV elements.
    ZBufferArgs args;
    args.num_v = mesh.num_v;
    args.vertices = mesh.vertices.data();
    args.num_f = mesh.num_f;
    args.facets = mesh.facets.data();
    toCameraCuda(args.camera, camera);
    args.BU = 0;
    args.BV = 0;
    args.LU = cols;
    args.LV = rows;
    args.depth_image = depth_image.ptr<float>();
    args.facet_image = facet_image.ptr<int>();
    args.bary_b_image = bary_b_image.ptr<float>();
    args.bary_c_image = bary_c_image.ptr<float>();
    return TriMesh_Image_ZBuffering_CUDA(device, args) == DeviceStatus::Ok;
}

namespace {

// For each facet, the number of facet images in which it covers
// selection.min_pixels or more pixels of the LU x LV area. Each pixel is
// read once; facets of no pixel keep a count of 0, and only those with
// pixels are looked at afterwards, so the cost per image is its pixels plus
// the facets it shows.
std::vector<int32_t> countFacetViews(int32_t num_f, const std::vector<cv::Mat>& facet_images, int LU, int LV,
                                     const FacetSelection& selection) {
    std::vector<int32_t> views(size_t(num_f), 0), pixels(size_t(num_f), 0), seen;
    for (const cv::Mat& image : facet_images) {
        const int rows = std::min(std::max(LV, 0), image.rows);
        const int cols = std::min(std::max(LU, 0), image.cols);
        seen.clear();
        for (int y = 0; y < rows; ++y) {
            const int32_t* row = image.ptr<int32_t>(y);
            for (int x = 0; x < cols; ++x) {
                const int32_t id = row[x];
                if (id < 0 || id >= num_f) continue;
                if (pixels[size_t(id)]++ == 0) seen.push_back(id);
            }
        }
        for (const int32_t f : seen) {
            if (pixels[size_t(f)] >= selection.min_pixels) views[size_t(f)] += 1;
            pixels[size_t(f)] = 0;  // set to 0 before the next image
        }
    }
    return views;
}

// Sets the bit of each facet seen in selection.min_images images or more
// none of whose vertices has no_divide (no neighbour is looked at);
// returns how many.
int32_t chooseFacets(const TriMesh& mesh, const std::vector<int32_t>& views, const FacetSelection& selection,
                     std::vector<bool>& facet_divide_indicator) {
    const int32_t num_f = int32_t(views.size());
    facet_divide_indicator.assign(size_t(num_f), false);
    int32_t selected = 0;
    for (int32_t f = 0; f < num_f; ++f) {
        if (views[size_t(f)] < selection.min_images) continue;
        bool blocked = false;
        for (int k = 0; k < 3; ++k) {
            const int32_t v = mesh.facets[3 * size_t(f) + size_t(k)];
            if (mesh.vertex_records[size_t(v)].no_divide) blocked = true;
        }
        if (blocked) continue;
        facet_divide_indicator[size_t(f)] = true;
        ++selected;
    }
    return selected;
}

// The view counts of the processes of a shared run added up (each renders
// its own cameras), with a last entry that counts the processes whose
// renders failed; true when the sums arrived and none failed. One process
// adds nothing.
bool addViewsOverProcesses(const ProcessGroup& group, std::vector<int32_t>& views, bool failedHere) {
    if (!group.distributed()) return !failedHere;
    std::vector<uint64_t> values(views.begin(), views.end());
    values.push_back(failedHere ? 1 : 0);
    if (!group.sumIntegers || !group.sumIntegers(values.data(), values.size())) return false;
    for (size_t f = 0; f < views.size(); ++f) views[f] = int32_t(values[f]);
    return values.back() == 0;
}

// The level's lists, checked in this order, each with its own line; the
// messages name the Laplacian list, which the level's images stand for.
// False when there is no image at all.
bool checkLevelLists(size_t cameras, const std::vector<cv::Size>& sizes, int LU, int LV) {
    if (sizes.empty()) {
        std::cout << "Error: imgList.size() <= 0" << std::endl;
        return false;
    }
    if (cameras != sizes.size()) std::cout << "Error: cameraList.size() != imgLaplaceList.size()" << std::endl;
    const cv::Size first = sizes[0];
    // One line per differing image, then carry on; every facet map still
    // has LV rows and LU columns.
    for (size_t i = 1; i < sizes.size(); ++i)
        if (sizes[i] != first) std::cout << "Error: current version does not support image with different size" << std::endl;
    if (first.height < 0 || first.width < 0 || LU < 0 || LV < 0 || LU > first.width || LV > first.height)
        std::cout << "Error: ROI (BU, BV, LU, LV) do not fit the imgLaplace size" << std::endl;
    return true;
}

}  // namespace

int32_t selectFacetsForDivision(const TriMesh& mesh, const std::vector<cv::Mat>& facet_images, int LU, int LV,
                                std::vector<bool>& facet_divide_indicator, std::vector<int32_t>& facet_view_count,
                                const FacetSelection& selection) {
    facet_view_count = countFacetViews(std::max(mesh.num_f, 0), facet_images, LU, LV, selection);
    return chooseFacets(mesh, facet_view_count, selection, facet_divide_indicator);
}

bool subdivideMeshAdaptively(TriMesh& mesh, const DeviceHandle& device, const std::vector<mycamera>& cameraList,
                             const std::vector<cv::Mat>& levelImages, int LU, int LV, const FacetSelection& selection,
                             int passes) {
    std::vector<cv::Size> sizes;
    for (const cv::Mat& image : levelImages) sizes.push_back(image.size());
    return subdivideMeshAdaptively(mesh, device, cameraList, sizes, LU, LV, selection, passes, {});
}

bool subdivideMeshAdaptively(TriMesh& mesh, const DeviceHandle& device, const std::vector<mycamera>& cameraList,
                             const std::vector<cv::Size>& imageSizes, int LU, int LV, const FacetSelection& selection,
                             int passes, const std::vector<bool>& renderedHere) {
    // With no image there is no first image to take sizes from: the mesh
    // stays untouched.
    if (!checkLevelLists(cameraList.size(), imageSizes, LU, LV)) return true;
    // When the two lists differ in length only the cameras that have an
    // image are rendered (the shorter of the two lists).
    const size_t num_cameras = std::min(cameraList.size(), imageSizes.size());
    // The four image lists, sized once per call.
    std::vector<cv::Mat> depth_images(num_cameras), facet_images(num_cameras), bary_b_images(num_cameras),
        bary_c_images(num_cameras);
    std::vector<bool> facet_divide_indicator;
    for (int pass = 0; pass < passes; ++pass) {
        // Render every camera of this process into its images; a render the
        // device did not complete ends the call before anything is selected.
        bool rendered = true;
        for (size_t i = 0; i < num_cameras && rendered; ++i)
            if (renderedHere.empty() || (i < renderedHere.size() && renderedHere[i]))
                rendered = renderFacetMaps(mesh, device, cameraList[i], LU, LV, depth_images[i], facet_images[i],
                                           bary_b_images[i], bary_c_images[i]);
        std::vector<int32_t> views = countFacetViews(std::max(mesh.num_f, 0), facet_images, LU, LV, selection);
        if (!addViewsOverProcesses(device.context.processes, views, !rendered)) return false;
        const int32_t selected = chooseFacets(mesh, views, selection, facet_divide_indicator);
        if (mesh.num_f == 0 || selected == 0) {
            std::cout << "stop dividing" << std::endl;
            return true;
        }
        // The number after "level" is the pass number.
        std::cout << "subdividing at level " << pass << " : " << selected << " facets" << std::endl;
        divideFacets(mesh, facet_divide_indicator);
        // After the second pass the call ends without a line.
    }
    return true;
}
