// The memory estimate's parts: photograph sizes from file headers, the
// mesh growth that the facet selection's rule predicts, the run's shape for
// shrunk photographs, what a change of size or backend does to the estimate,
// and the progress report.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>

#include <opencv2/imgcodecs.hpp>

#include "../../scene/SceneTestSupport.h"
#include "MemoryEstimate.h"
#include "Progress.h"
#include "RunShape.h"

namespace {

using namespace tessaline::memory;
using scene_test::TempFolderTest;

using ImageHeaders = TempFolderTest;

TEST_F(ImageHeaders, SizesOfPngJpegAndOtherFormats) {
    const cv::Mat grey(23, 37, CV_8U, cv::Scalar(90)), colour(41, 17, CV_8UC3, cv::Scalar(1, 2, 3));
    for (const char* name : {"a.png", "a.jpg", "a.bmp"}) {
        for (const cv::Mat* image : {&grey, &colour}) {
            SCOPED_TRACE(name);
            ASSERT_TRUE(cv::imwrite(path(name), *image));
            ImageSize size;
            ASSERT_TRUE(readImageSize(path(name), size));
            EXPECT_EQ(size.width, image->cols);
            EXPECT_EQ(size.height, image->rows);
        }
    }
}

TEST_F(ImageHeaders, RefusesWhatHoldsNoImage) {
    ImageSize size;
    EXPECT_FALSE(readImageSize(path("missing.png"), size));
    scene_test::writeFile(dir() / "text.png", "not an image at all");
    EXPECT_FALSE(readImageSize(path("text.png"), size));
    // A PNG cut before its size, and a JPEG whose markers run past the end.
    EXPECT_FALSE(imageSizeFromHeader(std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16), size));
    EXPECT_FALSE(imageSizeFromHeader(std::string("\xff\xd8\xff\xe0\x00\x10JFIF", 10), size));
}

// A camera at the origin looking down +z, fx = fy = 500, 640x480.
mycamera frontCamera() {
    mycamera camera;
    std::fill(std::begin(camera.R), std::end(camera.R), 0.0);
    camera.R[0] = camera.R[4] = camera.R[8] = 1.0;
    camera.t[0] = camera.t[1] = camera.t[2] = 0.0;
    camera.fx = camera.fy = 500.0;
    camera.cx = 319.5;
    camera.cy = 239.5;
    updateIntrinsicMatrices(camera);
    updateProjectionMatrix(camera);
    return camera;
}

// One triangle at depth 5 facing the camera (front-facing in the render's
// sense), about 10,000 pixels in a 640x480 view.
TriMesh facingTriangle(bool flipped) {
    TriMesh mesh;
    mesh.num_v = 3;
    mesh.num_f = 1;
    mesh.vertices = {-1.0f, -1.0f, 5.0f, 1.0f, -1.0f, 5.0f, 0.0f, 0.0f, 5.0f};
    mesh.facets = flipped ? std::vector<int32_t>{0, 1, 2} : std::vector<int32_t>{0, 2, 1};
    return mesh;
}

TEST(MeshGrowth, FollowsTheSelectionRuleLevelByLevel) {
    const std::vector<mycamera> two(2, frontCamera());
    const std::vector<ImageSize> photos(2, ImageSize{640, 480});
    const RefinementSettings settings;
    // 10,000 pixels: at 1/4 (625) divided twice; at 1/2 (2,500 over 16)
    // once more; at full size (10,000 over 64) once more.
    std::vector<LevelCounts> counts = estimateMeshGrowth(facingTriangle(false), two, photos, settings, 0);
    EXPECT_EQ(counts[2].facets, 16);
    EXPECT_EQ(counts[1].facets, 64);
    EXPECT_EQ(counts[0].facets, 256);
    // Refined down to level 1: the loop still subdivides at level 0 before
    // it stops; refined at level 2 alone, it stops after level 1's division.
    EXPECT_EQ(estimateMeshGrowth(facingTriangle(false), two, photos, settings, 1)[0].facets, 256);
    EXPECT_EQ(estimateMeshGrowth(facingTriangle(false), two, photos, settings, 2)[0].facets, 64);
    // Seen by one camera, or from behind: never divided.
    EXPECT_EQ(estimateMeshGrowth(facingTriangle(false), {frontCamera()}, photos, settings, 0)[0].facets, 1);
    EXPECT_EQ(estimateMeshGrowth(facingTriangle(true), two, photos, settings, 0)[0].facets, 1);
}

TEST(RunShapes, ShrunkPhotographsSeeTheMeshAsACoarserLevelDoes) {
    const std::vector<mycamera> two(2, frontCamera());
    const std::vector<ImageSize> photos(2, ImageSize{640, 480});
    RunOptions options;
    options.maxImageSide = 320;
    options.pairsAtOnce = pairsOnCpu(3, two.size());
    const RunShape shape = shapeOfRun(two, photos, facingTriangle(false), options);
    EXPECT_EQ(shape.photosOnDisk[1].width, 640);
    EXPECT_EQ(shape.photos[1].width, 320);
    EXPECT_EQ(shape.photos[1].height, 240);
    EXPECT_EQ(shape.pairsAtOnce, 2);  // no more pairs than cameras
    // At half size, level 0 sees what level 1 sees at full size.
    EXPECT_EQ(shape.mesh[0].facets, 64);
    EXPECT_EQ(shape.mesh[1].facets, 16);
    // Pixel centres at whole coordinates: the centre of 640 (319.5) is the
    // centre of 320 (159.5).
    mycamera half = frontCamera();
    scaleCamera(half, 0.5, 0.5);
    EXPECT_DOUBLE_EQ(half.cx, 159.5);
    EXPECT_DOUBLE_EQ(half.fx, 250.0);
}

