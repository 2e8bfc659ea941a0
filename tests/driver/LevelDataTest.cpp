// Level data and the camera pair table.
#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include "levelData.h"
#include "refineMeshAtLevel.h"

namespace {

SfmScene twoCameraScene() {
    SfmScene scene;
    for (int i = 0; i < 2; ++i) {
        mycamera cam;
        const double R[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
        std::copy(R, R + 9, cam.R);
        cam.t[0] = 0.1 * i, cam.t[1] = 0, cam.t[2] = 5;
        cam.fx = 1000, cam.fy = 900, cam.cx = 640, cam.cy = 480;
        scene.cameras.push_back(cam);
        cv::Mat img(96, 128, CV_8UC1);
        cv::randu(img, 0, 256);
        scene.images.push_back(img);
        scene.imagePaths.push_back("img.png");
        scene.neighbourLists.push_back({1 - i});
    }
    return scene;
}

TEST(LevelData, ScalesFromTheFileValuesEveryTime) {
    const SfmScene scene = twoCameraScene();
    std::vector<mycamera> cams;
    std::vector<cv::Mat> imgs, laps;
    buildLevelData(scene, 0.25f, cams, imgs, laps);
    ASSERT_EQ(cams.size(), 2u);
    EXPECT_EQ(cams[0].fx, 250.0);
    EXPECT_EQ(cams[0].fy, 225.0);
    EXPECT_EQ(cams[0].cx, 160.0);
    EXPECT_EQ(cams[0].cy, 120.0);
    EXPECT_EQ(cams[0].K[8], 1.0);
    EXPECT_EQ(imgs[0].cols, 32);
    EXPECT_EQ(imgs[0].rows, 24);
    EXPECT_EQ(laps[0].type(), CV_8UC1);
    EXPECT_EQ(laps[0].size(), imgs[0].size());

    buildLevelData(scene, 0.5f, cams, imgs, laps);
    ASSERT_EQ(cams.size(), 2u) << "lists are emptied before each level";
    EXPECT_EQ(cams[1].fx, 500.0) << "half the file's value, not half of the previous level";
    // P = K [R | t]: last column of the first row is fx * tx + cx * tz.
    EXPECT_DOUBLE_EQ(cams[1].P[3], 500.0 * 0.1 + 320.0 * 5.0);
    EXPECT_EQ(scene.cameras[1].fx, 1000.0) << "the scene's own cameras never change";
}

TEST(LevelData, FullResolutionImageKeepsItsContent) {
    const SfmScene scene = twoCameraScene();
    std::vector<mycamera> cams;
    std::vector<cv::Mat> imgs, laps;
    buildLevelData(scene, 1.0f, cams, imgs, laps);
    EXPECT_EQ(cv::norm(imgs[1], scene.images[1], cv::NORM_INF), 0.0);
    EXPECT_TRUE(imgs[1].isContinuous());
}

TEST(PairMask, ReadsAtMostSixEntriesPerCameraAndIsNotSymmetric) {
    std::vector<std::vector<int>> lists(9);
    lists[0] = {1, 2, 3, 4, 5, 6, 7, 8};
    lists[2] = {3, 3, 4, 5, 6, 7, 8};  // a repeated entry still counts against the six
    const auto mask = buildPairMask(lists, 9);
    auto at = [&](int i, int j) { return int(mask[size_t(i) * 9 + j]); };
    for (int j = 1; j <= 6; ++j) EXPECT_EQ(at(0, j), 1);
    EXPECT_EQ(at(0, 7), 0);
    EXPECT_EQ(at(0, 8), 0);
    EXPECT_EQ(at(1, 0), 0) << "camera 1 lists nobody";
    int rowTwo = 0;
    for (int j = 0; j < 9; ++j) rowTwo += at(2, j);
    EXPECT_EQ(rowTwo, 5);
    EXPECT_EQ(at(2, 8), 0);
}

TEST(PairMask, IgnoresIndicesOutsideTheScene) {
    const auto mask = buildPairMask({{-1, 5, 1}, {}}, 2);
    EXPECT_EQ(mask, (std::vector<unsigned char>{0, 1, 0, 0}));
}

}  // namespace
