#include "PlaneSweepCommand.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <limits>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "CommandLine.h"
#include "ProgramCUDA_library.h"
#include "SfmScene.h"

namespace planesweep_tool {

namespace cli = tessaline::cli;

namespace {

void boxCorners(const float box[6], double corners[8][3]) {
    for (int i = 0; i < 8; ++i) {
        corners[i][0] = (i & 1) ? box[3] : box[0];
        corners[i][1] = (i & 2) ? box[4] : box[1];
        corners[i][2] = (i & 4) ? box[5] : box[2];
    }
}

// Depth of X along the camera's axis: third row of R X + t.
double axisDepth(const mycamera& cam, const double X[3]) {
    return cam.R[6] * X[0] + cam.R[7] * X[1] + cam.R[8] * X[2] + cam.t[2];
}

const char* methodName(Method m) {
    return m == Method::InvDepth ? "invdepth" : m == Method::Height ? "height" : "homography";
}

const char* valueName(Method m) {
    return m == Method::InvDepth ? "inverse distance" : m == Method::Height ? "height" : "depth along the axis";
}

// The images and cameras of one sweep: reference first, then neighbours.
struct SweepInput {
    std::vector<uint8_t> stack;
    std::vector<mycamera> cameras;
    std::vector<int> indices;
    int width = 0;
    int height = 0;
};

double distance(const double A[3], const double B[3]) {
    return std::sqrt((A[0] - B[0]) * (A[0] - B[0]) + (A[1] - B[1]) * (A[1] - B[1]) + (A[2] - B[2]) * (A[2] - B[2]));
}

bool gatherInput(const SfmScene& scene, int reference, int wanted, double scale, SweepInput& in) {
    in.indices.push_back(reference);
    double Cref[3];
    cameraCentre(scene.cameras[reference], Cref);
    const float* box = scene.boundingBox;
    const double middle[3] = {0.5 * (box[0] + box[3]), 0.5 * (box[1] + box[4]), 0.5 * (box[2] + box[5])};
    const double sceneDistance = distance(Cref, middle);
    for (int n : scene.neighbourLists[reference]) {
        if (int(in.indices.size()) > wanted) break;
        if (n < 0 || n >= int(scene.images.size()) || n == reference) continue;
        if (std::find(in.indices.begin(), in.indices.end(), n) != in.indices.end()) continue;
        // A camera at the reference's own position sees every plane alike:
        // it would score every depth as a match.
        double C[3];
        cameraCentre(scene.cameras[n], C);
        if (!(distance(C, Cref) > 1e-3 * sceneDistance)) {
            std::cout << "skipping neighbour " << n << ": it stands where the reference camera stands" << std::endl;
            continue;
        }
        in.indices.push_back(n);
    }
    if (in.indices.size() < 2) {
        std::cout << "Error: camera " << reference << " has no usable neighbour in the scene file" << std::endl;
        return false;
    }
    for (int i : in.indices) {
        cv::Mat img = scene.images[i];
        if (scale != 1.0) {
            cv::Mat scaled;
            cv::resize(img, scaled, cv::Size(), scale, scale, cv::INTER_LINEAR);
            img = scaled;
        }
        if (i == reference) {
            in.width = img.cols;
            in.height = img.rows;
        } else if (img.cols != in.width || img.rows != in.height) {
            std::cout << "Error: image " << scene.imagePaths[i] << " is " << img.cols << " x " << img.rows
                      << " but the reference is " << in.width << " x " << in.height
                      << "; the sweep needs images of one size" << std::endl;
            return false;
        }
        if (!img.isContinuous()) img = img.clone();
        in.stack.insert(in.stack.end(), img.data, img.data + size_t(img.cols) * img.rows);
        mycamera cam = scene.cameras[i];
        scaleCameraToLevel(cam, scale);  // also rebuilds K, K_inv and P at scale 1
        in.cameras.push_back(cam);
    }
    return true;
}

// The displayed value of a cell, or NaN where the sweep found none.
float displayedValue(Method m, float depth, float score) {
    const float none = std::numeric_limits<float>::quiet_NaN();
    switch (m) {
        case Method::InvDepth:  // the value is an inverse distance
            return (score > -1.0f && depth > 0.0f) ? 1.0f / depth : none;
        case Method::Height:
            return score > -1.0f ? depth : none;
        case Method::Homography:  // score 0: no window could be compared
            return score > 0.0f ? depth : none;
    }
    return none;
}

// The displayed quantity's range over the swept planes: distances for the
// inverse-distance sweep, heights for the height sweep, and for the
// homography sweep the axis depths turned into distances along the rays of
// the reference image's corners.
void displayRange(Method m, const SweepRange& range, int planes, const mycamera& reference, int width, int height,
                  double& lo, double& hi) {
    const double first = range.start;
    const double last = double(range.start) + double(planes - 1) * double(range.step);
    lo = std::min(first, last);
    hi = std::max(first, last);
    if (m == Method::InvDepth && lo > 0.0) {
        const double nearest = 1.0 / hi;
        hi = 1.0 / lo;
        lo = nearest;
    } else if (m == Method::Homography) {
        double stretch = 1.0;  // 1 / cos of the widest ray
        for (int c = 0; c < 4; ++c) {
            const double nx = ((c & 1) ? width - 1 : 0) * reference.K_inv[0] + reference.K_inv[2];
            const double ny = ((c & 2) ? height - 1 : 0) * reference.K_inv[4] + reference.K_inv[5];
            stretch = std::max(stretch, std::sqrt(nx * nx + ny * ny + 1.0));
        }
        hi *= stretch;
    }
}

bool writeMaps(Method m, const std::string& prefix, int ow, int oh, const std::vector<float>& depth,
               const std::vector<float>& score, double lo, double hi, float minScore) {
    std::vector<float> value(depth.size());
    for (size_t i = 0; i < depth.size(); ++i)
        value[i] = score[i] >= minScore ? displayedValue(m, depth[i], score[i])
                                        : std::numeric_limits<float>::quiet_NaN();
    const double span = hi > lo ? hi - lo : 1.0;
    cv::Mat depth16(oh, ow, CV_16UC1), depth8(oh, ow, CV_8UC1), score8(oh, ow, CV_8UC1);
    for (int y = 0; y < oh; ++y)
        for (int x = 0; x < ow; ++x) {
            const size_t i = size_t(y) * ow + x;
            const double t = std::isfinite(value[i]) ? std::clamp((value[i] - lo) / span, 0.0, 1.0) : -1.0;
            depth16.at<uint16_t>(y, x) = t < 0.0 ? 0 : uint16_t(std::lround(1.0 + 65534.0 * t));
            depth8.at<uint8_t>(y, x) = t < 0.0 ? 0 : uint8_t(std::lround(1.0 + 254.0 * t));
            const double s = std::clamp(double(score[i]), -1.0, 1.0);
            score8.at<uint8_t>(y, x) = uint8_t(std::lround((s + 1.0) * 127.5));
        }
    cv::Mat colour;
    cv::applyColorMap(depth8, colour, cv::COLORMAP_JET);
    colour.setTo(cv::Scalar(0, 0, 0), depth8 == 0);

    const std::string depthPath = prefix + "_depth.png";
    const std::string colourPath = prefix + "_depth_color.png";
    const std::string scorePath = prefix + "_score.png";
    if (!writePngAtomically(depthPath, depth16) || !writePngAtomically(colourPath, colour) ||
        !writePngAtomically(scorePath, score8))
        return false;
    const char* what = m == Method::Height ? "height" : "distance from the camera centre";
    std::cout << "depth image: " << depthPath << " (16-bit; 0 no value or a score below " << minScore
              << ", 1 to 65535 the " << what << " from " << lo << " to " << hi << ", clamped)" << std::endl;
    std::cout << "false-colour depth image: " << colourPath << " (blue near, red far, black no value)" << std::endl;
    std::cout << "score image: " << scorePath << " (8-bit; 0 to 255 the mean NCC from -1 to 1)" << std::endl;
    return true;
}

}  // namespace

bool rangeFromBoundingBox(Method method, const mycamera& reference, const float box[6], const double plane[4],
                          int planes, SweepRange& range, std::string& why) {
    double corners[8][3];
    boxCorners(box, corners);
    double lo = std::numeric_limits<double>::infinity(), hi = -lo;
    if (method == Method::InvDepth) {
        double C[3];
        cameraCentre(reference, C);
        double nearest = 0.0;  // distance from the centre to the box
        for (int k = 0; k < 3; ++k) {
            const double d = std::max({box[k] - C[k], 0.0, C[k] - box[k + 3]});
            nearest += d * d;
        }
        nearest = std::sqrt(nearest);
        double farthest = 0.0;
        for (const auto& X : corners)
            farthest = std::max(farthest, std::sqrt((X[0] - C[0]) * (X[0] - C[0]) + (X[1] - C[1]) * (X[1] - C[1]) +
                                                    (X[2] - C[2]) * (X[2] - C[2])));
        if (!(farthest > 0.0)) {
            why = "the bounding box is a point at the camera centre";
            return false;
        }
        nearest = std::max(nearest, 0.05 * farthest);  // a centre inside the box: stop short of it
        lo = 1.0 / farthest;
        hi = 1.0 / nearest;
    } else {
        for (const auto& X : corners) {
            const double v = method == Method::Height ? plane[0] * X[0] + plane[1] * X[1] + plane[2] * X[2] + plane[3]
                                                      : axisDepth(reference, X);
            lo = std::min(lo, v);
            hi = std::max(hi, v);
        }
        if (method == Method::Homography) {
            if (!(hi > 0.0)) {
                why = "the bounding box lies behind the reference camera";
                return false;
            }
            lo = std::max(lo, 0.05 * hi);  // planes through or behind the centre have no homography
        }
    }
    if (!(hi > lo) || !std::isfinite(hi - lo)) {
        why = "the bounding box gives no range of values";
        return false;
    }
    range.start = float(lo);
    range.step = float((hi - lo) / double(planes - 1));
    return true;
}

void defaultHeightPlane(const mycamera& reference, const float box[6], double plane[4]) {
    const double centre[3] = {0.5 * (box[0] + box[3]), 0.5 * (box[1] + box[4]), 0.5 * (box[2] + box[5])};
    plane[0] = reference.R[6];
    plane[1] = reference.R[7];
    plane[2] = reference.R[8];
    plane[3] = reference.t[2] - axisDepth(reference, centre);
}

std::vector<mycamera> relativeToFirst(const std::vector<mycamera>& cameras) {
    std::vector<mycamera> out = cameras;
    if (cameras.empty()) return out;
    const mycamera& first = cameras[0];
    for (mycamera& cam : out) {
        double R[9], t[3];
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c)  // R' = R R0^T
                R[3 * r + c] = cam.R[3 * r] * first.R[3 * c] + cam.R[3 * r + 1] * first.R[3 * c + 1] +
                               cam.R[3 * r + 2] * first.R[3 * c + 2];
        for (int r = 0; r < 3; ++r)  // t' = t - R' t0
            t[r] = cam.t[r] - (R[3 * r] * first.t[0] + R[3 * r + 1] * first.t[1] + R[3 * r + 2] * first.t[2]);
        std::copy(R, R + 9, cam.R);
        std::copy(t, t + 3, cam.t);
        updateIntrinsicMatrices(cam);
        updateProjectionMatrix(cam);
    }
    return out;
}

