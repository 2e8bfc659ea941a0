// Level data and the camera pair table.
#include <gtest/gtest.h>

#include "DriverTestSupport.h"
#include "levelData.h"
#include "refineMeshAtLevel.h"

namespace {

TEST(LevelData, ScalesFromTheFileValuesEveryTime) {
    const SfmScene scene = driver_test::twoCameraScene(1000, 900, 640, 480);
    std::vector<mycamera> cams;
    std::vector<cv::Mat> imgs;
    buildLevelData(scene, 0.25f, cams, imgs);
    ASSERT_EQ(cams.size(), 2u);
    EXPECT_EQ(std::vector<double>({cams[0].fx, cams[0].fy, cams[0].cx, cams[0].cy}),
              std::vector<double>({250, 225, 160, 120}));
    EXPECT_EQ(imgs[0].size(), cv::Size(32, 24));

    buildLevelData(scene, 0.5f, cams, imgs);
    ASSERT_EQ(cams.size(), 2u) << "lists are emptied before each level";
    EXPECT_EQ(cams[1].fx, 500.0) << "half the file's value, not half of the previous level";
    // P = K [R | t]: last column of the first row is fx * tx + cx * tz.
    EXPECT_DOUBLE_EQ(cams[1].P[3], 500.0 * 0.1 + 320.0 * 5.0);
    EXPECT_EQ(scene.cameras[1].fx, 1000.0) << "the scene's own cameras never change";

    buildLevelData(scene, 1.0f, cams, imgs);  // full resolution keeps the content
    EXPECT_EQ(cv::norm(imgs[1], scene.images[1], cv::NORM_INF), 0.0);
    EXPECT_TRUE(imgs[1].isContinuous());
}

TEST(LevelData, ImageStackHoldsTheImagesBackToBackWithoutRowGaps) {
    cv::Mat a(3, 5, CV_8UC1), wide(3, 8, CV_8UC1);
    for (int e = 0; e < 15; ++e) a.data[e] = uchar(e);
    for (int e = 0; e < 24; ++e) wide.data[e] = uchar(100 + e);
    const cv::Mat b = wide(cv::Rect(2, 0, 5, 3));  // a view whose rows lie 8 bytes apart
    ASSERT_FALSE(b.isContinuous());
    const std::vector<unsigned char> stack = stackLevelImages({a, b});
    ASSERT_EQ(stack.size(), 30u);
    for (int e = 0; e < 15; ++e) EXPECT_EQ(stack[e], e);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 5; ++x) EXPECT_EQ(stack[15 + 5 * y + x], 100 + 8 * y + 2 + x);
    EXPECT_TRUE(stackLevelImages({}).empty());
}

TEST(PairMask, ReadsAtMostSixEntriesPerCameraIgnoresForeignIndicesAndIsNotSymmetric) {
    std::vector<std::vector<int>> lists(9);
    lists[0] = {1, 2, 3, 4, 5, 6, 7, 8};
    lists[2] = {3, 3, 4, 5, 6, 7, 8};  // a repeated entry still counts against the six
    lists[3] = {-1, 9, 2};             // outside the scene: ignored
    const auto mask = buildPairMask(lists, 9);
    ASSERT_EQ(mask.size(), 81u);
    auto row = [&](int i) { return std::vector<int>(mask.begin() + 9 * i, mask.begin() + 9 * i + 9); };
    EXPECT_EQ(row(0), (std::vector<int>{0, 1, 1, 1, 1, 1, 1, 0, 0}));
    EXPECT_EQ(row(2), (std::vector<int>{0, 0, 0, 1, 1, 1, 1, 1, 0}));
    EXPECT_EQ(row(3), (std::vector<int>{0, 0, 1, 0, 0, 0, 0, 0, 0}));
    for (int i : {1, 4, 5, 6, 7, 8}) EXPECT_EQ(row(i), std::vector<int>(9, 0)) << "camera " << i << " lists nobody";
    // Another count of pairs per camera reads that many entries.
    const auto two = buildPairMask(lists, 9, 2);
    EXPECT_EQ(std::vector<int>(two.begin(), two.begin() + 9), (std::vector<int>{0, 1, 1, 0, 0, 0, 0, 0, 0}));
}

}  // namespace
