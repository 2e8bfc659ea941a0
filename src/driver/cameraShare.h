// How the processes of a run share its cameras: each camera is the
// reference of exactly one process (its pairs run there), and a process
// holds its references and the targets of their pairs. The split is the same
// on every process, computed from the neighbour lists alone.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct CameraShare {
    std::vector<int> owner;      // per camera: the process whose reference it is
    int processes = 1;
    int rank = 0;
    std::vector<uint8_t> roles;  // per camera, this process's CameraRole

    bool shared() const { return processes > 1; }
    bool held(int camera) const;
    bool owned(int camera) const { return owner[size_t(camera)] == rank; }
};

// The cameras of each camera's pairs: the first `pairsPerCamera` entries of
// its neighbour list that name another camera of the scene.
std::vector<std::vector<int>> pairTargets(const std::vector<std::vector<int>>& neighbourLists, int pairsPerCamera);

// Splits the cameras into `processes` runs contiguous in camera order, each
// as close as possible to an equal share of the work: a camera weighs its
// pairs plus one (every camera's mean depth is worked out by its owner).
// All images of a run have one size, so pixels do not change the balance.
CameraShare shareCameras(const std::vector<std::vector<int>>& neighbourLists, int pairsPerCamera, int processes,
                         int rank);

// One line per process: the cameras it runs as references, and the
// photographs it holds.
std::vector<std::string> describeShare(const std::vector<std::vector<int>>& neighbourLists, int pairsPerCamera,
                                       int processes);