bool writePngAtomically(const std::string& path, const cv::Mat& image) {
    std::vector<uchar> bytes;
    try {
        if (!cv::imencode(".png", image, bytes)) throw cv::Exception();
    } catch (const cv::Exception&) {
        std::cout << "Error: cannot encode " << path << " as PNG" << std::endl;
        return false;
    }
    const std::string temp = path + ".tmp-" + std::to_string(getpid());
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
        out.close();
        if (!out) {
            std::remove(temp.c_str());
            std::cout << "Error: cannot write " << path << std::endl;
            return false;
        }
    }
    if (std::rename(temp.c_str(), path.c_str()) != 0) {
        std::remove(temp.c_str());
        std::cout << "Error: cannot move the finished image to " << path << std::endl;
        return false;
    }
    return true;
}

namespace {

void printSweep(const PlaneSweepRequest& request, const SfmScene& scene, const SweepInput& in, const SweepRange& range,
                const double plane[4], int ow, int oh) {
    const Method m = request.method;
    std::cout << "reference camera " << request.reference << " (" << scene.imagePaths[request.reference]
              << "), neighbours";
    for (size_t i = 1; i < in.indices.size(); ++i) std::cout << " " << in.indices[i];
    std::cout << std::endl;
    std::cout << "sweep: " << methodName(m) << ", " << request.planes << " planes of " << valueName(m) << " from "
              << range.start << " in steps of " << range.step << ", " << in.width << " x " << in.height
              << " images, " << ow << " x " << oh << " cells";
    if (m == Method::Homography) std::cout << ", " << request.levels << " window sizes";
    if (m == Method::Height)
        std::cout << ", plane " << plane[0] << " " << plane[1] << " " << plane[2] << " " << plane[3];
    std::cout << std::endl;
}

// Runs the sweep the request names on `sweep`.
DeviceStatus sweepOnDevice(const PlaneSweepRequest& request, const SweepInputs& sweep, const double plane[4],
                           const DeviceHandle& device) {
    if (request.method == Method::InvDepth) return PlaneSweep_InvDepth_CUDA(device, InvDepthSweepArgs{sweep});
    if (request.method == Method::Height) {
        HeightSweepArgs args;
        args.sweep = sweep;
        for (int k = 0; k < 4; ++k) args.plane[k] = float(plane[k]);
        return PlaneSweep_Height_CUDA(device, args);
    }
    HomographySweepArgs args;
    args.sweep = sweep;
    args.num_levels = request.levels;
    return PlaneSweep_Homography_CUDA(device, args);
}

}  // namespace

