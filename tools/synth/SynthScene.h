// Synthetic scenes with known ground truth, for testing and measuring the
// refinement tool.
//
// A scene is a closed, textured object centred near the origin, with world +z
// as "up":
//   - shape: an ellipsoid (or a box or a cylinder, with sharp edges) whose
//     radius along each direction is modulated by several octaves of smooth
//     gradient noise, so the surface carries relief at a few scales;
//   - albedo: multi-octave noise plus a soft checker, defined on 3D points so
//     that every view sees the same texture; the finest octave follows the
//     pixel footprint, so there is contrast at every image level;
//   - shading: Lambertian, one fixed directional light plus ambient, which is
//     view independent and so keeps the views photo-consistent;
//   - cameras: one or two rings around the object, each camera looking at the
//     object's centre, with a focal length chosen so the object (truth and
//     initial mesh) stays `marginPixels` away from the image border in every
//     view;
//   - photographs: ray cast against the ground-truth triangle mesh (own BVH),
//     with S x S supersampling per pixel;
//   - initial mesh: a coarse sphere-topology mesh of the heavily smoothed
//     truth (only its lowest relief octave), pushed outwards by a smooth,
//     low-frequency offset, like a visual hull or a coarse reconstruction;
//     optionally with random per-vertex noise on top, like a noisy one.
//
// Everything is a deterministic function of SynthOptions.
//
// In-process use (tests, benchmarks):
//   tessaline::synth::SynthOptions options;       // defaults: 8 views, 320x240
//   tessaline::synth::SynthScene scene;
//   std::string error;
//   if (!makeSynthScene(options, scene, error)) ...;
//   if (!writeSynthScene(scene, "out/dir", error)) ...;
// The written folder holds scene.sfm (image names relative to the folder),
// view_NNN.png, truth.ply and initial.ply; with a COLMAP model, colmap/ with
// cameras.txt, images.txt and points3D.txt (image names relative to the
// folder). Photographs with lens distortion get no scene.sfm: the refiner
// takes pinhole cameras only, and the COLMAP model describes them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "LensModel.h"
#include "SynthShape.h"
#include "TriMesh.h"
#include "mycamera.h"

namespace tessaline::synth {

struct SynthOptions {
    int views = 8;
    int width = 320;
    int height = 240;
    uint32_t seed = 1;
    // The solid under the relief (SynthShape.h).
    SynthForm form = SynthForm::Blob;
    // Scale of the surface relief: 0 gives the smooth solid, 1 the default
    // relief, larger values deeper relief.
    double detail = 1.0;
    // 1: one ring at 25 degrees elevation; 2: rings at 40 and -10 degrees,
    // alternating, with the lower ring turned by half a step.
    int rings = 1;
    // Smallest distance in pixels between the object and the image border.
    // Negative: choose from the image size (see defaultMarginPixels).
    int marginPixels = -1;
    // Camera distance from the object's centre, in bounding radii.
    double cameraDistance = 3.5;
    // Icosphere subdivision levels of the truth (20 * 4^level facets) and of
    // the initial mesh.
    int truthLevel = 6;
    int initialLevel = 3;
    // Mean outward offset of the initial mesh, as a fraction of the truth's
    // bounding-box diagonal; it varies smoothly between 0.5 and 1.5 times
    // this value over the surface.
    double initialOffset = 0.015;
    // Random displacement of each initial vertex along its direction from
    // the object's centre, uniform in [-noise, noise] times the truth's
    // diagonal, drawn from the seed; 0 leaves the initial mesh smooth.
    double initialNoise = 0.0;
    // Rays per pixel along each axis.
    int supersample = 2;
    // The camera model of the photographs: PINHOLE, or SIMPLE_RADIAL,
    // RADIAL, OPENCV or FULL_OPENCV, whose photographs are rendered with
    // the distortion of synthDistortion (SynthColmap.h) at `distortion`.
    std::string lensModel = "PINHOLE";
    double distortion = 1.0;
    // Also write the scene as a COLMAP text model into OUT_DIR/colmap;
    // always done for a lens with distortion.
    bool colmapModel = false;
};

// The tool drops facets within 10 pixels of the border at every image level,
// down to a quarter of the full size; the default margin keeps the object
// clear of that band at the coarsest level too: 18% of the smaller image side,
// and at least 20 pixels.
int defaultMarginPixels(int width, int height);

// Empty when the options are usable, otherwise what is wrong with them.
std::string checkSynthOptions(const SynthOptions& options);

struct SynthScene {
    SynthOptions options;          // as given, with the margin resolved
    TriMesh truth;                 // ground truth, outward winding
    TriMesh initial;               // closed start mesh, outward winding
    std::vector<mycamera> cameras; // R, t, fx, fy, cx, cy, and K, K_inv, P
    std::vector<cv::Mat> images;   // 8-bit grey, height x width
    std::vector<std::string> imageNames;  // relative to the scene folder
    std::vector<std::vector<int>> neighbourLists;
    float boundingBox[6] = {0, 0, 0, 0, 0, 0};  // lower x,y,z then upper x,y,z
    double centre[3] = {0, 0, 0};  // point every camera looks at
    double truthDiagonal = 0.0;    // bounding-box diagonal of the truth
    tessaline_tools::LensDistortion distortion;  // of the photographs
};

// Builds the meshes, cameras, neighbour lists and photographs. Returns false
// with `error` set when the options are unusable.
bool makeSynthScene(const SynthOptions& options, SynthScene& scene, std::string& error);

// Writes the scene into `folder` (created when missing): the photographs,
// truth.ply, initial.ply, the COLMAP model when asked for, and, last,
// scene.sfm unless the photographs have lens distortion. Every file is written under a
// temporary name in the folder and renamed into place. Returns false with
// `error` set when something could not be written.
bool writeSynthScene(const SynthScene& scene, const std::string& folder, std::string& error);

// The text of scene.sfm: count, camera blocks, bounding box, neighbour
// blocks. Doubles are written with max_digits10 so they read back exactly.
std::string sfmText(const SynthScene& scene);

// Unit direction of the ray through pixel (x, y) of `camera`, in world axes:
// R^T ((x - cx) / fx, (y - cy) / fy, 1), normalised. Pixel centres are at
// integer coordinates.
void pixelRay(const mycamera& camera, double x, double y, double direction[3]);

// For each camera, the m = min(6, N - 1) other cameras whose viewing
// directions are closest to its own, nearest first (ties by index).
std::vector<std::vector<int>> nearestViewNeighbours(const std::vector<mycamera>& cameras);

// The command line: tessaline_synth OUT_DIR [options]. Prints a summary, or
// an "Error: " line. Returns the process exit status (CommandLine.h: 0
// success, 1 failure, 2 refused command line, unusable options included).
int runSynthCommand(int argc, char** argv);

}  // namespace tessaline::synth
