// The synthetic scenes the import tests rest on: the COLMAP model a scene
// writes gives back its cameras through the importer, and its photographs,
// rendered through a lens, are the pinhole photographs once the importer has
// undone the lens.
#include <opencv2/imgproc.hpp>

#include "ImportPhotographs.h"
#include "SynthColmap.h"
#include "SynthScene.h"
#include "ToolsTestSupport.h"

using namespace tools_test;
namespace synth = tessaline::synth;

namespace {

synth::SynthScene makeScene(const std::string& lens) {
    synth::SynthOptions o;
    o.views = 3, o.width = 160, o.height = 120, o.truthLevel = 5, o.lensModel = lens, o.colmapModel = true;
    synth::SynthScene scene;
    std::string error;
    EXPECT_TRUE(synth::makeSynthScene(o, scene, error)) << error;
    return scene;
}

TEST(SynthLens, TheColmapModelGivesTheScenesCamerasBackThroughTheImporter) {
    TempFolder dir;
    const synth::SynthScene scene = makeScene("FULL_OPENCV");
    std::string error;
    ASSERT_TRUE(synth::writeSynthScene(scene, dir.path("scene"), error)) << error;
    EXPECT_FALSE(fs::exists(dir / "scene" / "scene.sfm"));  // the photographs are not pinhole ones
    const ColmapModel model = readColmapModel((dir / "scene" / "colmap").string());
    ASSERT_EQ(model.images.size(), 3u);
    ASSERT_GT(model.points.size(), 100u);
    for (size_t i = 0; i < 3; ++i) {
        const mycamera got = cameraFromColmap(model.cameras.at(model.images[i].cameraId), model.images[i]);
        const mycamera& want = scene.cameras[i];
        EXPECT_EQ(model.images[i].name, scene.imageNames[i]);
        for (int k = 0; k < 9; ++k) EXPECT_NEAR(got.R[k], want.R[k], 1e-12) << i;
        for (int k = 0; k < 3; ++k) EXPECT_NEAR(got.t[k], want.t[k], 1e-12) << i;
        EXPECT_DOUBLE_EQ(got.fx, want.fx);
        EXPECT_DOUBLE_EQ(got.cx, want.cx);
        EXPECT_DOUBLE_EQ(got.cy, want.cy);
    }
    const LensCamera lens = lensOfColmapCamera(model.cameras.begin()->second);
    EXPECT_EQ(lens.distortion.opencvCoefficients(), scene.distortion.opencvCoefficients());
}

// Mean absolute difference over the middle of two photographs, where the
// object is.
double middleDifference(const cv::Mat& a, const cv::Mat& b) {
    const cv::Rect middle(a.cols / 4, a.rows / 4, a.cols / 2, a.rows / 2);
    cv::Mat diff;
    cv::absdiff(a(middle), b(middle), diff);
    return cv::mean(diff)[0];
}

TEST(SynthLens, UndoingTheLensGivesThePinholePhotographs) {
    const synth::SynthScene pinhole = makeScene("PINHOLE");
    for (const char* model : {"SIMPLE_RADIAL", "RADIAL", "OPENCV", "FULL_OPENCV"}) {
        SCOPED_TRACE(model);
        const synth::SynthScene scene = makeScene(model);
        const mycamera& camera = scene.cameras[1];
        LensCamera lens;
        lens.fx = camera.fx, lens.fy = camera.fy, lens.cx = camera.cx, lens.cy = camera.cy;
        lens.distortion = scene.distortion;
        const cv::Mat undone = resamplePhotograph(scene.images[1], lens, camera, scene.images[1].size());
        const double before = middleDifference(scene.images[1], pinhole.images[1]);
        const double after = middleDifference(undone, pinhole.images[1]);
        std::cout << model << ": mean difference to the pinhole photograph " << before << " grey levels, undistorted "
                  << after << std::endl;
        // Measured: 2.8 to 5.0 grey levels before, 1.4 to 1.5 after (bilinear
        // resampling of a texture with detail down to 3 pixels).
        EXPECT_LT(after, 0.6 * before);
        EXPECT_LT(after, 2.0);
    }
}

}  // namespace
