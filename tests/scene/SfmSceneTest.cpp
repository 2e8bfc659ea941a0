// SFM scene file and image loading, with the reader's own error
// lines for files that make a run impossible.
#include <gtest/gtest.h>

#include <cstring>

#include <opencv2/imgcodecs.hpp>

#include "SceneTestSupport.h"
#include "SfmScene.h"

namespace {

using scene_test::captureStdout;
using scene_test::readFile;
using scene_test::writeFile;

// The 16 numbers of a camera block after its path.
std::vector<std::string> cameraNumbers(int i) {
    const double s = 0.1 * (i + 1);
    std::vector<std::string> out;
    const double R[9] = {1, 0, 0, 0, -1, 0, 0, 0, -1};
    for (double r : R) out.push_back(std::to_string(r));
    out.push_back(std::to_string(0.5 + s));
    out.push_back(std::to_string(-0.25 - s));
    out.push_back(std::to_string(3.0 + s));
    out.push_back(std::to_string(1520.4 + i));
    out.push_back(std::to_string(1525.9 + i));
    out.push_back(std::to_string(302.32 + i));
    out.push_back(std::to_string(246.87 + i));
    return out;
}

std::string join(const std::vector<std::string>& tokens, const std::string& separator) {
    std::string text;
    for (size_t k = 0; k < tokens.size(); ++k) {
        if (k) text += separator;
        text += tokens[k];
    }
    return text;
}

class SfmSceneTest : public scene_test::TempFolderTest {
protected:
    // A w x h grey PNG of one value.
    std::string makeImage(const std::string& name, int w, int h, int value = 100) {
        const std::string p = path(name);
        cv::Mat img(h, w, CV_8UC1, cv::Scalar(value));
        EXPECT_TRUE(cv::imwrite(p, img));
        return p;
    }

    // Tokens of a scene: count, camera blocks with the given paths, the box,
    // neighbour blocks (index i, then the list).
    std::vector<std::string> sceneTokens(const std::vector<std::string>& imagePaths,
                                         const std::vector<std::vector<int>>& neighbours,
                                         const std::vector<std::string>& box = {"-1", "1", "-2", "2", "-3", "3"}) {
        std::vector<std::string> tokens{std::to_string(imagePaths.size())};
        for (size_t i = 0; i < imagePaths.size(); ++i) {
            tokens.push_back(imagePaths[i]);
            for (const auto& n : cameraNumbers(static_cast<int>(i))) tokens.push_back(n);
        }
        tokens.insert(tokens.end(), box.begin(), box.end());
        for (size_t i = 0; i < neighbours.size(); ++i) {
            tokens.push_back(std::to_string(i));
            tokens.push_back(std::to_string(neighbours[i].size()));
            for (int n : neighbours[i]) tokens.push_back(std::to_string(n));
        }
        return tokens;
    }

    std::string writeScene(const std::string& name, const std::vector<std::string>& tokens,
                           const std::string& separator = "\n") {
        const std::string p = path(name);
        writeFile(p, join(tokens, separator) + "\n");
        return p;
    }

    // Loads and returns the printed text.
    std::string load(SfmScene& scene, const std::string& p, bool& ok) {
        return captureStdout([&] { ok = loadSfmScene(scene, p); });
    }