int runPlaneSweep(const PlaneSweepRequest& request, const DeviceHandle& device) {
    const Method m = request.method;
    const int reference = request.reference, planes = request.planes, subsample = request.subsample;
    SfmScene scene;
    if (!loadSfmScene(scene, request.scenePath))
        return cli::fail("the scene " + request.scenePath + " could not be loaded");
    if (reference >= int(scene.images.size()))
        return cli::fail("the reference index " + std::to_string(reference) + " is not a camera of the scene (0 to " +
                         std::to_string(scene.images.size() - 1) + ")");
    SweepInput in;
    if (!gatherInput(scene, reference, request.neighbours, request.scale, in)) return cli::kFailure;
    if (m == Method::Homography) in.cameras = relativeToFirst(in.cameras);

    double plane[4] = {0, 0, 0, 0};
    if (m == Method::Height) {
        if (request.plane.size() == 4)
            std::copy(request.plane.begin(), request.plane.end(), plane);
        else
            defaultHeightPlane(scene.cameras[reference], scene.boundingBox, plane);
    }
    SweepRange range = request.range;
    if (!request.rangeGiven) {
        std::string why;
        // The bounding box is given in the scene's frame: take the range from
        // the reference camera as the scene file has it.
        mycamera ref = scene.cameras[reference];
        scaleCameraToLevel(ref, 1.0);
        if (!rangeFromBoundingBox(m, ref, scene.boundingBox, plane, planes, range, why))
            return cli::fail("no sweep range from the bounding box: " + why + "; give --start and --step");
    }

    const int ow = (in.width + subsample - 1) / subsample;
    const int oh = (in.height + subsample - 1) / subsample;
    std::vector<mycamera_cuda> cams(in.cameras.size());
    for (size_t i = 0; i < cams.size(); ++i) toCameraCuda(cams[i], in.cameras[i]);
    std::vector<float> depth(size_t(ow) * oh, 0.0f), score(size_t(ow) * oh, 0.0f);

    printSweep(request, scene, in, range, plane, ow, oh);

    SweepInputs sweep;
    sweep.num_neighbours = int(in.indices.size()) - 1;
    sweep.width = in.width;
    sweep.height = in.height;
    sweep.image_stack = in.stack.data();
    sweep.cameras = cams.data();
    sweep.out_width = ow;
    sweep.out_height = oh;
    sweep.subsample = subsample;
    sweep.depth = depth.data();
    sweep.score = score.data();
    sweep.start = range.start;
    sweep.step = range.step;
    sweep.num_planes = planes;

    const auto t0 = std::chrono::steady_clock::now();
    // The device has printed why; the maps it left are not to be written.
    if (sweepOnDevice(request, sweep, plane, device) != DeviceStatus::Ok) return cli::kFailure;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    std::cout << "plane sweep time: " << seconds << " s on the " << deviceBackendName(device.backend)
              << " backend" << std::endl;

    double lo = 0.0, hi = 0.0;
    displayRange(m, range, planes, in.cameras[0], in.width, in.height, lo, hi);
    return writeMaps(m, request.outPrefix, ow, oh, depth, score, lo, hi, request.minScore) ? cli::kSuccess
                                                                                           : cli::kFailure;
}

