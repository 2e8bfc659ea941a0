// Photo-consistency of a mesh with a calibrated photo set, for scenes
// without ground truth: how well the photographs agree with each other when
// carried onto one another through the mesh.
//
// Definition. The pairs are those the refinement compares: each camera i as
// reference with each camera j among the first K (6) of its neighbour list
// (j != i, each once). All at full resolution. For a pair, the mesh is
// rendered into both cameras (the tool's z-buffer), camera j's photograph is
// warped into camera i through the mesh (a reference pixel takes the grey
// level that j shows of its surface point where j sees that point, more than
// 10 pixels inside j's image), and the windowed NCC of the two over 5 x 5
// windows is taken (the optimisation's window, with its +1 on each variance).
// A pixel is valid where the whole window of the warped image has values:
// the surface is seen by both cameras all around it. The score is the mean
// NCC over all valid pixels of all pairs, each pixel of each pair counting
// once, summed in double on the host in camera and pixel order (the same
// value on every run and backend), together with the number of valid
// pixels: a mesh could raise its mean by showing fewer pixels, which the
// count shows.
#pragma once

#include <string>
#include <vector>

#include "ProgramCUDA.h"
#include "SfmScene.h"
#include "TriMesh.h"

namespace tessaline::photo {

constexpr int kDefaultNeighbours = 6;
constexpr int kHalfWindow = 2;  // 5 x 5 windows, as in the optimisation

struct PairScore {
    int reference = 0;
    int target = 0;
    long long validPixels = 0;
    double nccSum = 0.0;
};

struct PhotoConsistency {
    std::vector<PairScore> pairs;  // reference camera order, then target index order
    long long validPixels = 0;
    double meanNcc = 0.0;  // 0 when no pixel is valid
};

// The pairs compared: for each camera i, the targets among the first
// `neighbours` entries of its list, other than i, in increasing index order,
// each once.
std::vector<std::pair<int, int>> comparedPairs(const SfmScene& scene, int neighbours);

// Scores `mesh` against the scene on `device`. Returns false with `error`
// set when the photographs differ in size or a device call did not succeed.
bool measurePhotoConsistency(const DeviceHandle& device, const SfmScene& scene, const TriMesh& mesh, int neighbours,
                             PhotoConsistency& result, std::string& error);

// One line of JSON: scene, mesh, neighbours, pairs, valid_pixels, mean_ncc
// (null when no pixel is valid).
std::string photoConsistencyJson(const PhotoConsistency& result, const std::string& scenePath,
                                 const std::string& meshPath, int neighbours);

// tessaline_photoconsistency SCENE.sfm MESH.ply [--neighbours K] [--pairs] [--json].
int runPhotoConsistencyCommand(int argc, char** argv);

}  // namespace tessaline::photo
