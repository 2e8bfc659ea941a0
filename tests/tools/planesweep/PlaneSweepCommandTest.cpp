// The plane-sweep program: its sweep ranges from a bounding box, the change
// of frame for the homography sweep, and whole runs on a generated scene
// file of a textured plane, including the arguments it refuses.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "../../scene/SceneTestSupport.h"
#include "PlaneSceneSupport.h"
#include "PlaneSweepCommand.h"

namespace {

namespace fs = std::filesystem;
using planesweep_tool::Method;

// The device-side camera as the program's own camera record.
mycamera hostCamera(const mycamera_cuda& c) {
    mycamera m{};
    std::copy(c.R, c.R + 9, m.R);
    std::copy(c.t, c.t + 3, m.t);
    m.fx = c.fx, m.fy = c.fy, m.cx = c.cx, m.cy = c.cy;
    updateIntrinsicMatrices(m);
    updateProjectionMatrix(m);
    return m;
}

TEST(SweepRange, CoversTheBoxFromItsNearestToItsFarthestPointOrSaysWhyNot) {
    // The camera at the origin looks along +z. The box's nearest point is
    // (0, 0, 2), its farthest a corner; a box around the camera stops short
    // of its centre, at 5% of the farthest distance or depth.
    const float box[6] = {-0.5f, -0.5f, 2.0f, 0.5f, 0.5f, 3.0f}, around[6] = {-1, -1, -1, 1, 1, 1},
                behind[6] = {-0.5f, -0.5f, -3.0f, 0.5f, 0.5f, -2.0f}, point[6] = {0, 0, 0, 0, 0, 0};
    const double plane[4] = {0, 0, 1, -2.5};
    struct Case { Method method; const float* box; double first, last; std::string why; };
    const std::vector<Case> cases = {
        {Method::InvDepth, box, 1.0 / std::sqrt(9.5), 0.5, ""}, {Method::Homography, box, 2.0, 3.0, ""},
        {Method::Height, box, -0.5, 0.5, ""}, {Method::Homography, around, 0.05, 1.0, ""},
        {Method::InvDepth, around, 1.0 / std::sqrt(3.0), 20.0 / std::sqrt(3.0), ""},
        {Method::Homography, behind, -1, -11, "the bounding box lies behind the reference camera"},
        {Method::InvDepth, point, -1, -11, "the bounding box is a point at the camera centre"}};  // range untouched
    const double origin[3] = {0, 0, 0}, ahead[3] = {0, 0, 1}, up[3] = {0, -1, 0};
    const mycamera cam = hostCamera(tessaline::test::lookAtCamera(origin, ahead, up, 100, 100, 40, 30));
    for (const Case& c : cases) {
        SCOPED_TRACE("case " + std::to_string(&c - cases.data()));
        planesweep_tool::SweepRange r{-1, -1};
        std::string why;
        EXPECT_EQ(planesweep_tool::rangeFromBoundingBox(c.method, cam, c.box, plane, 11, r, why), c.why.empty());
        EXPECT_EQ(why, c.why);
        EXPECT_NEAR(r.start, c.first, 1e-6);
        EXPECT_NEAR(r.start + 10 * r.step, c.last, 1e-5);
    }
}

TEST(HeightPlane, DefaultIsTheAxisDepthLessTheBoxCentre) {
    const mycamera cam = hostCamera(tessaline::test::planeCamera(0.2, 0.1, -1.0, 100, 81, 61));
    const float box[6] = {-0.5f, -0.5f, 2.0f, 0.5f, 0.5f, 3.0f};
    double p[4];
    planesweep_tool::defaultHeightPlane(cam, box, p);
    auto h = [&](const double X[3]) { return p[0] * X[0] + p[1] * X[1] + p[2] * X[2] + p[3]; };
    const double centre[3] = {0, 0, 2.5}, step[3] = {cam.R[6], cam.R[7], cam.R[8]};  // one along the axis
    const double ahead[3] = {centre[0] + step[0], centre[1] + step[1], centre[2] + step[2]};
    EXPECT_NEAR(h(centre), 0.0, 1e-6);
    EXPECT_NEAR(h(ahead), 1.0, 1e-6);
}

TEST(RelativeFrame, NeighboursSeeTheSamePointsInTheReferenceFrame) {
    const std::vector<mycamera> cams = {hostCamera(tessaline::test::planeCamera(0.3, -0.2, -2.0, 100, 80, 60)),
                                        hostCamera(tessaline::test::planeCamera(-0.4, 0.1, -1.8, 90, 80, 60))};
    const std::vector<mycamera> rel = planesweep_tool::relativeToFirst(cams);
    // The float rotations are orthonormal to about 1e-7.
    for (int k = 0; k < 9; ++k) EXPECT_NEAR(rel[0].R[k], k % 4 == 0 ? 1.0 : 0.0, 1e-6);
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(rel[0].t[k], 0.0, 1e-6);
    const double X[3] = {0.1, 0.2, 0.05};
    double Xref[3];  // X in the reference frame
    for (int r = 0; r < 3; ++r)
        Xref[r] = cams[0].R[3 * r] * X[0] + cams[0].R[3 * r + 1] * X[1] + cams[0].R[3 * r + 2] * X[2] + cams[0].t[r];
    double u0, v0, u1, v1;
    ASSERT_TRUE(projectPoint(cams[1], X, u0, v0) && projectPoint(rel[1], Xref, u1, v1));
    EXPECT_NEAR(u0, u1, 1e-5);
    EXPECT_NEAR(v0, v1, 1e-5);
}

// ------------------------------------------------------------ whole runs

constexpr int W = 96, H = 80;

class PlaneSweepProgram : public scene_test::TempFolderTest {
   protected:
    std::vector<mycamera_cuda> cams;