int runPlaneSweepCommand(int argc, char** argv) {
    CLI::App app{"Plane sweep for one reference camera of a scene file: writes the depth map as a 16-bit PNG and "
                 "a false-colour PNG, and the score map."};
    PlaneSweepRequest request;
    std::string method = "invdepth";
    int device = 0;
    app.add_option("scene", request.scenePath,
                   "SFM scene file (photographs are read relative to the working folder)")
        ->required();
    app.add_option("reference", request.reference, "index of the reference camera")
        ->required()
        ->check(CLI::NonNegativeNumber);
    app.add_option("out_prefix", request.outPrefix, "output path prefix: PREFIX_depth.png, PREFIX_depth_color.png, "
                                                    "PREFIX_score.png")
        ->required();
    app.add_option("--method", method, "invdepth (inverse distance along each ray), height (levels over a plane) "
                                       "or homography (planes facing the reference, multi-window NCC)")
        ->check(CLI::IsMember({"invdepth", "height", "homography"}))
        ->capture_default_str();
    CLI::Option* startOpt = app.add_option("--start", request.range.start, "value of the first plane (default: "
                                                                           "from the bounding box)");
    CLI::Option* stepOpt = app.add_option("--step", request.range.step, "value step between planes (default: from "
                                                                        "the bounding box)");
    app.add_option("--planes", request.planes, "number of planes")
        ->check(CLI::Range(3, 100000))
        ->capture_default_str();
    app.add_option("--levels", request.levels, "window sizes of the homography sweep (half-sizes 2, 4, ...)")
        ->check(CLI::Range(0, 32))
        ->capture_default_str();
    app.add_option("--neighbours", request.neighbours, "neighbours taken from the scene file's list")
        ->check(CLI::Range(1, 64))
        ->capture_default_str();
    app.add_option("--subsample", request.subsample, "image pixels per result cell in each direction")
        ->check(CLI::Range(1, 64))
        ->capture_default_str();
    app.add_option("--scale", request.scale, "scale of the images before the sweep")
        ->check(CLI::Range(0.05, 1.0))
        ->capture_default_str();
    app.add_option("--plane", request.plane, "a b c d of the height sweep's plane a x + b y + c z + d = 0 (default: "
                                             "the reference camera's axis as normal, level 0 through the box's "
                                             "centre)")
        ->expected(4);
    app.add_option("--min-score", request.minScore, "cells scoring below this are left out of the depth images")
        ->check(CLI::Range(-1.0f, 1.0f))
        ->capture_default_str();
    app.add_option("--device", device, "CUDA device index")->capture_default_str();
    startOpt->needs(stepOpt);
    stepOpt->needs(startOpt);
    if (const auto status = cli::parse(app, argc, argv)) return *status;

    request.method = method == "height"       ? Method::Height
                     : method == "homography" ? Method::Homography
                                              : Method::InvDepth;
    request.rangeGiven = startOpt->count() > 0;
    const std::vector<double>& p = request.plane;
    if (!p.empty() && request.method != Method::Height)
        return cli::refuse("--plane belongs to the height sweep (--method height)");
    if (!p.empty() && p[0] == 0.0 && p[1] == 0.0 && p[2] == 0.0)
        return cli::refuse("the plane's normal (a, b, c) must not be 0");
    if (request.rangeGiven && !(request.range.step != 0.0f && std::isfinite(request.range.start) &&
                                std::isfinite(request.range.step)))
        return cli::refuse("--start and --step must be finite and the step must not be 0");
    {
        const std::string& prefix = request.outPrefix;
        const size_t slash = prefix.find_last_of('/');
        const std::string folder = slash == std::string::npos ? "." : prefix.substr(0, slash + 1);
        if (prefix.empty() || prefix.back() == '/' || access(folder.c_str(), W_OK) != 0)
            return cli::fail("the output prefix " + prefix + " does not name a file in a writable folder");
    }

    const DeviceSetup setup = setupDevice(device, cli::runContext());
    std::cout << setup.description << std::endl;
    return runPlaneSweep(request, setup.device);
}

}  // namespace planesweep_tool