    // Expects a refusal: the "loading " line, then exactly `errorLine`.
    void expectRefused(const std::string& p, const std::string& errorLine) {
        SfmScene scene;
        bool ok = true;
        const std::string printed = load(scene, p, ok);
        EXPECT_FALSE(ok);
        EXPECT_EQ(printed, "loading " + p + "...\n" + errorLine + "\n");
    }
};

TEST_F(SfmSceneTest, LoadsTheTwoCameraExample) {
    const std::string a = makeImage("a.png", 8, 6, 10);
    const std::string b = makeImage("b.png", 8, 6, 20);
    const std::string p = path("scene.sfm");
    // The usual layout: one block per line.
    std::string text = "2\n" + a + " " + join(cameraNumbers(0), " ") + "\n" + b + " " + join(cameraNumbers(1), " ") +
                       "\n-1 1 -2 2 -3 3\n0 1 1\n1 1 0\n";
    writeFile(p, text);
    SfmScene scene;
    bool ok = false;
    const std::string printed = load(scene, p, ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(printed, "loading " + p + "...\n2 images have been loaded\nBounding Box: -1 1 -2 2 -3 3\n");
    ASSERT_EQ(scene.images.size(), 2u);
    ASSERT_EQ(scene.imagePaths.size(), 2u);
    ASSERT_EQ(scene.cameras.size(), 2u);
    ASSERT_EQ(scene.neighbourLists.size(), 2u);
    EXPECT_EQ(scene.imagePaths[0], a);
    EXPECT_EQ(scene.imagePaths[1], b);
    EXPECT_EQ(scene.images[0].type(), CV_8UC1);
    EXPECT_EQ(scene.images[0].cols, 8);
    EXPECT_EQ(scene.images[0].rows, 6);
    EXPECT_EQ(scene.images[1].at<uint8_t>(2, 3), 20);
    EXPECT_EQ(scene.neighbourLists[0], std::vector<int>{1});
    EXPECT_EQ(scene.neighbourLists[1], std::vector<int>{0});

    const mycamera& c1 = scene.cameras[1];
    const double R[9] = {1, 0, 0, 0, -1, 0, 0, 0, -1};
    for (int k = 0; k < 9; ++k) EXPECT_EQ(c1.R[k], R[k]);
    EXPECT_DOUBLE_EQ(c1.t[0], 0.7);
    EXPECT_DOUBLE_EQ(c1.t[1], -0.45);
    EXPECT_DOUBLE_EQ(c1.t[2], 3.2);
    EXPECT_DOUBLE_EQ(c1.fx, 1521.4);
    EXPECT_DOUBLE_EQ(c1.fy, 1526.9);
    EXPECT_DOUBLE_EQ(c1.cx, 303.32);
    EXPECT_DOUBLE_EQ(c1.cy, 247.87);
    // Stored as lower x, y, z then upper x, y, z.
    const float box[6] = {-1, -2, -3, 1, 2, 3};
    for (int k = 0; k < 6; ++k) EXPECT_EQ(scene.boundingBox[k], box[k]);
}

TEST_F(SfmSceneTest, AnyLayoutOfTheSameTokensReadsTheSame) {
    const std::string a = makeImage("a.png", 5, 4);
    const std::string b = makeImage("b.png", 7, 3);
    const auto tokens = sceneTokens({a, b, a}, {{1, 2}, {0}, {1, 0}});
    const std::vector<std::string> separators = {"\n", " ", "\t", " \r\n  \n\t", "\n\n\n"};
    SfmScene reference;
    bool ok = false;
    load(reference, writeScene("ref.sfm", tokens, " "), ok);
    ASSERT_TRUE(ok);
    for (size_t s = 0; s < separators.size(); ++s) {
        const std::string p = writeScene("layout" + std::to_string(s) + ".sfm", tokens, separators[s]);
        SfmScene scene;
        const std::string printed = load(scene, p, ok);
        ASSERT_TRUE(ok) << "layout " << s;
        EXPECT_EQ(printed, "loading " + p + "...\n3 images have been loaded\nBounding Box: -1 1 -2 2 -3 3\n");
        EXPECT_EQ(scene.imagePaths, reference.imagePaths);
        EXPECT_EQ(scene.neighbourLists, reference.neighbourLists);
        for (int k = 0; k < 6; ++k) EXPECT_EQ(scene.boundingBox[k], reference.boundingBox[k]);
        for (size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(std::memcmp(scene.cameras[i].R, reference.cameras[i].R, sizeof(double) * 9), 0);
            EXPECT_EQ(std::memcmp(scene.cameras[i].t, reference.cameras[i].t, sizeof(double) * 3), 0);
            EXPECT_EQ(scene.cameras[i].fx, reference.cameras[i].fx);
            EXPECT_EQ(scene.cameras[i].cy, reference.cameras[i].cy);
            EXPECT_EQ(scene.images[i].size(), reference.images[i].size());
        }
    }
}

TEST_F(SfmSceneTest, BlockIndicesAreIgnored) {
    const std::string a = makeImage("a.png", 4, 4);
    const std::string p = path("scene.sfm");
    writeFile(p, "3\n" + a + " " + join(cameraNumbers(0), " ") + "\n" + a + " " + join(cameraNumbers(1), " ") + "\n" +
                     a + " " + join(cameraNumbers(2), " ") + "\n-1 1 -1 1 -1 1\n" +
                     "2 1 1\n"      // block "2" is camera 0's
                     "-5 2 0 2\n"   // block "-5" is camera 1's
                     "0 1 0\n");    // block "0" is camera 2's
    SfmScene scene;
    bool ok = false;
    load(scene, p, ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(scene.neighbourLists[0], std::vector<int>{1});
    EXPECT_EQ(scene.neighbourLists[1], (std::vector<int>{0, 2}));
    EXPECT_EQ(scene.neighbourLists[2], std::vector<int>{0});
}

TEST_F(SfmSceneTest, EmptyNeighbourListAndTenEntryList) {
    const std::string a = makeImage("a.png", 3, 2);
    std::vector<std::string> paths(11, a);
    std::vector<std::vector<int>> neighbours(11);
    neighbours[0] = {10, 9, 8, 7, 6, 5, 4, 3, 2, 1};  // 10 entries, kept in file order
    neighbours[1] = {};                               // m = 0
    for (int i = 2; i < 11; ++i) neighbours[i] = {0};
    const std::string p = writeScene("scene.sfm", sceneTokens(paths, neighbours));
    SfmScene scene;
    bool ok = false;
    const std::string printed = load(scene, p, ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(printed, "loading " + p + "...\n11 images have been loaded\nBounding Box: -1 1 -2 2 -3 3\n");
    EXPECT_EQ(scene.neighbourLists[0], (std::vector<int>{10, 9, 8, 7, 6, 5, 4, 3, 2, 1}));
    EXPECT_TRUE(scene.neighbourLists[1].empty());
    EXPECT_EQ(scene.neighbourLists[10], std::vector<int>{0});
}

TEST_F(SfmSceneTest, ColourPhotographArrivesGrey) {
    const std::string p = path("colour.png");
    cv::Mat colour(5, 6, CV_8UC3, cv::Scalar(10, 200, 50));  // B, G, R
    ASSERT_TRUE(cv::imwrite(p, colour));
    const std::string s = writeScene("scene.sfm", sceneTokens({p}, {{}}));
    SfmScene scene;
    bool ok = false;
    load(scene, s, ok);
    ASSERT_TRUE(ok);
    ASSERT_EQ(scene.images.size(), 1u);
    EXPECT_EQ(scene.images[0].type(), CV_8UC1);
    EXPECT_EQ(scene.images[0].channels(), 1);
    EXPECT_EQ(scene.images[0].cols, 6);
    EXPECT_EQ(scene.images[0].rows, 5);
    // Luma of (R, G, B) = (50, 200, 10) is about 133.5.
    EXPECT_NEAR(scene.images[0].at<uint8_t>(2, 2), 0.299 * 50 + 0.587 * 200 + 0.114 * 10, 2.0);
}

TEST_F(SfmSceneTest, ImagesOfDifferentSizesAreNotAnErrorHere) {
    const std::string a = makeImage("a.png", 5, 4);
    const std::string b = makeImage("b.png", 9, 2);
    SfmScene scene;
    bool ok = false;
    load(scene, writeScene("scene.sfm", sceneTokens({a, b}, {{1}, {0}})), ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(scene.images[1].cols, 9);
}

TEST_F(SfmSceneTest, RelativeImagePathsAreTakenFromTheWorkingDirectory) {
    // The same name in the SFM file's folder holds a different image: the one
    // in the working directory must be read.
    makeImage("img.png", 5, 4);
    std::filesystem::create_directory(dir() / "sub");
    makeImage("sub/img.png", 11, 11);
    const std::string p = writeScene("sub/scene.sfm", sceneTokens({"img.png"}, {{}}));
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(dir());
    SfmScene scene;
    bool ok = false;
    load(scene, p, ok);
    std::filesystem::current_path(previous);
    ASSERT_TRUE(ok);
    EXPECT_EQ(scene.imagePaths[0], "img.png");
    EXPECT_EQ(scene.images[0].cols, 5);
}

TEST_F(SfmSceneTest, BoundingBoxLineRepeatsTheFileOrder) {
    const std::string a = makeImage("a.png", 2, 2);
    const std::string p =
        writeScene("scene.sfm", sceneTokens({a}, {{}}, {"0.5", "-1", "2.25", "3", "0.00001", "1234567"}));
    SfmScene scene;
    bool ok = false;
    const std::string printed = load(scene, p, ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(printed, "loading " + p + "...\n1 images have been loaded\nBounding Box: 0.5 -1 2.25 3 1e-05 1.23457e+06\n");
    EXPECT_EQ(scene.boundingBox[0], 0.5f);
    EXPECT_EQ(scene.boundingBox[1], 2.25f);
    EXPECT_EQ(scene.boundingBox[2], 0.00001f);
    EXPECT_EQ(scene.boundingBox[3], -1.0f);
    EXPECT_EQ(scene.boundingBox[4], 3.0f);
    EXPECT_EQ(scene.boundingBox[5], 1234567.0f);
}

TEST_F(SfmSceneTest, TokensAfterTheLastNeighbourBlockAreNotRead) {
    const std::string a = makeImage("a.png", 2, 2);
    auto tokens = sceneTokens({a}, {{0}});
    tokens.push_back("trailing");
    tokens.push_back("words");
    SfmScene scene;
    bool ok = false;
    load(scene, writeScene("scene.sfm", tokens), ok);
    EXPECT_TRUE(ok);
}

TEST_F(SfmSceneTest, MissingSceneFileCannotBeRead) {
    const std::string p = path("nowhere.sfm");
    SfmScene scene;
    bool ok = true;
    const std::string printed = load(scene, p, ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(printed, "loading " + p + "...\n" + p + " cannot read\n");
    EXPECT_TRUE(scene.images.empty());
    EXPECT_TRUE(scene.imagePaths.empty());
    EXPECT_TRUE(scene.cameras.empty());
    EXPECT_TRUE(scene.neighbourLists.empty());
}

TEST_F(SfmSceneTest, SecondImageMissingStopsAfterItsBlock) {
    const std::string a = makeImage("a.png", 4, 3);
    const std::string missing = path("missing.png");
    const std::string c = makeImage("c.png", 4, 3);
    const std::string p = writeScene("scene.sfm", sceneTokens({a, missing, c}, {{1}, {2}, {0}}));
    SfmScene scene;
    bool ok = true;
    const std::string printed = load(scene, p, ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(printed, "loading " + p + "...\nError: fail to load " + missing + "\n");
    // Lists of length N; entries up to and including the failed one are filled.
    ASSERT_EQ(scene.imagePaths.size(), 3u);
    ASSERT_EQ(scene.images.size(), 3u);
    ASSERT_EQ(scene.cameras.size(), 3u);
    EXPECT_EQ(scene.imagePaths[1], missing);
    EXPECT_TRUE(scene.images[1].empty());
    EXPECT_DOUBLE_EQ(scene.cameras[1].fx, 1521.4);
    EXPECT_TRUE(scene.imagePaths[2].empty());
    EXPECT_EQ(scene.cameras[2].fx, -1.0);
    EXPECT_TRUE(scene.images[2].empty());
    EXPECT_TRUE(scene.neighbourLists.empty());
    for (float v : scene.boundingBox) EXPECT_EQ(v, 0.0f);
}

TEST_F(SfmSceneTest, ImageIsReadBeforeTheNextBlock) {
    // The first image is missing and the second block is damaged: the image
    // failure is what is reported, since the block after it is never read.
    const std::string missing = path("missing.png");
    auto tokens = sceneTokens({missing, path("b.png")}, {{1}, {0}});
    tokens[1 + 17 + 3] = "not-a-number";
    expectRefused(writeScene("scene.sfm", tokens), "Error: fail to load " + missing);
}

TEST_F(SfmSceneTest, UnreadableImageFileFailsToLoad) {
    const std::string bogus = path("bogus.png");
    writeFile(bogus, "this is not an image");
    expectRefused(writeScene("scene.sfm", sceneTokens({bogus}, {{}})), "Error: fail to load " + bogus);
}

TEST_F(SfmSceneTest, RefusesAnUnusableCameraCount) {
    const std::string a = makeImage("a.png", 2, 2);
    auto tokens = sceneTokens({a}, {{}});
    for (const std::string count : {"abc", "0", "-2", "99999999999"}) {
        tokens[0] = count;
        const std::string p = writeScene("scene.sfm", tokens);
        expectRefused(p, "Error: the scene file " + p + " has no usable camera count (it must be a positive integer)");
    }
    expectRefused(writeScene("empty.sfm", {}),
                  "Error: the scene file " + path("empty.sfm") +
                      " has no usable camera count (it must be a positive integer)");
}

TEST_F(SfmSceneTest, RefusesAnAbsurdCameraCountWithoutAllocating) {
    const std::string a = makeImage("a.png", 2, 2);
    auto tokens = sceneTokens({a}, {{}});
    tokens[0] = "2000000000";
    const std::string p = writeScene("scene.sfm", tokens);
    expectRefused(p, "Error: the scene file " + p + " declares 2000000000 cameras; at most 1000000 are supported");
}

TEST_F(SfmSceneTest, RefusesAMalformedOrTruncatedCameraBlock) {
    const std::string a = makeImage("a.png", 2, 2);
    const auto tokens = sceneTokens({a, a}, {{1}, {0}});
    // A value of camera 1 that does not parse.
    auto bad = tokens;
    bad[1 + 17 + 5] = "x1.5";
    std::string p = writeScene("bad.sfm", bad);
    expectRefused(p, "Error: the scene file " + p + " ends or is malformed at camera 1");
    // The file ends inside camera 1's block.
    std::vector<std::string> cut(tokens.begin(), tokens.begin() + 1 + 17 + 10);
    p = writeScene("cut.sfm", cut);
    expectRefused(p, "Error: the scene file " + p + " ends or is malformed at camera 1");
    // The file ends before camera 1's path.
    std::vector<std::string> cut2(tokens.begin(), tokens.begin() + 1 + 17);
    p = writeScene("cut2.sfm", cut2);
    expectRefused(p, "Error: the scene file " + p + " ends or is malformed at camera 1");
}

TEST_F(SfmSceneTest, RefusesAnImagePathLongerThan1023Characters) {
    const std::string longPath = "/" + std::string(1023, 'a');
    const std::string p = writeScene("scene.sfm", sceneTokens({longPath}, {{}}));
    expectRefused(p, "Error: the scene file " + p + " gives camera 0 an image path longer than 1023 characters");
}

TEST_F(SfmSceneTest, RefusesATruncatedBoundingBox) {
    const std::string a = makeImage("a.png", 2, 2);
    auto tokens = sceneTokens({a}, {{}});
    tokens.resize(1 + 17 + 4);
    const std::string p = writeScene("scene.sfm", tokens);
    expectRefused(p, "Error: the scene file " + p + " ends or is malformed at the bounding box");
}

TEST_F(SfmSceneTest, RefusesAMalformedOrTruncatedNeighbourBlock) {
    const std::string a = makeImage("a.png", 2, 2);
    const auto tokens = sceneTokens({a, a}, {{1}, {0}});
    const size_t neighbourStart = 1 + 2 * 17 + 6;
    // Block 1 is missing altogether.
    std::vector<std::string> cut(tokens.begin(), tokens.begin() + neighbourStart + 3);
    std::string p = writeScene("cut.sfm", cut);
    expectRefused(p, "Error: the scene file " + p + " ends or is malformed at neighbour block 1");
    // Block 1 ends before its entries.
    std::vector<std::string> cut2(tokens.begin(), tokens.end() - 1);
    p = writeScene("cut2.sfm", cut2);
    expectRefused(p, "Error: the scene file " + p + " ends or is malformed at neighbour block 1");
    // An entry of block 0 that does not parse.
    auto bad = tokens;
    bad[neighbourStart + 2] = "one";
    p = writeScene("bad.sfm", bad);
    expectRefused(p, "Error: the scene file " + p + " ends or is malformed at neighbour block 0");
    // A length that does not parse.
    auto bad2 = tokens;
    bad2[neighbourStart + 1] = "?";
    p = writeScene("bad2.sfm", bad2);
    expectRefused(p, "Error: the scene file " + p + " ends or is malformed at neighbour block 0");
}

TEST_F(SfmSceneTest, RefusesANegativeNeighbourCount) {
    const std::string a = makeImage("a.png", 2, 2);
    auto tokens = sceneTokens({a, a}, {{1}, {}});
    tokens.back() = "-1";  // block 1: index 1, m = -1
    const std::string p = writeScene("scene.sfm", tokens);
    expectRefused(p, "Error: the scene file " + p + " gives neighbour block 1 a negative length -1");
}

TEST_F(SfmSceneTest, RefusesNeighbourIndicesOutsideTheCameras) {
    const std::string a = makeImage("a.png", 2, 2);
    std::string p = writeScene("high.sfm", sceneTokens({a, a}, {{1}, {0, 2}}));
    expectRefused(p, "Error: the scene file " + p + " lists neighbour 2 for camera 1, outside 0..1");
    p = writeScene("low.sfm", sceneTokens({a, a}, {{-1}, {0}}));
    expectRefused(p, "Error: the scene file " + p + " lists neighbour -1 for camera 0, outside 0..1");
}

TEST_F(SfmSceneTest, HugeNeighbourCountInAShortFileIsATruncation) {
    const std::string a = makeImage("a.png", 2, 2);
    auto tokens = sceneTokens({a}, {{0}});
    tokens[tokens.size() - 2] = "2000000000";
    const std::string p = writeScene("scene.sfm", tokens);
    expectRefused(p, "Error: the scene file " + p + " ends or is malformed at neighbour block 0");
}

}  // namespace
