// The COLMAP readers: both formats agree on the real model and on a written
// one, and damaged files are refused with a message that says what is wrong.
#include "ToolsTestSupport.h"

using namespace tools_test;

namespace {

std::string readError(const fs::path& dir) {
    return errorMessage([&] { readColmapModel(dir.string()); });
}

}  // namespace

TEST(ColmapReader, TextAndBinaryGiveTheSameRealCameras) {
    SKIP_WITHOUT_REAL_DATA();
    const ColmapModel bin = readColmapModel((realDataDir() / "colmap" / "sparse" / "0").string());
    const ColmapModel txt = readColmapModel((realDataDir() / "colmap" / "sparse_text").string());
    EXPECT_EQ(bin.format, ColmapFormat::Binary);
    EXPECT_EQ(txt.format, ColmapFormat::Text);
    ASSERT_EQ(bin.images.size(), 13u);
    ASSERT_EQ(txt.images.size(), 13u);
    EXPECT_EQ(bin.points.size(), txt.points.size());
    // The two forms list images in different orders.
    for (const ColmapImage& b : bin.images) {
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
        p.track.erase(std::remove_if(p.track.begin(), p.track.end(), [&](auto& el) { return el.imageId == 101; }),
                      p.track.end());
    writeColmapText(m, dir.path());
    const ColmapModel t = readColmapModel(dir.path().string());
    ASSERT_EQ(t.images.size(), 3u);
    EXPECT_TRUE(t.images[1].points2D.empty());
    EXPECT_EQ(t.images[2].points2D.size(), m.images[2].points2D.size());
}

TEST(ColmapReader, DamagedBinaryFilesAreRefused) {
    TempDir dir;
    const ColmapModel good = ringToColmap(makeRingScene(4));

    writeColmapBinary(good, dir.path());
    std::string images = readText(dir / "images.bin");
    size_t lastImage = 8;
    for (size_t i = 0; i + 1 < good.images.size(); ++i)
        lastImage += 4 + 56 + 4 + good.images[i].name.size() + 1 + 8 + 24 * good.images[i].points2D.size();
    writeText(dir / "images.bin", images.substr(0, lastImage + 20));  // ends inside a quaternion
    EXPECT_NE(readError(dir.path()).find("images.bin is truncated"), std::string::npos);
    // Short by a few bytes: the last count of keypoints no longer fits.
    writeText(dir / "images.bin", images.substr(0, images.size() - 7));
    EXPECT_NE(readError(dir.path()).find("count of keypoints"), std::string::npos);

    // A count far larger than the file: refused before anything is sized.
    writeColmapBinary(good, dir.path());
    std::string cams = readText(dir / "cameras.bin");
    const uint64_t huge = 1ull << 60;
    std::memcpy(&cams[0], &huge, 8);
    writeText(dir / "cameras.bin", cams);
    EXPECT_NE(readError(dir.path()).find("more than the"), std::string::npos);

    writeColmapBinary(good, dir.path());
    images = readText(dir / "images.bin");
    const uint64_t manyKeypoints = 1ull << 40;
    const size_t at = 8 + 4 + 56 + 4 + good.images[0].name.size() + 1;
    std::memcpy(&images[at], &manyKeypoints, 8);
    writeText(dir / "images.bin", images);
    EXPECT_NE(readError(dir.path()).find("count of keypoints"), std::string::npos);

    ColmapModel m = good;
    m.cameras[10].modelId = 42;
    writeColmapBinary(m, dir.path());
    EXPECT_NE(readError(dir.path()).find("unknown model id 42"), std::string::npos);
}

TEST(ColmapReader, BrokenReferencesAreRefusedInBothFormats) {
    for (const bool binary : {false, true}) {
        SCOPED_TRACE(binary ? "binary" : "text");
        const ColmapModel good = ringToColmap(makeRingScene(4));
        auto errorOf = [&](const ColmapModel& m) {
            TempDir dir;
            binary ? writeColmapBinary(m, dir.path()) : writeColmapText(m, dir.path());
            return readError(dir.path());
        };
        ColmapModel m = good;
        m.images[1].cameraId = 77;
        EXPECT_NE(errorOf(m).find("refers to camera 77"), std::string::npos);

        m = good;
        m.points[3].track.push_back({999, 0});
        EXPECT_NE(errorOf(m).find("refers to image 999"), std::string::npos);

        m = good;
        m.points[3].track[0].point2DIdx = 5000;
        EXPECT_NE(errorOf(m).find("refers to keypoint 5000"), std::string::npos);

        m = good;
        m.images[0].points2D[0].point3DId = 123456;
        EXPECT_NE(errorOf(m).find("refers to point 123456"), std::string::npos);

        m = good;
        m.images[2].name = m.images[1].name;
        EXPECT_NE(errorOf(m).find("given to two images"), std::string::npos);
    }
}

TEST(ColmapReader, DamagedTextFilesAreRefused) {
    TempDir dir;
    writeColmapText(ringToColmap(makeRingScene(3)), dir.path());
    const std::string cams = readText(dir / "cameras.txt");

    writeText(dir / "cameras.txt", "1 PINHOLE 160 120 200 201 80\n");
    EXPECT_NE(readError(dir.path()).find("takes 4 parameters, the line has 3"), std::string::npos);
    writeText(dir / "cameras.txt", "1 PINHOLE 160 120 200 201 80 abc\n");
    EXPECT_NE(readError(dir.path()).find("\"abc\" is not a finite number"), std::string::npos);
    writeText(dir / "cameras.txt", "1 BROWN 160 120 200\n");
    EXPECT_NE(readError(dir.path()).find("unknown camera model BROWN"), std::string::npos);

    writeText(dir / "cameras.txt", cams);
    std::string pts = readText(dir / "points3D.txt");
    writeText(dir / "points3D.txt", pts.substr(0, pts.find('\n')) + " 100\n");
    EXPECT_NE(readError(dir.path()).find("one value is left over"), std::string::npos);
}

TEST(ColmapReader, FormatIsDetectedFromTheFilesPresent) {
    TempDir dir;
    EXPECT_NE(readError(dir / "missing").find("does not exist"), std::string::npos);
    writeColmapText(ringToColmap(makeRingScene(3)), dir / "0");
    // A COLMAP sparse folder holds its models in numbered subfolders.
    EXPECT_NE(readError(dir.path()).find("the model is in"), std::string::npos);
    fs::remove(dir / "0" / "points3D.txt");
    EXPECT_NE(readError(dir / "0").find("all three as .bin or all three as .txt"), std::string::npos);
}
