// The facet maps, the 50-pixel / 2-image selection, and the at most
// two passes of subdivideMeshAdaptively with its exact output lines.
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "MeshTestSupport.h"
#include "ProgramCUDA.h"
#include "TriMesh.h"
#include "meshSubdivision.h"

namespace {

using meshtest::makeMesh;
using meshtest::V;
using Bits = std::vector<bool>;

// ---------------------------------------------------------------------------
// Counting and threshold on synthetic facet maps.

// Writes `id` into `count` pixels of a CV_32S map, in raster order from
// pixel `start` on; returns the pixel after the last.
int paint(cv::Mat& map, int32_t id, int count, int start) {
    for (int p = start; p < start + count; ++p) map.at<int32_t>(p / map.cols, p % map.cols) = id;
    return start + count;
}

std::vector<cv::Mat> emptyMaps(size_t n, int rows, int cols) {
    std::vector<cv::Mat> maps;
    for (size_t i = 0; i < n; ++i) maps.emplace_back(rows, cols, CV_32S, cv::Scalar(-1));
    return maps;
}

TEST(SelectFacets, ThresholdIsFiftyPixelsInTwoImages) {
    // Facets 0..4; vertex 6 (used only by facet 4) has no_divide.
    TriMesh m = makeMesh(std::vector<float>(3 * 7, 0.0f), {0, 1, 2, 1, 2, 3, 2, 3, 4, 3, 4, 5, 4, 5, 6});
    m.vertex_records[6].no_divide = 1;
    std::vector<cv::Mat> maps = emptyMaps(3, 40, 40);
    // Pixels per image of f0, f1 and f2: 49 everywhere; 50, 50 and hidden;
    // 1000, 49 and 49. f3 and f4: 50 everywhere, interleaved (the count is
    // per facet, not per run of pixels).
    const int counts[3][3] = {{49, 50, 1000}, {49, 50, 49}, {49, 0, 49}};
    for (int i = 0; i < 3; ++i) {
        int p = 0;
        for (int f = 0; f < 3; ++f) p = paint(maps[i], f, counts[i][f], p);
        for (int k = 0; k < 50; ++k) p = paint(maps[i], 4, 1, paint(maps[i], 3, 1, p));
    }
    Bits bits(17, true);  // stale size and content: replaced
    V views{9};
    EXPECT_EQ(selectFacetsForDivision(m, maps, 40, 40, bits, views), 2);
    EXPECT_EQ(bits, (Bits{false, true, false, true, false}));
    EXPECT_EQ(views, (V{0, 2, 1, 3, 3}));
    // Other thresholds: 49 pixels in 3 images, and 1000 pixels in 1 image.
    EXPECT_EQ(selectFacetsForDivision(m, maps, 40, 40, bits, views, FacetSelection{49, 3}), 3);
    EXPECT_EQ(bits, (Bits{true, false, true, true, false}));
    EXPECT_EQ(selectFacetsForDivision(m, maps, 40, 40, bits, views, FacetSelection{1000, 1}), 1);
    EXPECT_EQ(bits, (Bits{false, false, true, false, false}));
}

TEST(SelectFacets, OnlyTheLUbyLVAreaIsCountedAndForeignIdsAreIgnored) {
    TriMesh m = makeMesh(std::vector<float>(9, 0.0f), {0, 1, 2});
    std::vector<cv::Mat> maps = emptyMaps(2, 50, 60);
    for (auto& map : maps) {
        paint(map, 0, 49, 0);                                      // inside the 40 x 30 area
        for (int k = 0; k < 10; ++k) map.at<int32_t>(k, 45) = 0;   // right of it
        for (int k = 0; k < 10; ++k) map.at<int32_t>(35, k) = 0;   // below it
        for (int k = 10; k < 20; ++k) map.at<int32_t>(20, k) = 7;  // no such facet
    }
    Bits bits;
    V views;
    EXPECT_EQ(selectFacetsForDivision(m, maps, 40, 30, bits, views), 0);
    EXPECT_EQ(views, (V{0}));
    EXPECT_EQ(selectFacetsForDivision(m, maps, 60, 50, bits, views), 1);  // 69 pixels in the full image
}

TEST(SelectFacets, NoDivideOnAnyVertexBlocksSelection) {
    for (int v = 0; v < 3; ++v) {
        TriMesh m = makeMesh(std::vector<float>(9, 0.0f), {0, 1, 2});
        m.vertex_records[v].no_divide = 1;
        const std::vector<cv::Mat> maps(2, cv::Mat(40, 40, CV_32S, cv::Scalar(0)));  // 1600 px each
        Bits bits;
        V views;
        EXPECT_EQ(selectFacetsForDivision(m, maps, 40, 40, bits, views), 0) << "vertex " << v;
        EXPECT_EQ(views, (V{2}));
        EXPECT_EQ(bits, (Bits{false}));
    }
}

// ---------------------------------------------------------------------------
// Rendered facet maps. A square of side 2 at z = 0, seen straight on from
// distance 10: a camera with focal length f shows it L = f / 5 pixels wide.

constexpr int kImage = 80;

TriMesh viewedSquare() {
    // 0 top left, 1 top right, 2 bottom right, 3 bottom left in the image;
    // both facets face the cameras below.
    return makeMesh({-1, -1, 0, 1, -1, 0, 1, 1, 0, -1, 1, 0}, {0, 3, 2, 0, 2, 1});
}

// A camera that shows the square `L` pixels wide, centred in an 80 x 80 image.
mycamera cameraShowing(double L) { return meshtest::forwardCamera(L * 5.0, 40, 40, 10); }
const mycamera kAway = meshtest::forwardCamera(200, 40, 40, -10);  // everything at z = 0 is behind it

std::vector<cv::Mat> laplaceImages(size_t n, int rows = kImage, int cols = kImage) {
    std::vector<cv::Mat> v;
    for (size_t i = 0; i < n; ++i) v.emplace_back(rows, cols, CV_8U, cv::Scalar(0));
    return v;
}

TEST(RenderFacetMaps, MakesClearedImagesOfTheAreaSizeAndRendersTheSquare) {
    TriMesh m = viewedSquare();
    const int LU = kImage + 10;  // not square: rows and columns are not swapped
    cv::Mat depth(3, 3, CV_8U), facet(kImage, kImage, CV_32S, cv::Scalar(5)), b, c;
    ASSERT_TRUE(renderFacetMaps(m, cpuDevice(), cameraShowing(40), LU, kImage, depth, facet, b, c));
    const int types[4] = {CV_32F, CV_32S, CV_32F, CV_32F};
    int k = 0;
    for (const cv::Mat* img : {&depth, &facet, &b, &c}) {
        EXPECT_EQ(img->size(), cv::Size(LU, kImage));
        EXPECT_TRUE(img->isContinuous());
        EXPECT_EQ(img->type(), types[k++]);
    }
    // The 40 x 40 pixel square from (20, 20) to (60, 60): every pixel centre
    // strictly inside it shows one of the facets at depth 10, and outside it
    // the maps stay cleared (the renderer may lose a few pixels on the edges).
    EXPECT_EQ(cv::countNonZero(facet(cv::Rect(21, 21, 39, 39)) < 0), 0);
    EXPECT_GT(cv::countNonZero(facet == 0), 800);
    EXPECT_GT(cv::countNonZero(facet == 1), 800);
    cv::Mat outside(facet.size(), CV_8U, cv::Scalar(255));
    outside(cv::Rect(20, 20, 41, 41)).setTo(0);
    EXPECT_EQ(cv::countNonZero((facet != -1) & outside), 0);
    EXPECT_EQ(cv::countNonZero((depth != std::numeric_limits<float>::max()) & outside), 0);
    double lo, hi, bLow, cLow;  // over the covered pixels; the rest is undefined
    cv::minMaxLoc(depth, &lo, &hi, nullptr, nullptr, facet >= 0);
    cv::minMaxLoc(b, &bLow, nullptr, nullptr, nullptr, facet >= 0);
    cv::minMaxLoc(c, &cLow, nullptr, nullptr, nullptr, facet >= 0);
    EXPECT_TRUE(lo > 9.8 && hi < 10.2 && bLow > -1e-5 && cLow > -1e-5) << lo << " " << hi << " " << bLow << " " << cLow;
    // The same camera from the other side sees only back faces.
    ASSERT_TRUE(renderFacetMaps(m, cpuDevice(), kAway, kImage, kImage, depth, facet, b, c));
    EXPECT_EQ(cv::countNonZero(facet != -1), 0);
}

// ---------------------------------------------------------------------------
// The passes of subdivideMeshAdaptively, with the z-buffer on every backend
// present (the CUDA one when a device answers): which of two facets wins a
// contested edge pixel may differ, but the scenes keep well clear of the
// threshold.

using SubdivideAdaptively = tessaline::test::OnEachBackend;

TEST_P(SubdivideAdaptively, PassesAndFailureLines) {
    const std::string level0 = "subdividing at level 0 : 2 facets\n", stop = "stop dividing\n";
    const std::string sizes = "Error: cameraList.size() != imgLaplaceList.size()\n";
    const std::string other = "Error: current version does not support image with different size\n";
    const std::string roi = "Error: ROI (BU, BV, LU, LV) do not fit the imgLaplace size\n";
    const mycamera c12 = cameraShowing(12), c40 = cameraShowing(40), c56 = cameraShowing(56);
    std::vector<cv::Mat> oddSizes = laplaceImages(4), mixed = laplaceImages(2, 50, 50);
    oddSizes[1] = cv::Mat(kImage, 60, CV_8U, cv::Scalar(0));
    oddSizes[2] = cv::Mat(60, kImage, CV_8U, cv::Scalar(0));
    mixed[1] = cv::Mat(kImage, kImage, CV_8U, cv::Scalar(0));
    std::vector<cv::Mat> noisy = laplaceImages(2);
    for (auto& img : noisy) cv::randu(img, 0, 255);
    const struct {
        const char* name;
        std::vector<mycamera> cams;
        std::vector<cv::Mat> imgs;
        int noDivideVertex, LU;
        std::string printed;
        int numF;
    } cases[] = {
        {"empty mesh", {c40, c40}, laplaceImages(2), -1, kImage, stop, 0},
        {"only one camera sees the mesh", {c40, kAway, kAway}, laplaceImages(3), -1, kImage, stop, 2},
        // 56 pixels wide: the widest square that keeps clear of the margins. A
        // third pass would select all 32 facets again. Every call numbers its
        // passes from 0, whatever the calls of the cases before it did.
        {"at most two passes", {c56, c56}, laplaceImages(2), -1, kImage,
         level0 + "subdividing at level 1 : 8 facets\n", 32},
        // Camera 1 shows each half with more than 50 pixels, but not its quarters.
        {"pass one judges the new facets by new maps", {c40, c12}, laplaceImages(2), -1, kImage, level0 + stop, 8},
        {"the Laplacian pixels take no part", {c40, c12}, noisy, -1, kImage, level0 + stop, 8},
        {"no_divide on a shared vertex blocks both facets", {c40, c40}, laplaceImages(2), 0, kImage, stop, 2},
        {"no_divide on one facet's vertex leaves the other", {c40, c12}, laplaceImages(2), 1, kImage,
         "subdividing at level 0 : 1 facets\n" + stop, 6},
        {"empty image list", {c40, c40}, {}, -1, kImage, "Error: imgList.size() <= 0\n", 2},
        // Camera 2 has no image: only one rendered camera sees the square.
        {"longer camera list", {c40, kAway, c40}, laplaceImages(2), -1, kImage, sizes + stop, 2},
        {"longer image list", {c40, c12}, laplaceImages(3), -1, kImage, sizes + level0 + stop, 8},
        {"images of another size, once each", {c40, c12, c12, c12}, oddSizes, -1, kImage,
         other + other + level0 + stop, 8},
        {"wider than the first image", {c40, c12}, laplaceImages(2, kImage, 70), -1, kImage, roi + level0 + stop, 8},
        {"taller than the first image", {c40, c12}, laplaceImages(2, 70, kImage), -1, kImage, roi + level0 + stop, 8},
        // Nothing is rendered, and the device is not asked to: it would refuse.
        {"negative area renders nothing", {c40, c40}, laplaceImages(2), -1, -5, roi + stop, 2},
        {"failure lines in their order", {c40}, mixed, -1, kImage, sizes + other + roi + stop, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TriMesh m = c.numF == 0 ? TriMesh() : viewedSquare();
        if (c.noDivideVertex >= 0) m.vertex_records[size_t(c.noDivideVertex)].no_divide = 1;
        bool ok = false;
        EXPECT_EQ(meshtest::printedBy([&] { ok = subdivideMeshAdaptively(m, device(), c.cams, c.imgs, c.LU, kImage); }),
                  c.printed);
        EXPECT_TRUE(ok) << "inconsistent lists are reported, not failed";
        EXPECT_EQ(m.num_f, c.numF);
        if (c.numF == 2) {
            EXPECT_EQ(m.facets, (V{0, 3, 2, 0, 2, 1}));
            EXPECT_EQ(m.num_v, 4);
        }
    }
}

// A render the device refuses (here a mesh of negative vertex count) ends
// the call: the device's line is all that is printed, no selection is made
// from the cleared maps (it would print "stop dividing"), and the mesh is
// left as it was.
TEST_P(SubdivideAdaptively, ARefusedRenderEndsTheCallWithFalse) {
    const std::vector<mycamera> cams{cameraShowing(40), cameraShowing(40)};
    TriMesh m = viewedSquare();
    m.num_v = -1;
    bool ok = true;
    const std::string printed =
        meshtest::printedBy([&] { ok = subdivideMeshAdaptively(m, device(), cams, laplaceImages(2), kImage, kImage); });
    EXPECT_FALSE(ok);
    EXPECT_TRUE(tessaline::test::isRefusal(printed, "")) << "one error line and nothing more: " << printed;
    EXPECT_EQ(m.num_f, 2);
    EXPECT_EQ(m.facets, (V{0, 3, 2, 0, 2, 1}));
}

TESSALINE_INSTANTIATE_ON_BACKENDS(SubdivideAdaptively);

}  // namespace
