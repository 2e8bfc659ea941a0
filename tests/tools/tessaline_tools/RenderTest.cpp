// render: what the z-buffer shows of a mesh, and the picture written whole or
// not at all.
#include <opencv2/imgcodecs.hpp>

#include "MeshReader.h"
#include "RenderView.h"
#include "ToolsTestSupport.h"

using namespace tools_test;

namespace {

// The cube, its facets turned inside out when `flipped`.
TriMesh cube(bool flipped) {
    TempFolder dir;
    writeFile(dir / "c.ply", cubePly());
    MeshData m = readMeshFile((dir / "c.ply").string());
    for (size_t f = 0; flipped && f < m.facets.size(); f += 3) std::swap(m.facets[f + 1], m.facets[f + 2]);
    return toTriMesh(m);
}

// An imported ring scene to render from.
struct RenderFixture : ImportFixture {
    RenderOptions options;
    RenderFixture() {
        writeModel(false);
        EXPECT_EQ(import(), "");
        options.scenePath = (fs::path(ImportFixture::options.outDir) / "scene.sfm").string();
        options.meshPath = (fs::path(ImportFixture::options.outDir) / "mesh.ply").string();
        options.camera = "view01.png";
        options.outPath = (dir / "view.png").string();
    }
    std::string printed;  // by the last render
    // Renders; returns the error message, or "" on success.
    std::string render() {
        std::string error;
        printed = printedBy([&] { error = errorMessage([&] { runRender(options, cpuDevice()); }); });
        return error;
    }
};

}  // namespace

TEST(RenderMeshView, FrontFacesShowTheirFacetBackFacesAreMarkedEdgesAreDrawn) {
    const RingScene ring = makeRingScene(6);
    mycamera cam = ring.cameras[0];
    const int cx = int(std::lround(cam.cx)), cy = int(std::lround(cam.cy));
    const MeshView front = renderMeshView(cpuDevice(), cube(false), cam, ring.width, ring.height);
    EXPECT_GE(front.facet.at<int>(cy, cx), 0);
    EXPECT_EQ(front.facet.at<int>(2, 2), -1);  // background
    EXPECT_EQ(cv::countNonZero(front.backFace), 0);
    const MeshView back = renderMeshView(cpuDevice(), cube(true), cam, ring.width, ring.height);
    EXPECT_EQ(back.facet.at<int>(cy, cx), -1);
    EXPECT_EQ(back.backFace.at<uint8_t>(cy, cx), 255);
    // The z-buffer drops facets near its area's border; the area reaches past
    // the picture, so a cube cut by the left edge still shows there.
    cam.cx = -5;
    updateIntrinsicMatrices(cam);
    updateProjectionMatrix(cam);
    const MeshView cut = renderMeshView(cpuDevice(), cube(false), cam, ring.width, ring.height);
    EXPECT_GE(cut.facet.at<int>(cy, 0), 0);
    EXPECT_GE(cut.facet.at<int>(cy, 15), 0);
    EXPECT_EQ(cut.facet.at<int>(cy, 60), -1);
}

TEST(RenderCommand, RefusesBadRequestsThenDrawsPanelsAndAHeatMapWithItsBar) {
    RenderFixture f;
    const std::vector<std::pair<std::function<void(RenderOptions&)>, std::string>> cases = {
        {[](RenderOptions& o) { o.camera = "6"; }, "camera 6 is out of range: the scene has cameras 0 to 5"},
        {[](RenderOptions& o) { o.camera = "nope.png"; }, "the scene has no camera nope.png"},
        {[&](RenderOptions& o) { o.outPath = (f.dir / "view.xyz").string(); }, "give a .png file"},
        {[&](RenderOptions& o) { o.outPath = (f.dir / "no" / "view.png").string(); }, "does not exist"},
        {[&](RenderOptions& o) { o.comparePath = (f.dir / "absent.ply").string(); }, "does not exist"},
        {[&](RenderOptions& o) { o.scenePath = (f.dir / "cube.ply").string(); }, "cannot load the scene"},
    };
    for (const auto& [spoil, message] : cases) {
        RenderOptions saved = f.options;
        spoil(f.options);
        const std::string error = f.render();
        EXPECT_NE(error.find(message), std::string::npos) << error;
        f.options = saved;
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(f.dir.dir()), {}), 4);  // model, images, cube.ply, out

    ASSERT_EQ(f.render(), "");
    cv::Mat img = cv::imread(f.options.outPath, cv::IMREAD_COLOR);
    ASSERT_EQ(img.size(), cv::Size(3 * 160, 120));
    const cv::Vec3b centre = img.at<cv::Vec3b>(60, 160 + 80);  // the shaded panel: grey where the cube is
    EXPECT_TRUE(centre[0] > 60 && centre[0] == centre[2]);
    writeFile(f.dir / "bigger.ply", cubePly("0.6"));
    f.options.comparePath = (f.dir / "bigger.ply").string();
    f.options.camera = "1";
    ASSERT_EQ(f.render(), "");
    const std::string& out = f.printed;
    img = cv::imread(f.options.outPath, cv::IMREAD_COLOR);
    ASSERT_EQ(img.cols, 3 * 160 + 120);
    // The cube faces lie 0.1 inside the bigger one: every distance is 0.1.
    EXPECT_NE(out.find("median 0.1,"), std::string::npos) << out;
    const cv::Vec3b heat = img.at<cv::Vec3b>(60, 320 + 80);
    EXPECT_NE(heat[0], heat[2]);  // coloured, not grey
}

// A device that cannot render (here a CUDA device that no machine has)
// reports it itself: the render stops with a failure that prints nothing
// more, and no picture is written.
TEST(RenderCommand, ARenderTheDeviceDoesNotCompleteWritesNothing) {
    RenderFixture f;
    bool reported = false;
    const std::string out = printedBy([&] {
        try {
            runRender(f.options, DeviceHandle{DeviceBackend::Cuda, 999, RunContext()});
        } catch (const ReportedFailure&) {
            reported = true;
        }
    });
    EXPECT_TRUE(reported);
    EXPECT_NE(out.find("Error: "), std::string::npos) << out;
    EXPECT_FALSE(fs::exists(f.options.outPath));
}
