#include "Progress.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <utility>

namespace tessaline::progress {

namespace {

constexpr int kBarWidth = 30;

std::string duration(double seconds) {
    const long long s = std::llround(seconds);
    char text[32];
    if (s >= 60)
        std::snprintf(text, sizeof text, "%lldm%02llds", s / 60, s % 60);
    else
        std::snprintf(text, sizeof text, "%llds", s);
    return text;
}

}  // namespace

ProgressStyle progressStyleFor(int fileDescriptor, bool quiet) {
    if (quiet) return ProgressStyle::Silent;
    return isatty(fileDescriptor) ? ProgressStyle::Bar : ProgressStyle::Lines;
}

ProgressReport::ProgressReport(std::vector<int> levels, ProgressStyle style, std::ostream& out)
    : levels_(std::move(levels)), style_(style), out_(out) {}

bool ProgressReport::iterationDone(long long done, long long total) {
    if (style_ == ProgressStyle::Silent || total <= 0) return true;
    if (done <= lastDone_ || call_ == 0) {  // a new optimisation call
        closeSettledLevel();
        ++call_;
        start_ = Clock::now();
        lastTenth_ = -1;
    }
    lastDone_ = done;
    lastTotal_ = total;
    const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
    const int tenth = int(done * 10 / total);
    if (style_ == ProgressStyle::Lines && tenth == lastTenth_) return true;
    lastTenth_ = tenth;
    draw(done, total, seconds);
    return true;
}

void ProgressReport::finish() {
    if (style_ != ProgressStyle::Silent) closeSettledLevel();
    lastDone_ = lastTotal_ = 0;
}

// A level whose last report fell short of its cap stopped early because its
// vertices settled: say so, ending its bar.
void ProgressReport::closeSettledLevel() {
    if (call_ == 0 || lastDone_ >= lastTotal_) return;
    const int level = call_ <= levels_.size() ? levels_[call_ - 1] : -1;
    if (style_ == ProgressStyle::Bar) out_ << "\n";
    out_ << "level " << level << ": settled after " << lastDone_ << " of at most " << lastTotal_ << " iterations"
         << std::endl;
}

void ProgressReport::draw(long long done, long long total, double seconds) const {
    const int level = call_ <= levels_.size() ? levels_[call_ - 1] : -1;
    const double left = done > 0 ? seconds / double(done) * double(total - done) : 0.0;
    char head[64];
    std::snprintf(head, sizeof head, "level %d", level);
    if (style_ == ProgressStyle::Lines) {
        out_ << head << ": " << done << "/" << total << " iterations, " << duration(seconds) << " spent, about "
             << duration(left) << " left" << std::endl;
        return;
    }
    const int filled = int(done * kBarWidth / total);
    out_ << "\r" << head << " [" << std::string(size_t(filled), '#') << std::string(size_t(kBarWidth - filled), '.')
         << "] " << done << "/" << total << "  " << duration(seconds) << " spent, " << duration(left) << " left  ";
    if (done == total) out_ << "\n";
    out_ << std::flush;
}

}  // namespace tessaline::progress
