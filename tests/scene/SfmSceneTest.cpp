// SFM scene file and image loading, with the reader's own error
// lines for files that make a run impossible.
#include <gtest/gtest.h>

#include <opencv2/imgcodecs.hpp>

#include "SceneTestSupport.h"
#include "SfmScene.h"

namespace {

using scene_test::printedBy;
using scene_test::writeFile;
using Tokens = std::vector<std::string>;

// The 16 numbers of a camera block after its path.
Tokens cameraNumbers(int i) {
    const double s = 0.1 * (i + 1);
    Tokens out;
    for (double r : {1, 0, 0, 0, -1, 0, 0, 0, -1}) out.push_back(std::to_string(r));
    for (double x : {0.5 + s, -0.25 - s, 3.0 + s, 1520.4 + i, 1525.9 + i, 302.32 + i, 246.87 + i})
        out.push_back(std::to_string(x));
    return out;
}

std::string join(const Tokens& tokens, const std::string& separator) {
    std::string text;
    for (size_t k = 0; k < tokens.size(); ++k) text += (k ? separator : "") + tokens[k];
    return text;
}

class SfmSceneTest : public scene_test::TempFolderTest {
protected:
    // A w x h grey PNG of one value.
    std::string makeImage(const std::string& name, int w, int h, int value = 100) {
        const std::string p = path(name);
        EXPECT_TRUE(cv::imwrite(p, cv::Mat(h, w, CV_8UC1, cv::Scalar(value))));
        return p;
    }

