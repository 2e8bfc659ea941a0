// The facet maps, the 50-pixel / 2-image selection, and the at most
// two passes of subdivideMeshAdaptively with its exact output lines.
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "DeviceTestSupport.h"
#include "MeshTestSupport.h"
#include "ProgramCUDA.h"
#include "TriMesh.h"
#include "meshSubdivision.h"

namespace {

using meshtest::makeMesh;
using V = std::vector<int32_t>;

// ---------------------------------------------------------------------------
// Counting and threshold on synthetic facet maps.

// Writes `id` into `count` pixels of a CV_32S map, in raster order from
// pixel `start` on, within the first `cols` columns of each row.
int paint(cv::Mat& map, int32_t id, int count, int start, int cols) {
    for (int k = 0; k < count; ++k) {
        const int p = start + k;
        map.at<int32_t>(p / cols, p % cols) = id;
    }
    return start + count;
}

TEST(SelectFacets, ThresholdIsFiftyPixelsInTwoImages) {
    // Facets 0..4; vertex 6 (used only by facet 4) has no_divide.
    TriMesh m = makeMesh(std::vector<float>(3 * 7, 0.0f), {0, 1, 2, 1, 2, 3, 2, 3, 4, 3, 4, 5, 4, 5, 6});
    m.vertex_records[6].no_divide = 1;
    const int W = 40, H = 40;
    std::vector<cv::Mat> maps(3);
    for (auto& map : maps) map = cv::Mat(H, W, CV_32S, cv::Scalar(-1));
    int p0 = 0, p1 = 0, p2 = 0;
    // f0: 49 pixels in every image.
    p0 = paint(maps[0], 0, 49, p0, W);
    p1 = paint(maps[1], 0, 49, p1, W);
    p2 = paint(maps[2], 0, 49, p2, W);
    // f1: 50 in images 0 and 1, hidden in image 2.
    p0 = paint(maps[0], 1, 50, p0, W);
    p1 = paint(maps[1], 1, 50, p1, W);
    // f2: 1000 in image 0, 49 in the others.
    p0 = paint(maps[0], 2, 1000, p0, W);
    p1 = paint(maps[1], 2, 49, p1, W);
    p2 = paint(maps[2], 2, 49, p2, W);
    // f3 and f4: 50 everywhere (scattered: the count is per facet, not per
    // run of pixels).
    for (int k = 0; k < 50; ++k) {
        p0 = paint(maps[0], 3, 1, p0, W);
        p0 = paint(maps[0], 4, 1, p0, W);
        p1 = paint(maps[1], 3, 1, p1, W);
        p1 = paint(maps[1], 4, 1, p1, W);
        p2 = paint(maps[2], 3, 1, p2, W);
        p2 = paint(maps[2], 4, 1, p2, W);
    }
    std::vector<bool> bits(17, true);  // stale size and content: replaced
    V views{9};
    const int32_t selected = selectFacetsForDivision(m, maps, W, H, bits, views);
    EXPECT_EQ(selected, 2);
    EXPECT_EQ(bits, (std::vector<bool>{false, true, false, true, false}));
    EXPECT_EQ(views, (V{0, 2, 1, 3, 3}));
}

TEST(SelectFacets, FortyNineAndFiftyPixelsExactly) {
    TriMesh m = makeMesh(std::vector<float>(9, 0.0f), {0, 1, 2, 0, 2, 1});
    const int W = 30, H = 30;
    std::vector<cv::Mat> maps(2);
    for (auto& map : maps) {
        map = cv::Mat(H, W, CV_32S, cv::Scalar(-1));
        paint(map, 1, 50, paint(map, 0, 49, 0, W), W);
    }
    std::vector<bool> bits;
    V views;
    EXPECT_EQ(selectFacetsForDivision(m, maps, W, H, bits, views), 1);
    EXPECT_EQ(views, (V{0, 2}));
    EXPECT_EQ(bits, (std::vector<bool>{false, true}));
    // One more pixel of facet 0 in one image only: seen once, not selected.
    maps[0].at<int32_t>(H - 1, W - 1) = 0;
    EXPECT_EQ(selectFacetsForDivision(m, maps, W, H, bits, views), 1);
    EXPECT_EQ(views, (V{1, 2}));
    // ... and in the second image too: selected.
    maps[1].at<int32_t>(H - 1, W - 1) = 0;
    EXPECT_EQ(selectFacetsForDivision(m, maps, W, H, bits, views), 2);
    EXPECT_EQ(views, (V{2, 2}));
}

TEST(SelectFacets, OnlyTheLUbyLVAreaIsCountedAndForeignIdsAreIgnored) {
    TriMesh m = makeMesh(std::vector<float>(9, 0.0f), {0, 1, 2});
    std::vector<cv::Mat> maps(2);
    for (auto& map : maps) {
        map = cv::Mat(50, 60, CV_32S, cv::Scalar(-1));
        paint(map, 0, 49, 0, 40);                                           // inside the 40 x 30 area
        for (int y = 0; y < 10; ++y) map.at<int32_t>(y, 45) = 0;            // right of it
        for (int x = 0; x < 10; ++x) map.at<int32_t>(35, x) = 0;            // below it
        for (int x = 10; x < 20; ++x) map.at<int32_t>(20, x) = 7;           // no such facet
    }
    std::vector<bool> bits;
    V views;
    EXPECT_EQ(selectFacetsForDivision(m, maps, 40, 30, bits, views), 0);
    EXPECT_EQ(views, (V{0}));
    // The full image holds 69 pixels of facet 0.
    EXPECT_EQ(selectFacetsForDivision(m, maps, 60, 50, bits, views), 1);
}

TEST(SelectFacets, NoDivideOnAnyVertexBlocksSelection) {
    for (int v = 0; v < 3; ++v) {
        TriMesh m = makeMesh(std::vector<float>(9, 0.0f), {0, 1, 2});
        m.vertex_records[v].no_divide = 1;
        std::vector<cv::Mat> maps(2, cv::Mat());
        for (auto& map : maps) map = cv::Mat(40, 40, CV_32S, cv::Scalar(0));  // 1600 px each
        std::vector<bool> bits;
        V views;
        EXPECT_EQ(selectFacetsForDivision(m, maps, 40, 40, bits, views), 0);
        EXPECT_EQ(views, (V{2}));
        EXPECT_EQ(bits, (std::vector<bool>{false}));
    }
}

TEST(SelectFacets, NoFacetsAndNoImages) {
    TriMesh empty;
    std::vector<bool> bits{true};
    V views{1};
    std::vector<cv::Mat> maps(1, cv::Mat(30, 30, CV_32S, cv::Scalar(-1)));
    EXPECT_EQ(selectFacetsForDivision(empty, maps, 30, 30, bits, views), 0);
    EXPECT_TRUE(bits.empty());
    EXPECT_TRUE(views.empty());
    TriMesh m = meshtest::square();
    EXPECT_EQ(selectFacetsForDivision(m, {}, 30, 30, bits, views), 0);
    EXPECT_EQ(views, (V{0, 0}));
}

// ---------------------------------------------------------------------------
// Rendered facet maps. A square of side 2 at z = 0, seen straight on from
// distance 10: a camera with focal length f shows it L = f / 5 pixels wide.

constexpr int kImage = 80;
constexpr double kCentre = 40.0;
constexpr double kDistance = 10.0;

TriMesh viewedSquare() {
    // 0 top left, 1 top right, 2 bottom right, 3 bottom left in the image;
    // both facets face the cameras below.
    return makeMesh({-1, -1, 0, 1, -1, 0, 1, 1, 0, -1, 1, 0}, {0, 3, 2, 0, 2, 1});
}

// A camera that shows the square `L` pixels wide, centred in an 80 x 80 image.
mycamera cameraShowing(double L, double shiftX = 0.0) {
    return meshtest::forwardCamera(L * kDistance / 2.0, kCentre, kCentre, kDistance, shiftX);
}

std::vector<cv::Mat> laplaceImages(size_t n, int rows = kImage, int cols = kImage) {
    std::vector<cv::Mat> v;
    for (size_t i = 0; i < n; ++i) v.emplace_back(rows, cols, CV_8U, cv::Scalar(0));
    return v;
}

std::string subdivideCapturingStdout(TriMesh& m, const std::vector<mycamera>& cams, const std::vector<cv::Mat>& imgs,
                                     int LU, int LV) {
    testing::internal::CaptureStdout();
    subdivideMeshAdaptively(m, cams, imgs, LU, LV);
    return testing::internal::GetCapturedStdout();
}

V facetPixelCounts(const cv::Mat& facetMap, int num_f) {
    V count(size_t(num_f), 0);
    for (int y = 0; y < facetMap.rows; ++y)
        for (int x = 0; x < facetMap.cols; ++x) {
            const int id = facetMap.at<int32_t>(y, x);
            if (id >= 0) ++count[size_t(id)];
        }
    return count;
}

TEST(RenderFacetMaps, MakesClearedImagesOfTheAreaSize) {
    TriMesh empty;
    cv::Mat depth(3, 3, CV_8U), facet, b, c;
    renderFacetMaps(empty, cameraShowing(40), 70, 50, depth, facet, b, c);
    for (const cv::Mat* img : {&depth, &facet, &b, &c}) {
        EXPECT_EQ(img->rows, 50);
        EXPECT_EQ(img->cols, 70);
        EXPECT_TRUE(img->isContinuous());
    }
    EXPECT_EQ(depth.type(), CV_32F);
    EXPECT_EQ(facet.type(), CV_32S);
    EXPECT_EQ(b.type(), CV_32F);
    EXPECT_EQ(c.type(), CV_32F);
    for (int y = 0; y < 50; ++y)
        for (int x = 0; x < 70; ++x) {
            EXPECT_EQ(depth.at<float>(y, x), std::numeric_limits<float>::max());
            EXPECT_EQ(facet.at<int32_t>(y, x), -1);
            // The barycentric images are cleared to -1.0 too, but the
            // z-buffer does not upload them: where no facet wrote they come
            // back undefined, so they are not checked here.
        }
}

TEST(RenderFacetMaps, RendersTheSquareAndClearsOldContent) {
    TriMesh m = viewedSquare();
    cv::Mat depth, facet(kImage, kImage, CV_32S, cv::Scalar(5)), b, c;
    renderFacetMaps(m, cameraShowing(40), kImage, kImage, depth, facet, b, c);
    const V counts = facetPixelCounts(facet, 2);
    // A 40 x 40 pixel square: 41 x 41 pixel centres with the edges, of
    // which the running sums of the renderer may lose a few on the edges.
    EXPECT_LE(counts[0] + counts[1], 41 * 41);
    EXPECT_GE(counts[0] + counts[1], 39 * 39);
    EXPECT_GT(counts[0], 800);
    EXPECT_GT(counts[1], 800);
    for (int y = 0; y < kImage; ++y)
        for (int x = 0; x < kImage; ++x) {
            const int id = facet.at<int32_t>(y, x);
            const bool inside = x >= 20 && x <= 60 && y >= 20 && y <= 60;
            const bool strictlyInside = x > 20 && x < 60 && y > 20 && y < 60;
            if (id >= 0) {
                EXPECT_TRUE(inside) << x << "," << y;
            }
            if (strictlyInside) {
                EXPECT_GE(id, 0) << x << "," << y;
            }
            if (id >= 0) {
                EXPECT_GE(b.at<float>(y, x), -1e-5f);
                EXPECT_GE(c.at<float>(y, x), -1e-5f);
                EXPECT_NEAR(depth.at<float>(y, x), 10.0, 0.2);
            } else {
                if (!inside) {
                    EXPECT_EQ(depth.at<float>(y, x), std::numeric_limits<float>::max());
                }
            }
        }
    // The same camera from the other side sees only back faces.
    renderFacetMaps(m, meshtest::cameraLookingAway(200, kCentre, kCentre, kDistance), kImage, kImage, depth, facet,
                    b, c);
    EXPECT_EQ(facetPixelCounts(facet, 2), (V{0, 0}));
}

// ---------------------------------------------------------------------------
// The passes of subdivideMeshAdaptively.

TEST(SubdivideAdaptively, EmptyMeshStopsAtOnce) {
    TriMesh m;
    const std::vector<mycamera> cams = {cameraShowing(40), cameraShowing(40)};
    EXPECT_EQ(subdivideCapturingStdout(m, cams, laplaceImages(2), kImage, kImage), "stop dividing\n");
    EXPECT_EQ(m.num_v, 0);
    EXPECT_EQ(m.num_f, 0);
}

TEST(SubdivideAdaptively, OnlyOneCameraSeesTheMeshSoPassZeroStops) {
    TriMesh m = viewedSquare();
    const mycamera away = meshtest::cameraLookingAway(200, kCentre, kCentre, kDistance);
    const std::vector<mycamera> cams = {cameraShowing(40), away, away};
    EXPECT_EQ(subdivideCapturingStdout(m, cams, laplaceImages(3), kImage, kImage), "stop dividing\n");
    EXPECT_EQ(m.num_v, 4);
    EXPECT_EQ(m.num_f, 2);
    EXPECT_EQ(m.facets, (V{0, 3, 2, 0, 2, 1}));
}

TEST(SubdivideAdaptively, AtMostTwoPassesWhateverRemainsLarge) {
    TriMesh m = viewedSquare();
    // 56 pixels wide: the widest square that keeps clear of the margins.
    const std::vector<mycamera> cams = {cameraShowing(56), cameraShowing(56)};
    EXPECT_EQ(subdivideCapturingStdout(m, cams, laplaceImages(2), kImage, kImage),
              "subdividing at level 0 : 2 facets\n"
              "subdividing at level 1 : 8 facets\n");
    EXPECT_EQ(m.num_f, 32);
    EXPECT_EQ(m.num_v, 25);
    // A third pass would still select every facet (about 98 pixels each in
    // both images), yet none followed.
    std::vector<cv::Mat> d(2), f(2), b(2), c(2);
    for (int i = 0; i < 2; ++i) renderFacetMaps(m, cams[i], kImage, kImage, d[i], f[i], b[i], c[i]);
    std::vector<bool> bits;
    V views;
    EXPECT_EQ(selectFacetsForDivision(m, f, kImage, kImage, bits, views), 32);
}

TEST(SubdivideAdaptively, PassOneJudgesTheNewFacetsByNewMaps) {
    // Camera 1 shows the square 12 pixels wide: each half has more than 50
    // pixels there, but its quarters do not.
    TriMesh m = viewedSquare();
    const std::vector<mycamera> cams = {cameraShowing(40), cameraShowing(12)};
    EXPECT_EQ(subdivideCapturingStdout(m, cams, laplaceImages(2), kImage, kImage),
              "subdividing at level 0 : 2 facets\n"
              "stop dividing\n");
    EXPECT_EQ(m.num_f, 8);
    EXPECT_EQ(m.num_v, 9);

    // A new call counts its passes from 0 again.
    const std::vector<mycamera> close = {cameraShowing(56), cameraShowing(56)};
    EXPECT_EQ(subdivideCapturingStdout(m, close, laplaceImages(2), kImage, kImage),
              "subdividing at level 0 : 8 facets\n"
              "subdividing at level 1 : 32 facets\n");
    EXPECT_EQ(m.num_f, 128);
}

TEST(SubdivideAdaptively, NoDivideOnASharedVertexBlocksBothFacets) {
    TriMesh m = viewedSquare();
    m.vertex_records[0].no_divide = 1;
    const std::vector<mycamera> cams = {cameraShowing(40), cameraShowing(40)};
    EXPECT_EQ(subdivideCapturingStdout(m, cams, laplaceImages(2), kImage, kImage), "stop dividing\n");
    EXPECT_EQ(m.num_f, 2);
}

TEST(SubdivideAdaptively, NoDivideOnOneFacetsVertexLeavesTheOther) {
    TriMesh m = viewedSquare();
    m.vertex_records[1].no_divide = 1;  // only in facet 1 = (0, 2, 1)
    const std::vector<mycamera> cams = {cameraShowing(40), cameraShowing(12)};
    const std::string out = subdivideCapturingStdout(m, cams, laplaceImages(2), kImage, kImage);
    EXPECT_EQ(out.substr(0, out.find('\n') + 1), "subdividing at level 0 : 1 facets\n");
}

TEST(SubdivideAdaptively, LaplacianPixelsTakeNoPartInTheDecision) {
    TriMesh a = viewedSquare(), b = viewedSquare();
    const std::vector<mycamera> cams = {cameraShowing(40), cameraShowing(12)};
    std::vector<cv::Mat> noisy = laplaceImages(2);
    cv::randu(noisy[0], 0, 255);
    cv::randu(noisy[1], 0, 255);
    const std::string outA = subdivideCapturingStdout(a, cams, laplaceImages(2), kImage, kImage);
    const std::string outB = subdivideCapturingStdout(b, cams, noisy, kImage, kImage);
    EXPECT_EQ(outA, outB);
    EXPECT_EQ(a.facets, b.facets);
    EXPECT_EQ(a.vertices, b.vertices);
}

// ---------------------------------------------------------------------------
// The checks of Failure handling.

TEST(SubdivideAdaptively, EmptyImageListPrintsAndLeavesTheMeshUntouched) {
    TriMesh m = viewedSquare();
    m.valences = {{42}};
    const std::vector<mycamera> cams = {cameraShowing(40), cameraShowing(40)};
    EXPECT_EQ(subdivideCapturingStdout(m, cams, {}, kImage, kImage), "Error: imgList.size() <= 0\n");
    EXPECT_EQ(m.num_f, 2);
    EXPECT_EQ(m.num_v, 4);
    EXPECT_EQ(m.valences, (std::vector<std::vector<int32_t>>{{42}}));
    EXPECT_EQ(m.num_edges, 0);
}

TEST(SubdivideAdaptively, LongerCameraListRendersOnlyCamerasWithAnImage) {
    TriMesh m = viewedSquare();
    // Cameras 0 and 2 see the square, but camera 2 has no image: only one
    // rendered camera sees it, so nothing is selected.
    const mycamera away = meshtest::cameraLookingAway(200, kCentre, kCentre, kDistance);
    const std::vector<mycamera> cams = {cameraShowing(40), away, cameraShowing(40)};
    EXPECT_EQ(subdivideCapturingStdout(m, cams, laplaceImages(2), kImage, kImage),
              "Error: cameraList.size() != imgLaplaceList.size()\n"
              "stop dividing\n");
    EXPECT_EQ(m.num_f, 2);
}

TEST(SubdivideAdaptively, LongerImageListRendersOnlyTheCameras) {
    TriMesh m = viewedSquare();
    const std::vector<mycamera> cams = {cameraShowing(40), cameraShowing(12)};
    EXPECT_EQ(subdivideCapturingStdout(m, cams, laplaceImages(3), kImage, kImage),
              "Error: cameraList.size() != imgLaplaceList.size()\n"
              "subdividing at level 0 : 2 facets\n"
              "stop dividing\n");
}

TEST(SubdivideAdaptively, ImagesOfAnotherSizeArePrintedOnceEachAndTheCallGoesOn) {
    TriMesh m = viewedSquare();
    const std::vector<mycamera> cams = {cameraShowing(40), cameraShowing(12), cameraShowing(12), cameraShowing(12)};
    std::vector<cv::Mat> imgs = laplaceImages(4);
    imgs[1] = cv::Mat(kImage, 60, CV_8U, cv::Scalar(0));
    imgs[2] = cv::Mat(60, kImage, CV_8U, cv::Scalar(0));
    EXPECT_EQ(subdivideCapturingStdout(m, cams, imgs, kImage, kImage),
              "Error: current version does not support image with different size\n"
              "Error: current version does not support image with different size\n"
              "subdividing at level 0 : 2 facets\n"
              "stop dividing\n");
}

TEST(SubdivideAdaptively, AreaLargerThanTheFirstImageIsReportedAndRenderedAnyway) {
    TriMesh m = viewedSquare();
    const std::vector<mycamera> cams = {cameraShowing(40), cameraShowing(12)};
    EXPECT_EQ(subdivideCapturingStdout(m, cams, laplaceImages(2, 70, 70), kImage, kImage),
              "Error: ROI (BU, BV, LU, LV) do not fit the imgLaplace size\n"
              "subdividing at level 0 : 2 facets\n"
              "stop dividing\n");
}

TEST(SubdivideAdaptively, NegativeAreaIsReportedAndRendersNothing) {
    TriMesh m = viewedSquare();
    const std::vector<mycamera> cams = {cameraShowing(40), cameraShowing(40)};
    EXPECT_EQ(subdivideCapturingStdout(m, cams, laplaceImages(2), -5, kImage),
              "Error: ROI (BU, BV, LU, LV) do not fit the imgLaplace size\n"
              "stop dividing\n");
    EXPECT_EQ(m.num_f, 2);
}

TEST(SubdivideAdaptively, FailureLinesComeInTheirOrder) {
    TriMesh m = viewedSquare();
    const std::vector<mycamera> cams = {cameraShowing(40)};
    std::vector<cv::Mat> imgs = laplaceImages(2, 50, 50);
    imgs[1] = cv::Mat(kImage, kImage, CV_8U, cv::Scalar(0));
    EXPECT_EQ(subdivideCapturingStdout(m, cams, imgs, kImage, kImage),
              "Error: cameraList.size() != imgLaplaceList.size()\n"
              "Error: current version does not support image with different size\n"
              "Error: ROI (BU, BV, LU, LV) do not fit the imgLaplace size\n"
              "stop dividing\n");
}

// ---------------------------------------------------------------------------
// The same passes with the z-buffer on every backend present (the CUDA one
// when a device answers): which of two facets wins a contested edge pixel may
// differ, but the scenes keep well clear of the threshold.

class SubdivideOnBackend : public tessaline::test::OnEachBackend {};

TEST_P(SubdivideOnBackend, TwoPassesAndPassOneDropOut) {
    TriMesh big = viewedSquare();
    EXPECT_EQ(subdivideCapturingStdout(big, {cameraShowing(56), cameraShowing(56)}, laplaceImages(2), kImage, kImage),
              "subdividing at level 0 : 2 facets\n"
              "subdividing at level 1 : 8 facets\n");
    EXPECT_EQ(big.num_f, 32);
    TriMesh small = viewedSquare();
    EXPECT_EQ(subdivideCapturingStdout(small, {cameraShowing(40), cameraShowing(12)}, laplaceImages(2), kImage, kImage),
              "subdividing at level 0 : 2 facets\n"
              "stop dividing\n");
    EXPECT_EQ(small.num_f, 8);
    TriMesh one = viewedSquare();
    const mycamera away = meshtest::cameraLookingAway(200, kCentre, kCentre, kDistance);
    EXPECT_EQ(subdivideCapturingStdout(one, {cameraShowing(40), away}, laplaceImages(2), kImage, kImage),
              "stop dividing\n");
}

TESSALINE_INSTANTIATE_ON_BACKENDS(SubdivideOnBackend);

}  // namespace