RunShape eightPhotos(int width, int height) {
    RunShape shape;
    shape.photos = shape.photosOnDisk = std::vector<ImageSize>(8, ImageSize{width, height});
    shape.mesh = std::vector<LevelCounts>(3, LevelCounts{20000, 10002});
    shape.pairsAtOnce = 2;
    shape.processBytes = 30u << 20;
    return shape;
}

TEST(MemoryNeeds, GrowWithPixelsAndLevelAndMoveToTheDevice) {
    const RunShape small = eightPhotos(640, 480), large = eightPhotos(1280, 960);
    const MemoryNeed a = estimateMemory(small), b = estimateMemory(large);
    ASSERT_EQ(a.levels.size(), 3u);
    EXPECT_LT(a.levels[0].hostBytes, a.levels[2].hostBytes);  // coarsest first
    EXPECT_EQ(a.peakHostBytes, a.levels[2].hostBytes);
    // Four times the pixels: nearly four times what depends on them.
    const double pixelPart = double(a.peakHostBytes - small.processBytes);
    EXPECT_GT(double(b.peakHostBytes - large.processBytes), 3.5 * pixelPart);
    RunShape coarse = small;
    coarse.finestLevel = 2;
    EXPECT_LT(estimateMemory(coarse).peakHostBytes - small.processBytes, uint64_t(pixelPart / 2));
    RunShape gpu = small;
    gpu.kernelsOnHost = false;
    const MemoryNeed c = estimateMemory(gpu);
    EXPECT_GT(c.peakDeviceBytes, pixelPart / 2);
    EXPECT_LT(c.peakHostBytes, a.peakHostBytes - c.peakDeviceBytes / 2);
}

TEST(MemoryNeeds, LargestFittingSideFitsAndOneMoreDoesNot) {
    const RunShape shape = eightPhotos(4000, 3000);
    const uint64_t available = estimateMemory(shape).peakHostBytes / 3;
    const int side = largestFittingImageSide(shape, available, false);
    ASSERT_GT(side, 16);
    ASSERT_LT(side, 4000);
    auto needAt = [&](int longest) {
        RunShape scaled = shape;
        for (ImageSize& p : scaled.photos) p = ImageSize{longest, int(std::lround(longest * 0.75))};
        return estimateMemory(scaled).peakHostBytes;
    };
    EXPECT_LE(needAt(side), available);
    EXPECT_GT(needAt(side + 1), available);
    EXPECT_EQ(largestFittingImageSide(shape, 1000, false), 0);  // not even the process fits
}

using tessaline::progress::ProgressReport;
using tessaline::progress::ProgressStyle;

TEST(ProgressReport, PlainLinesAtTenthsForEachLevelInTurn) {
    std::ostringstream out;
    ProgressReport report({2, 1}, ProgressStyle::Lines, out);
    for (long long i = 1; i <= 100; ++i) EXPECT_TRUE(report.iterationDone(i, 100));
    for (long long i = 1; i <= 5; ++i) report.iterationDone(i, 5);
    const std::string text = out.str();
    EXPECT_NE(text.find("level 2: 1/100 iterations"), std::string::npos) << text;
    EXPECT_NE(text.find("level 2: 100/100 iterations"), std::string::npos) << text;
    EXPECT_EQ(text.find("level 2: 15/100"), std::string::npos) << text;
    EXPECT_NE(text.find("level 1: 5/5 iterations"), std::string::npos) << text;
    EXPECT_EQ(text.find('\r'), std::string::npos);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 11 + 5);
}

TEST(ProgressReport, LevelsThatSettleBeforeTheirCapAreClosedWithTheirCount) {
    std::ostringstream out;
    ProgressReport report({2, 1, 0}, ProgressStyle::Lines, out);
    for (long long i = 1; i <= 12; ++i) report.iterationDone(i, 100);  // settles at 12
    for (long long i = 1; i <= 50; ++i) report.iterationDone(i, 50);   // runs to its cap
    for (long long i = 1; i <= 7; ++i) report.iterationDone(i, 60);    // settles at 7
    report.finish();
    const std::string text = out.str();
    EXPECT_NE(text.find("level 2: settled after 12 of at most 100 iterations"), std::string::npos) << text;
    EXPECT_EQ(text.find("level 1: settled"), std::string::npos) << text;
    EXPECT_NE(text.find("level 0: settled after 7 of at most 60 iterations"), std::string::npos) << text;
}

TEST(ProgressReport, BarRedrawsInPlaceAndSilentPrintsNothing) {
    std::ostringstream bar, silent;
    ProgressReport drawn({0}, ProgressStyle::Bar, bar), quiet({0}, ProgressStyle::Silent, silent);
    for (long long i = 1; i <= 10; ++i) drawn.iterationDone(i, 10), quiet.iterationDone(i, 10);
    const std::string text = bar.str();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\r'), 10);
    EXPECT_EQ(text.back(), '\n');
    EXPECT_NE(text.find("[##############################] 10/10"), std::string::npos) << text;
    EXPECT_TRUE(silent.str().empty());
}

}  // namespace