    // Tokens of a scene: count, camera blocks with the given paths, the box,
    // neighbour blocks (index i, then the list).
    Tokens sceneTokens(const Tokens& imagePaths, const std::vector<std::vector<int>>& neighbours,
                       const Tokens& box = {"-1", "1", "-2", "2", "-3", "3"}) {
        Tokens tokens{std::to_string(imagePaths.size())};
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

    std::string writeScene(const std::string& name, const Tokens& tokens, const std::string& separator = "\n") {
        writeFile(path(name), join(tokens, separator) + "\n");
        return path(name);
    }

    // Loads `p`; expects success, or with `errorLine` the refusal printing it.
    SfmScene load(const std::string& p, const std::string& loaded, const std::string& errorLine = "") {
        SfmScene scene;
        bool ok = !errorLine.empty();
        const std::string printed = printedBy([&] { ok = loadSfmScene(scene, p); });
        EXPECT_EQ(ok, errorLine.empty());
        EXPECT_EQ(printed, "loading " + p + "...\n" + (errorLine.empty() ? loaded : errorLine + "\n"));
        return scene;
    }
    SfmScene loadOk(const std::string& p, int n, const std::string& box = "-1 1 -2 2 -3 3") {
        return load(p, std::to_string(n) + " images have been loaded\nBounding Box: " + box + "\n");
    }
};

TEST_F(SfmSceneTest, LoadsTheTwoCameraExampleInAnyLayout) {
    // Photographs of two sizes, the second in colour: it arrives grey.
    const std::string a = makeImage("a.png", 8, 6, 10), b = path("b.png");
    ASSERT_TRUE(cv::imwrite(b, cv::Mat(4, 5, CV_8UC3, cv::Scalar(10, 200, 50))));  // B, G, R
    // The box is given x lower, x upper, y..., and printed back in that order;
    // tokens after the last neighbour block are not read.
    auto tokens = sceneTokens({a, b}, {{1}, {0}}, {"0.5", "-1", "2.25", "3", "0.00001", "1234567"});
    tokens.insert(tokens.end(), {"trailing", "words"});
    for (const std::string separator : {"\n", " ", "\t", " \r\n  \n\t"}) {
        SCOPED_TRACE(join({"[", separator, "]"}, ""));
        const SfmScene scene = loadOk(writeScene("scene.sfm", tokens, separator), 2, "0.5 -1 2.25 3 1e-05 1.23457e+06");
        ASSERT_EQ(scene.images.size(), 2u);
        ASSERT_EQ(scene.cameras.size(), 2u);
        EXPECT_EQ(scene.imagePaths, (Tokens{a, b}));
        EXPECT_EQ(scene.images[0].size(), cv::Size(8, 6));
        EXPECT_EQ(scene.images[0].at<uint8_t>(5, 7), 10);
        EXPECT_EQ(scene.images[1].type(), CV_8UC1);
        EXPECT_EQ(scene.images[1].size(), cv::Size(5, 4));
        EXPECT_NEAR(scene.images[1].at<uint8_t>(2, 3), 0.299 * 50 + 0.587 * 200 + 0.114 * 10, 2.0);
        EXPECT_EQ(scene.neighbourLists, (std::vector<std::vector<int>>{{1}, {0}}));
        const mycamera& c1 = scene.cameras[1];
        EXPECT_EQ(std::vector<double>(c1.R, c1.R + 9), std::vector<double>({1, 0, 0, 0, -1, 0, 0, 0, -1}));
        const double expected[7] = {0.7, -0.45, 3.2, 1521.4, 1526.9, 303.32, 247.87};
        const double got[7] = {c1.t[0], c1.t[1], c1.t[2], c1.fx, c1.fy, c1.cx, c1.cy};
        for (int k = 0; k < 7; ++k) EXPECT_DOUBLE_EQ(got[k], expected[k]) << k;
        // Stored as lower x, y, z then upper x, y, z.
        EXPECT_EQ(std::vector<float>(scene.boundingBox, scene.boundingBox + 6),
                  std::vector<float>({0.5f, 2.25f, 0.00001f, -1.0f, 3.0f, 1234567.0f}));
    }
}

TEST_F(SfmSceneTest, NeighbourBlockIndicesAreIgnoredAndListsKeepFileOrderAndLength) {
    const std::string a = makeImage("a.png", 4, 4);
    // Lists may be empty, longer than six and repeat entries.
    const std::vector<std::vector<int>> lists = {{1}, {}, {2, 1, 0, 1, 2, 0, 1, 1}};
    auto tokens = sceneTokens({a, a, a}, lists);
    const size_t nb = 1 + 3 * 17 + 6;  // the blocks "2", "-5" and "0" are those of cameras 0, 1 and 2
    tokens[nb] = "2", tokens[nb + 3] = "-5", tokens[nb + 5] = "0";
    EXPECT_EQ(loadOk(writeScene("scene.sfm", tokens), 3).neighbourLists, lists);
}

TEST_F(SfmSceneTest, RelativeImagePathsAreTakenFromTheWorkingDirectory) {
    // The same name in the SFM file's folder holds a different image.
    makeImage("img.png", 5, 4);
    std::filesystem::create_directory(dir() / "sub");
    makeImage("sub/img.png", 11, 11);
    const std::string p = writeScene("sub/scene.sfm", sceneTokens({"img.png"}, {{}}));
    SfmScene scene;
    scene_test::inFolder(dir(), [&] { scene = loadOk(p, 1); });
    ASSERT_EQ(scene.images.size(), 1u);
    EXPECT_EQ(scene.imagePaths[0], "img.png");
    EXPECT_EQ(scene.images[0].cols, 5);
}

TEST_F(SfmSceneTest, RefusalsPrintTheirErrorLine) {
    const std::string a = makeImage("a.png", 2, 2), missing = path("missing.png"), bogus = path("bogus.png");
    writeFile(bogus, "this is not an image");
    const auto one = sceneTokens({a}, {{}}), two = sceneTokens({a, a}, {{1}, {0}});
    const size_t nb = 1 + 2 * 17 + 6;  // first neighbour block of `two`
    auto with = [](Tokens t, size_t at, const std::string& value) { return t[at] = value, t; };
    auto cut = [](const Tokens& t, size_t n) { return Tokens(t.begin(), t.begin() + n); };
    const std::string count = " has no usable camera count (it must be a positive integer)";
    const std::string malformed = " ends or is malformed at ", camera1 = malformed + "camera 1";
    const std::string block = malformed + "neighbour block ";
    // The first image is missing and the second block is damaged: the block
    // after the failed image is never read.
    const Tokens imageFirst = with(sceneTokens({missing, path("b.png")}, {{1}, {0}}), 1 + 17 + 3, "not-a-number");
    const struct {
        Tokens tokens;
        std::string line;  // after "Error: the scene file <p>", or whole when it starts with "!"
    } cases[] = {
        {imageFirst, "!Error: fail to load " + missing},
        {sceneTokens({a, missing, a}, {{1}, {2}, {0}}), "!Error: fail to load " + missing},
        {sceneTokens({bogus}, {{}}), "!Error: fail to load " + bogus},
        {with(one, 0, "abc"), count},
        {with(one, 0, "0"), count},
        {with(one, 0, "-2"), count},
        {with(one, 0, "99999999999"), count},
        {{}, count},
        {with(one, 0, "2000000000"), " declares 2000000000 cameras; at most 1000000 are supported"},
        {with(two, 1 + 17 + 5, "x1.5"), camera1},
        {cut(two, 1 + 17 + 10), camera1},
        {cut(two, 1 + 17), camera1},
        {sceneTokens({"/" + std::string(1023, 'a')}, {{}}),
         " gives camera 0 an image path longer than 1023 characters"},
        {cut(one, 1 + 17 + 4), malformed + "the bounding box"},
        {cut(two, nb + 3), block + "1"},
        {cut(two, two.size() - 1), block + "1"},
        {with(two, nb + 2, "one"), block + "0"},
        {with(two, nb + 1, "?"), block + "0"},
        {with(sceneTokens({a}, {{0}}), 1 + 17 + 6 + 1, "2000000000"), block + "0"},  // huge count in a short file
        {with(sceneTokens({a, a}, {{1}, {}}), nb + 4, "-1"), " gives neighbour block 1 a negative length -1"},
        {sceneTokens({a, a}, {{1}, {0, 2}}), " lists neighbour 2 for camera 1, outside 0..1"},
        {sceneTokens({a, a}, {{-1}, {0}}), " lists neighbour -1 for camera 0, outside 0..1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const std::string p = writeScene("bad.sfm", c.tokens);
        load(p, "", c.line[0] == '!' ? c.line.substr(1) : "Error: the scene file " + p + c.line);
    }
    const SfmScene scene = load(path("nowhere.sfm"), "", path("nowhere.sfm") + " cannot read");
    EXPECT_TRUE(scene.images.empty() && scene.imagePaths.empty() && scene.cameras.empty() &&
                scene.neighbourLists.empty());
}

}  // namespace
