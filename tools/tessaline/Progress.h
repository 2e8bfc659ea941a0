// Progress of a refinement, fed by the run context's onIteration hook: one
// bar per level, redrawn in place, with the iterations done, the time spent
// and the time left, when standard output is a terminal; otherwise plain
// lines at every tenth of a level; or nothing.
#pragma once

#include <chrono>
#include <ostream>
#include <vector>

namespace tessaline::progress {

enum class ProgressStyle { Silent, Lines, Bar };

// Bar when the file descriptor is a terminal, Lines otherwise; Silent when
// `quiet`.
ProgressStyle progressStyleFor(int fileDescriptor, bool quiet);

class ProgressReport {
   public:
    // `levels`: the levels that are refined, in the order they run.
    ProgressReport(std::vector<int> levels, ProgressStyle style, std::ostream& out);

    // One iteration of the current optimisation call is done; a call whose
    // first iteration is reported starts the next level. Always true (the
    // run goes on).
    bool iterationDone(long long done, long long total);

    // The run is over: a level that ended before its cap (its vertices
    // settled) is closed with the iterations it took.
    void finish();

   private:
    using Clock = std::chrono::steady_clock;
    void draw(long long done, long long total, double seconds) const;
    void closeSettledLevel();

    std::vector<int> levels_;
    ProgressStyle style_;
    std::ostream& out_;
    size_t call_ = 0;  // calls started so far
    long long lastDone_ = 0;
    long long lastTotal_ = 0;
    Clock::time_point start_;
    int lastTenth_ = -1;
};

}  // namespace tessaline::progress