    void SetUp() override {
        // Reference 0 in front of the textured plane z = 0 at distance 2,
        // camera 1 standing where the reference stands, 2 and 3 beside it.
        const double centres[4][3] = {{0, 0, -2}, {0, 0, -2}, {-0.25, 0, -2}, {0, 0.25, -2}};
        std::ofstream sfm(scene());
        sfm.precision(10);
        sfm << 4 << "\n";
        for (int i = 0; i < 4; ++i) {
            cams.push_back(tessaline::test::planeCamera(centres[i][0], centres[i][1], centres[i][2], 100, W, H));
            const std::vector<uint8_t> img = tessaline::test::renderPlaneImage(cams[i], W, H);
            const std::string png = path("view" + std::to_string(i) + ".png");
            ASSERT_TRUE(cv::imwrite(png, cv::Mat(H, W, CV_8UC1, const_cast<uint8_t*>(img.data()))));
            sfm << png;
            for (float v : cams[i].R) sfm << " " << v;
            for (float v : cams[i].t) sfm << " " << v;
            sfm << " " << cams[i].fx << " " << cams[i].fy << " " << cams[i].cx << " " << cams[i].cy << "\n";
        }
        // Camera 1's only neighbour stands where it stands.
        sfm << "-1 1 -1 1 -0.1 0.1\n0 3 1 2 3\n1 1 0\n2 2 0 3\n3 2 0 2\n";
    }
    int run(const std::vector<std::string>& args, std::string& output) {
        return scene_test::runMain(planesweep_tool::runPlaneSweepCommand, "tessaline_planesweep", args, output);
    }
    std::string scene() const { return path("scene.sfm"); }
    std::string prefix() const { return path("out"); }
};

TEST_F(PlaneSweepProgram, WritesDepthImagesThatRecoverThePlaneWithEverySweep) {
    std::string out;
    // Inverse distances 1/2.2 to 1/1.8: the depth image spans 1.8 to 2.2.
    const float start = 1.0f / 2.2f, step = (1.0f / 1.8f - start) / 40.0f;
    ASSERT_EQ(run({scene(), "0", prefix(), "--start", std::to_string(start), "--step", std::to_string(step),
                   "--planes", "41"}, out), 0) << out;
    EXPECT_NE(out.find("skipping neighbour 1"), std::string::npos) << out;
    const cv::Mat depth = cv::imread(prefix() + "_depth.png", cv::IMREAD_UNCHANGED);
    const cv::Mat colour = cv::imread(prefix() + "_depth_color.png", cv::IMREAD_UNCHANGED);
    const cv::Mat score = cv::imread(prefix() + "_score.png", cv::IMREAD_UNCHANGED);
    ASSERT_TRUE(depth.type() == CV_16UC1 && colour.type() == CV_8UC3 && score.type() == CV_8UC1);
    ASSERT_TRUE(depth.size() == cv::Size(W, H) && colour.size() == depth.size() && score.size() == depth.size());
    const double lo = 1.0 / double(start + 40 * step), hi = 1.0 / double(start);
    int good = 0, checked = 0;
    for (int y = 10; y < H - 10; ++y)
        for (int x = 10; x < W - 10; ++x, ++checked) {
            const int v = depth.at<uint16_t>(y, x);
            const double d = lo + (v - 1) / 65534.0 * (hi - lo), truth = tessaline::test::planeDepth(cams[0], x, y);
            good += v > 0 && std::fabs(d - truth) < 0.01 * truth;
            EXPECT_GT(score.at<uint8_t>(y, x), 191) << "a score of 0.5 or more";
        }
    EXPECT_GT(good, checked * 9 / 10);
    // Only the three images are left: no temporary files.
    int files = 0;
    for (const auto& e : fs::directory_iterator(dir())) files += e.path().string().rfind(prefix(), 0) == 0;
    EXPECT_EQ(files, 3);
    // The other sweeps, with their ranges from the box and cells of 2 x 2 pixels.
    for (const char* method : {"homography", "height"}) {
        ASSERT_EQ(run({scene(), "0", prefix() + method, "--method", method, "--planes", "9", "--levels", "1",
                       "--subsample", "2"}, out), 0) << out;
        EXPECT_NE(out.find(std::string("sweep: ") + method + ", 9 planes"), std::string::npos) << out;
        EXPECT_EQ(cv::imread(prefix() + method + "_depth.png", cv::IMREAD_UNCHANGED).size(), cv::Size(W / 2, H / 2));
    }
}

TEST_F(PlaneSweepProgram, RefusesBadOptionsAndUnusableInputsWithAnErrorLine) {
    const std::string missing = path("missing/out");
    struct Case { std::vector<std::string> args; int status; std::string message; };
    const std::vector<Case> bad = {  // status 2: the command line is refused; 1: the run cannot go on
        {{scene(), "0", prefix(), "--method", "stereo"}, 2, "--method"},
        {{scene(), "0", prefix(), "--planes", "2"}, 2, "--planes"},
        {{scene(), "0", prefix(), "--start", "0.5"}, 2, "--step"},
        {{scene(), "0", prefix(), "--start", "0.5", "--step", "0"}, 2,
         "--start and --step must be finite and the step must not be 0"},
        {{scene(), "0", prefix(), "--plane", "0", "0", "1", "0"}, 2, "--plane belongs to the height sweep"},
        {{scene(), "0", prefix(), "--method", "height", "--plane", "0", "0", "0", "1"}, 2,
         "the plane's normal (a, b, c) must not be 0"},
        {{scene(), "7", prefix()}, 1, "the reference index 7 is not a camera of the scene (0 to 3)"},
        {{scene(), "1", prefix()}, 1, "camera 1 has no usable neighbour in the scene file"},
        {{scene(), "0", missing}, 1, "the output prefix " + missing + " does not name a file in a writable folder"},
    };
    for (const Case& c : bad) {
        std::string out;
        EXPECT_EQ(run(c.args, out), c.status) << c.message;
        EXPECT_NE(out.find(c.message, out.find("Error: ")), std::string::npos) << out;  // on the error line
    }
    EXPECT_FALSE(fs::exists(prefix() + "_depth.png"));
}

// A device that cannot run the sweep (here a CUDA device that no machine
// has) reports it; the program stops with the failure status and writes no
// image.
TEST_F(PlaneSweepProgram, ASweepTheDeviceDoesNotCompleteWritesNothing) {
    planesweep_tool::PlaneSweepRequest request;
    request.scenePath = scene();
    request.outPrefix = prefix();
    request.planes = 9;
    for (const Method method : {Method::InvDepth, Method::Height, Method::Homography}) {
        request.method = method;
        int status = 0;
        const std::string out = scene_test::printedBy(
            [&] { status = planesweep_tool::runPlaneSweep(request, DeviceHandle{DeviceBackend::Cuda, 999, RunContext()}); });
        EXPECT_EQ(status, 1) << out;
        EXPECT_NE(out.find("Error: "), std::string::npos) << out;
        EXPECT_EQ(out.find("plane sweep time"), std::string::npos) << out;
    }
    for (const auto& e : fs::directory_iterator(dir()))
        EXPECT_NE(e.path().string().rfind(prefix(), 0), 0u) << e.path();
}

}  // namespace
