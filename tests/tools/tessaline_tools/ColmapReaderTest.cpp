// The COLMAP readers: both formats agree on the real model and read an image
// without keypoints. Damaged models are refused through the import.
#include "ToolsTestSupport.h"

using namespace tools_test;

TEST(ColmapReader, TextAndBinaryGiveTheSameRealCameras) {
    SKIP_WITHOUT_REAL_DATA();
    const ColmapModel bin = readColmapModel(realModel("sparse/0")), txt = readColmapModel(realModel("sparse_text"));
    EXPECT_EQ(bin.format, ColmapFormat::Binary);
    EXPECT_EQ(txt.format, ColmapFormat::Text);
    ASSERT_EQ(bin.images.size(), 13u);
    ASSERT_EQ(txt.images.size(), 13u);
    EXPECT_EQ(bin.points.size(), txt.points.size());
    for (const ColmapImage& b : bin.images) {  // the two list images in different orders
        SCOPED_TRACE(b.name);
        ASSERT_GE(txt.findImage(b.id), 0);
        const ColmapImage& t = txt.images[size_t(txt.findImage(b.id))];
        EXPECT_EQ(b.name, t.name);
        EXPECT_EQ(b.points2D.size(), t.points2D.size());
        const mycamera cb = cameraFromColmap(bin.cameras.at(b.cameraId), b);
        const mycamera ct = cameraFromColmap(txt.cameras.at(t.cameraId), t);
        EXPECT_EQ(0, std::memcmp(cb.P, ct.P, sizeof cb.P));
        EXPECT_EQ(0, std::memcmp(cb.R, ct.R, sizeof cb.R));
        EXPECT_EQ(0, std::memcmp(cb.t, ct.t, sizeof cb.t));
    }
}

TEST(ColmapReader, ImageWithoutKeypointsHasAnEmptySecondLine) {
    TempDir dir;
    ColmapModel m = ringToColmap(makeRingScene(3));
    m.images[1].points2D.clear();
    for (auto& p : m.points)
        p.track.erase(std::remove_if(p.track.begin(), p.track.end(), [](auto& el) { return el.imageId == 101; }),
                      p.track.end());
    writeColmapText(m, dir.path());
    const ColmapModel t = readColmapModel(dir.path().string());
    ASSERT_EQ(t.images.size(), 3u);
    EXPECT_TRUE(t.images[1].points2D.empty());
    EXPECT_EQ(t.images[2].points2D.size(), m.images[2].points2D.size());
}
