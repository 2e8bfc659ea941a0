#include "cameraShare.h"

#include "ProgramCUDA_optimization.h"

bool CameraShare::held(int camera) const { return roles[size_t(camera)] != kCameraUnused; }

std::vector<std::vector<int>> pairTargets(const std::vector<std::vector<int>>& neighbourLists, int pairsPerCamera) {
    const int cameras = int(neighbourLists.size());
    std::vector<std::vector<int>> targets(neighbourLists.size());
    for (int i = 0; i < cameras; ++i) {
        const std::vector<int>& list = neighbourLists[size_t(i)];
        for (int k = 0; k < int(list.size()) && k < pairsPerCamera; ++k)
            if (list[size_t(k)] >= 0 && list[size_t(k)] < cameras && list[size_t(k)] != i)
                targets[size_t(i)].push_back(list[size_t(k)]);
    }
    return targets;
}

namespace {

std::vector<int> ownersByWeight(const std::vector<std::vector<int>>& targets, int processes) {
    long long total = 0;
    for (const auto& t : targets) total += (long long)t.size() + 1;
    std::vector<int> owner(targets.size(), 0);
    long long before = 0;
    for (size_t c = 0; c < targets.size(); ++c) {
        const long long weight = (long long)targets[c].size() + 1;
        // The camera goes to the process whose equal share holds the middle
        // of its weight.
        const long long middle = 2 * before + weight;  // twice the midpoint
        const int r = int((middle * processes) / (2 * total));
        owner[c] = r < processes ? r : processes - 1;
        before += weight;
    }
    return owner;
}

std::vector<uint8_t> rolesOf(const std::vector<std::vector<int>>& targets, const std::vector<int>& owner, int rank) {
    std::vector<uint8_t> roles(owner.size(), kCameraUnused);
    for (size_t c = 0; c < owner.size(); ++c) {
        if (owner[c] != rank) continue;
        for (int j : targets[c])
            if (roles[size_t(j)] == kCameraUnused) roles[size_t(j)] = kCameraTarget;
    }
    for (size_t c = 0; c < owner.size(); ++c)
        if (owner[c] == rank) roles[c] = kCameraReference;
    return roles;
}

}  // namespace

CameraShare shareCameras(const std::vector<std::vector<int>>& neighbourLists, int pairsPerCamera, int processes,
                         int rank) {
    const std::vector<std::vector<int>> targets = pairTargets(neighbourLists, pairsPerCamera);
    CameraShare share;
    share.processes = processes > 1 ? processes : 1;
    share.rank = rank;
    share.owner = ownersByWeight(targets, share.processes);
    share.roles = rolesOf(targets, share.owner, rank);
    return share;
}

std::vector<std::string> describeShare(const std::vector<std::vector<int>>& neighbourLists, int pairsPerCamera,
                                       int processes) {
    std::vector<std::string> lines;
    for (int r = 0; r < processes; ++r) {
        const CameraShare share = shareCameras(neighbourLists, pairsPerCamera, processes, r);
        int first = -1, last = -1, references = 0, held = 0;
        for (int c = 0; c < int(share.owner.size()); ++c) {
            if (share.owned(c)) {
                if (first < 0) first = c;
                last = c;
                ++references;
            }
            held += share.held(c) ? 1 : 0;
        }
        std::string line = "rank " + std::to_string(r) + ": ";
        line += references == 0 ? "no camera" : "cameras " + std::to_string(first) + " to " + std::to_string(last);
        line += " (" + std::to_string(references) + " as references), " + std::to_string(held) + " photographs held";
        lines.push_back(line);
    }
    return lines;
}
