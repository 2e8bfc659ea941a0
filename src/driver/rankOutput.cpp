#include "rankOutput.h"

#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

namespace {

// A line that only reports that another process failed.
bool isFollowerLine(const std::string& line) { return line.find("a process of the run") != std::string::npos; }

}  // namespace

RankOutput::RankOutput(int rank) : rank_(rank) {
    if (rank_ == 0) return;
    std::cout.flush();
    std::fflush(stdout);
    captured_ = std::tmpfile();
    if (!captured_) return;  // nothing to capture into: the lines go out as they are
    realOutput_ = dup(STDOUT_FILENO);
    dup2(fileno(captured_), STDOUT_FILENO);
}

RankOutput::~RankOutput() {
    if (!captured_) return;
    std::cout.flush();
    std::fflush(stdout);
    dup2(realOutput_, STDOUT_FILENO);
    close(realOutput_);
    std::fclose(captured_);
}

bool RankOutput::relayOwnErrors() {
    if (!captured_) return false;
    std::cout.flush();
    std::fflush(stdout);
    std::rewind(captured_);
    std::string lines, line;
    char buffer[4096];
    while (std::fgets(buffer, sizeof buffer, captured_)) {
        line += buffer;
        if (line.empty() || line.back() != '\n') continue;
        for (size_t start = line.find("Error: "); start != std::string::npos; start = std::string::npos) {
            const std::string what = line.substr(start + 7);
            if (!isFollowerLine(what)) lines += "Error: rank " + std::to_string(rank_) + ": " + what;
        }
        line.clear();
    }
    std::fseek(captured_, 0, SEEK_END);
    if (lines.empty()) return false;
    const ssize_t written = write(realOutput_, lines.data(), lines.size());
    (void)written;
    return true;
}

bool everyProcessSucceeded(const ProcessGroup& group, RankOutput& output, bool ok, std::string& failedRanks) {
    failedRanks.clear();
    if (!group.distributed()) return ok;
    std::vector<uint64_t> own(size_t(group.size) + 1, 0);
    own[size_t(group.rank)] = !ok && output.relayOwnErrors() ? 1 : 0;
    own.back() = ok ? 0 : 1;
    if (!group.sumIntegers(own.data(), own.size())) return false;
    if (own.back() == 0) return true;
    for (int r = 0; r < group.size; ++r)
        if (own[size_t(r)]) failedRanks += (failedRanks.empty() ? "" : ", ") + std::to_string(r);
    if (failedRanks.empty()) failedRanks = "0";
    return false;
}
