// The refinement stage of a level: check the level's lists, and hand the
// mesh, cameras and images in flat form to the device optimiser.
#pragma once

#include <vector>

#include <opencv2/core.hpp>

#include "ProgramCUDA.h"
#include "RefinementSettings.h"
#include "TriMesh.h"
#include "mycamera.h"

// Builds the camera pair table from the first `pairsPerCamera` entries of
// each neighbour list: byte i*num_cameras + j is 1 when camera i lists
// camera j.
std::vector<unsigned char> buildPairMask(const std::vector<std::vector<int>>& neighbourLists, int num_cameras,
                                         int pairsPerCamera = 6);

// Moves the mesh's vertices by `level.iterations` steps of descent at this
// level, with the steps, window and pairs of `settings`, on `device`.
// Returns false, having printed why, when the level's lists cannot be used
// or the device did not complete the optimisation (the device module prints
// that line itself; the vertices are then as it left them). In a run shared
// by several processes, `roles` gives this process's CameraRole of each
// camera, and imgList holds pixels only for the cameras it holds; empty
// `roles`: this process runs every camera.
bool refineMeshAtLevel(TriMesh& mesh, const DeviceHandle& device, const std::vector<mycamera>& cameraList,
                       const std::vector<cv::Mat>& imgList, const std::vector<std::vector<int>>& neighbourLists,
                       const LevelSettings& level, const RefinementSettings& settings = RefinementSettings(),
                       const std::vector<uint8_t>& roles = {});
