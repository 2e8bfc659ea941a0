// The split of a scene's cameras among the processes of a shared run, and
// the size of a level's images as the resize gives it.
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <string>
#include <vector>

#include "ProgramCUDA_optimization.h"
#include "cameraShare.h"
#include "levelData.h"

namespace {

// A ring of n cameras, each listing its `k` nearest others.
std::vector<std::vector<int>> ring(int n, int k) {
    std::vector<std::vector<int>> lists(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i)
        for (int d = 1; int(lists[size_t(i)].size()) < k; ++d) {
            lists[size_t(i)].push_back((i + d) % n);
            if (int(lists[size_t(i)].size()) < k) lists[size_t(i)].push_back((i - d + n) % n);
        }
    return lists;
}

TEST(CameraShare, EveryCameraHasOneOwnerInContiguousBalancedRuns) {
    const auto lists = ring(24, 8);
    const auto targets = pairTargets(lists, 6);
    for (int processes : {1, 2, 3, 5, 24, 30}) {
        SCOPED_TRACE(processes);
        std::vector<int> owned(size_t(processes), 0);
        for (int rank = 0; rank < processes; ++rank) {
            const CameraShare share = shareCameras(lists, 6, processes, rank);
            for (int c = 0; c < 24; ++c) {
                EXPECT_EQ(share.owner, shareCameras(lists, 6, processes, 0).owner) << "the same split everywhere";
                if (c > 0) {
                    EXPECT_GE(share.owner[size_t(c)], share.owner[size_t(c - 1)]) << "contiguous";
                }
                if (share.owned(c)) {
                    ++owned[size_t(rank)];
                    EXPECT_EQ(share.roles[size_t(c)], kCameraReference);
                    for (int j : targets[size_t(c)]) EXPECT_TRUE(share.held(j)) << c << " -> " << j;
                }
            }
        }
        const int fewest = *std::min_element(owned.begin(), owned.end());
        const int most = *std::max_element(owned.begin(), owned.end());
        EXPECT_LE(most - fewest, 1) << "equal weights give shares within one camera";
    }
}

TEST(CameraShare, ProcessesHoldOnlyWhatTheirPairsNeed) {
    const auto lists = ring(24, 8);
    const CameraShare share = shareCameras(lists, 6, 3, 1);  // cameras 8 to 15, targets 3 either side
    for (int c = 0; c < 24; ++c) EXPECT_EQ(share.held(c), c >= 5 && c <= 18) << c;
    EXPECT_EQ(share.roles[4], kCameraUnused);
    EXPECT_EQ(share.roles[5], kCameraTarget);
    EXPECT_EQ(share.roles[8], kCameraReference);
    const std::vector<std::string> lines = describeShare(lists, 6, 3);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1], "rank 1: cameras 8 to 15 (8 as references), 14 photographs held");
    // Targets past the first six entries, or outside the scene, are no pairs.
    std::vector<std::vector<int>> eight(8);
    eight[0] = {1, 2, 3, 4, 5, 6, 7};
    eight[1] = {9, -1, 1, 0};
    const auto targets = pairTargets(eight, 6);
    EXPECT_EQ(targets[0], (std::vector<int>{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(targets[1], (std::vector<int>{0}));
    EXPECT_TRUE(targets[2].empty());
}

TEST(LevelData, LevelSizeIsTheSizeTheResizeGives) {
    for (cv::Size s : {cv::Size(640, 480), cv::Size(641, 479), cv::Size(6, 5), cv::Size(1023, 767)})
        for (float scale : {0.25f, 0.5f, 1.0f}) {
            cv::Mat img(s, CV_8U, cv::Scalar(0)), out;
            cv::resize(img, out, cv::Size(0, 0), scale, scale, cv::INTER_LINEAR);
            EXPECT_EQ(levelSize(s, scale), out.size()) << s << " at " << scale;
        }
}

}  // namespace
