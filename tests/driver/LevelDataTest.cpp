// Level data and the camera pair table.
#include <gtest/gtest.h>

#include "DriverTestSupport.h"
#include "levelData.h"
#include "refineMeshAtLevel.h"

namespace {

TEST(LevelData, ScalesFromTheFileValuesEveryTime) {
    const SfmScene scene = driver_test::twoCameraScene(1000, 900, 640, 480);
    std::vector<mycamera> cams;
    std::vector<cv::Mat> imgs, laps;
    buildLevelData(scene, 0.25f, cams, imgs, laps);
    ASSERT_EQ(cams.size(), 2u);
    EXPECT_EQ(std::vector<double>({cams[0].fx, cams[0].fy, cams[0].cx, cams[0].cy}),
              std::vector<double>({250, 225, 160, 120}));
    EXPECT_EQ(imgs[0].size(), cv::Size(32, 24));
    EXPECT_EQ(laps[0].type(), CV_8UC1);
    EXPECT_EQ(laps[0].size(), imgs[0].size());

    buildLevelData(scene, 0.5f, cams, imgs, laps);
    ASSERT_EQ(cams.size(), 2u) << "lists are emptied before each level";
    EXPECT_EQ(cams[1].fx, 500.0) << "half the file's value, not half of the previous level";
    // P = K [R | t]: last column of the first row is fx * tx + cx * tz.
    EXPECT_DOUBLE_EQ(cams[1].P[3], 500.0 * 0.1 + 320.0 * 5.0);
    EXPECT_EQ(scene.cameras[1].fx, 1000.0) << "the scene's own cameras never change";

    buildLevelData(scene, 1.0f, cams, imgs, laps);  // full resolution keeps the content
    EXPECT_EQ(cv::norm(imgs[1], scene.images[1], cv::NORM_INF), 0.0);
    EXPECT_TRUE(imgs[1].isContinuous());
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
}

}  // namespace
