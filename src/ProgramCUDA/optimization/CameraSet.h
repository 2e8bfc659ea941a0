// The cameras an optimisation call holds: all of them for one process; for a
// process that shares the run with others, its references and the targets
// of their pairs (MeshOptimizationArgs::camera_roles).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "ProgramCUDA_optimization.h"

namespace tessaline {

struct CameraSet {
    std::vector<uint8_t> role;  // CameraRole per camera
    std::vector<int> layer;     // per camera: its place among the held images, -1 when not held
    int held = 0;

    CameraSet() = default;
    CameraSet(const uint8_t* roles, int cameras) : role(size_t(cameras), kCameraReference), layer(size_t(cameras), -1) {
        for (int c = 0; c < cameras; ++c) {
            if (roles) role[size_t(c)] = roles[c] == kCameraTarget || roles[c] == kCameraReference ? roles[c] : 0;
            if (role[size_t(c)] != kCameraUnused) layer[size_t(c)] = held++;
        }
    }

    bool heldHere(int c) const { return role[size_t(c)] != kCameraUnused; }
    bool reference(int c) const { return role[size_t(c)] == kCameraReference; }
};

}  // namespace tessaline
