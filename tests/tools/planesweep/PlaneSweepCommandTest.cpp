// The plane-sweep program: its sweep ranges from a bounding box, the change
// of frame for the homography sweep, and whole runs on a generated scene
// file of a textured plane, including the arguments it refuses.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "PlaneSceneSupport.h"
#include "PlaneSweepCommand.h"

namespace {

namespace fs = std::filesystem;
using planesweep_tool::Method;
using planesweep_tool::SweepRange;

// A camera at `centre` with R = I (looking along +z), f = 100.
mycamera axisCamera(double x, double y, double z) {
    mycamera c{};
    const double R[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    std::copy(R, R + 9, c.R);
    c.t[0] = -x, c.t[1] = -y, c.t[2] = -z;
    c.fx = c.fy = 100.0;
    c.cx = 40.0, c.cy = 30.0;
    updateIntrinsicMatrices(c);
    updateProjectionMatrix(c);
    return c;
}

TEST(SweepRange, CoversTheBoxFromItsNearestToItsFarthestPoint) {
    const float box[6] = {-0.5f, -0.5f, 2.0f, 0.5f, 0.5f, 3.0f};
    const double plane[4] = {0, 0, 1, -2.5};
    // The box's nearest point is (0, 0, 2), its farthest a corner.
    const std::vector<std::tuple<Method, double, double>> cases = {
        {Method::InvDepth, 1.0 / std::sqrt(9.5), 0.5}, {Method::Homography, 2.0, 3.0}, {Method::Height, -0.5, 0.5}};
    for (const auto& [method, first, last] : cases) {
        SweepRange r;
        std::string why;
        ASSERT_TRUE(planesweep_tool::rangeFromBoundingBox(method, axisCamera(0, 0, 0), box, plane, 11, r, why));
        EXPECT_NEAR(r.start, first, 1e-6);
        EXPECT_NEAR(r.start + 10 * r.step, last, 1e-6);
    }
}

TEST(SweepRange, RefusesABoxBehindTheCameraAndStopsShortOfACentreInside) {
    const float behind[6] = {-0.5f, -0.5f, -3.0f, 0.5f, 0.5f, -2.0f}, around[6] = {-1, -1, -1, 1, 1, 1};
    const double plane[4] = {0, 0, 1, 0};
    const mycamera cam = axisCamera(0, 0, 0);
    SweepRange r;
    std::string why;
    EXPECT_FALSE(planesweep_tool::rangeFromBoundingBox(Method::Homography, cam, behind, plane, 5, r, why));
    EXPECT_FALSE(why.empty());
    ASSERT_TRUE(planesweep_tool::rangeFromBoundingBox(Method::InvDepth, cam, around, plane, 5, r, why));
    EXPECT_TRUE(std::isfinite(r.start + 4 * r.step));
    ASSERT_TRUE(planesweep_tool::rangeFromBoundingBox(Method::Homography, cam, around, plane, 5, r, why));
    EXPECT_GT(r.start, 0.0f);  // no plane through the centre
}

TEST(HeightPlane, DefaultIsTheAxisDepthLessTheBoxCentre) {
    mycamera cam = axisCamera(0.2, 0.1, -1.0);
    const float box[6] = {-0.5f, -0.5f, 2.0f, 0.5f, 0.5f, 3.0f};
    double p[4];
    planesweep_tool::defaultHeightPlane(cam, box, p);
    auto h = [&](double x, double y, double z) { return p[0] * x + p[1] * y + p[2] * z + p[3]; };
    EXPECT_NEAR(h(0, 0, 2.5), 0.0, 1e-12);
    EXPECT_NEAR(h(0.3, -0.2, 3.5), 1.0, 1e-12);
}

TEST(RelativeFrame, NeighboursSeeTheSamePointsInTheReferenceFrame) {
    std::vector<mycamera> cams;
    for (const mycamera_cuda& c : {tessaline::test::planeCamera(0.3, -0.2, -2.0, 100, 80, 60),
                                   tessaline::test::planeCamera(-0.4, 0.1, -1.8, 90, 80, 60)}) {
        mycamera m{};
        std::copy(c.R, c.R + 9, m.R);
        std::copy(c.t, c.t + 3, m.t);
        m.fx = c.fx, m.fy = c.fy, m.cx = c.cx, m.cy = c.cy;
        updateIntrinsicMatrices(m);
        updateProjectionMatrix(m);
        cams.push_back(m);
    }
    const std::vector<mycamera> rel = planesweep_tool::relativeToFirst(cams);
    // The float rotations are orthonormal to about 1e-7.
    for (int k = 0; k < 9; ++k) EXPECT_NEAR(rel[0].R[k], k % 4 == 0 ? 1.0 : 0.0, 1e-6);
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(rel[0].t[k], 0.0, 1e-6);
    const double X[3] = {0.1, 0.2, 0.05};
    double Xref[3];  // X in the reference frame
    for (int r = 0; r < 3; ++r)
        Xref[r] = cams[0].R[3 * r] * X[0] + cams[0].R[3 * r + 1] * X[1] + cams[0].R[3 * r + 2] * X[2] + cams[0].t[r];
    double u0, v0, u1, v1;
    ASSERT_TRUE(projectPoint(cams[1], X, u0, v0));
    ASSERT_TRUE(projectPoint(rel[1], Xref, u1, v1));
    EXPECT_NEAR(u0, u1, 1e-5);
    EXPECT_NEAR(v0, v1, 1e-5);
}

// ------------------------------------------------------------ whole runs

constexpr int W = 96, H = 80;

class PlaneSweepProgram : public ::testing::Test {
   protected:
    fs::path dir;
    std::vector<mycamera_cuda> cams;

    void SetUp() override {
        char tmpl[] = "/tmp/planesweep_test_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        // Reference 0 in front of the textured plane z = 0 at distance 2,
        // camera 1 standing where the reference stands, 2 and 3 beside it.
        const double centres[4][3] = {{0, 0, -2}, {0, 0, -2}, {-0.25, 0, -2}, {0, 0.25, -2}};
        std::ofstream sfm(dir / "scene.sfm");
        sfm.precision(10);
        sfm << 4 << "\n";
        for (int i = 0; i < 4; ++i) {
            cams.push_back(tessaline::test::planeCamera(centres[i][0], centres[i][1], centres[i][2], 100, W, H));
            const std::vector<uint8_t> img = tessaline::test::renderPlaneImage(cams[i], W, H);
            const fs::path png = dir / ("view" + std::to_string(i) + ".png");
            ASSERT_TRUE(cv::imwrite(png.string(), cv::Mat(H, W, CV_8UC1, const_cast<uint8_t*>(img.data()))));
            const mycamera_cuda& c = cams[i];
            sfm << png.string();
            for (float v : c.R) sfm << " " << v;
            for (float v : c.t) sfm << " " << v;
            sfm << " " << c.fx << " " << c.fy << " " << c.cx << " " << c.cy << "\n";
        }
        sfm << "-1 1 -1 1 -0.1 0.1\n";
        sfm << "0 3 1 2 3\n1 2 0 2\n2 2 0 3\n3 2 0 2\n";
    }
    void TearDown() override { fs::remove_all(dir); }

    int run(std::vector<std::string> args, std::string& output) {
        args.insert(args.begin(), "tessaline_planesweep");
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(a.data());
        testing::internal::CaptureStdout();
        const int status = planesweep_tool::runPlaneSweepCommand(int(argv.size()), argv.data());
        output = testing::internal::GetCapturedStdout();
        return status;
    }
    std::string scene() const { return (dir / "scene.sfm").string(); }
    std::string prefix() const { return (dir / "out").string(); }
};

TEST_F(PlaneSweepProgram, WritesDepthImagesThatRecoverThePlane) {
    std::string out;
    // Inverse distances 1/2.2 to 1/1.8: the depth image spans 1.8 to 2.2.
    const float start = 1.0f / 2.2f, step = (1.0f / 1.8f - start) / 40.0f;
    ASSERT_EQ(run({scene(), "0", prefix(), "--start", std::to_string(start), "--step", std::to_string(step),
                   "--planes", "41"},
                  out),
              0)
        << out;
    EXPECT_NE(out.find("skipping neighbour 1"), std::string::npos) << out;
    EXPECT_NE(out.find("plane sweep time: "), std::string::npos);
    const cv::Mat depth = cv::imread(prefix() + "_depth.png", cv::IMREAD_UNCHANGED);
    const cv::Mat colour = cv::imread(prefix() + "_depth_color.png", cv::IMREAD_UNCHANGED);
    const cv::Mat score = cv::imread(prefix() + "_score.png", cv::IMREAD_UNCHANGED);
    ASSERT_TRUE(depth.type() == CV_16UC1 && colour.type() == CV_8UC3 && score.type() == CV_8UC1);
    ASSERT_TRUE(depth.size() == cv::Size(W, H) && colour.size() == depth.size() && score.size() == depth.size());
    const double lo = 1.0 / double(start + 40 * step), hi = 1.0 / double(start);
    int good = 0, checked = 0;
    for (int y = 10; y < H - 10; ++y)
        for (int x = 10; x < W - 10; ++x) {
            const int v = depth.at<uint16_t>(y, x);
            ++checked;
            if (v == 0) continue;
            const double d = lo + (v - 1) / 65534.0 * (hi - lo);
            const double truth = tessaline::test::planeDepth(cams[0], x, y);
            if (std::fabs(d - truth) < 0.01 * truth) ++good;
            EXPECT_GT(score.at<uint8_t>(y, x), 191) << "a score of 0.5 or more";
        }
    EXPECT_GT(good, checked * 9 / 10);
    // Only the three images are left: no temporary files.
    int files = 0;
    for (const auto& e : fs::directory_iterator(dir)) files += e.path().string().rfind(prefix(), 0) == 0;
    EXPECT_EQ(files, 3);
}

TEST_F(PlaneSweepProgram, RunsTheOtherSweepsWithRangesFromTheBox) {
    std::string out;
    ASSERT_EQ(run({scene(), "0", prefix(), "--method", "homography", "--planes", "9", "--levels", "1"}, out), 0)
        << out;
    EXPECT_NE(out.find("sweep: homography, 9 planes"), std::string::npos) << out;
    ASSERT_EQ(run({scene(), "0", prefix() + "h", "--method", "height", "--planes", "9", "--subsample", "2"}, out), 0)
        << out;
    EXPECT_EQ(cv::imread(prefix() + "h_depth.png", cv::IMREAD_UNCHANGED).size(), cv::Size(W / 2, H / 2));
}

TEST_F(PlaneSweepProgram, RefusesBadArgumentsWithAnErrorLine) {
    const std::vector<std::vector<std::string>> bad = {
        {scene(), "0", prefix(), "--method", "stereo"},
        {scene(), "0", prefix(), "--planes", "2"},
        {scene(), "0", prefix(), "--start", "0.5"},
        {scene(), "0", prefix(), "--plane", "0", "0", "1", "0"},
        {scene(), "0", prefix(), "--method", "height", "--plane", "0", "0", "0", "1"},
        {scene(), "7", prefix()},
        {scene(), "0", (dir / "missing" / "out").string()},
        {(dir / "none.sfm").string(), "0", prefix()},
    };
    for (const auto& args : bad) {
        std::string out;
        EXPECT_EQ(run(args, out), 1) << args[3 < args.size() ? 3 : 1];
        EXPECT_NE(out.find("Error: "), std::string::npos) << out;
    }
    EXPECT_FALSE(fs::exists(prefix() + "_depth.png"));
}

}  // namespace
