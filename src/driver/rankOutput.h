// What the processes of a shared run print: the first (rank 0) prints the
// run's lines; the others print nothing unless they fail. Their standard
// output goes to a temporary file, and a process that failed repeats its
// own "Error: " lines on the real output, each naming the rank.
#pragma once

#include <cstdio>
#include <string>

#include "RunContext.h"

class RankOutput {
   public:
    // Redirects standard output for ranks above 0; rank 0 keeps it.
    explicit RankOutput(int rank);
    ~RankOutput();
    RankOutput(const RankOutput&) = delete;
    RankOutput& operator=(const RankOutput&) = delete;

    // Repeats this process's "Error: " lines, as "Error: rank R: ...", on the
    // real output, leaving out the lines that only say another process
    // failed. Returns true when there was such a line (the failure was this
    // process's own). Rank 0 prints its lines as they come and repeats
    // nothing; it returns false.
    bool relayOwnErrors();

   private:
    int rank_;
    int realOutput_ = -1;       // the original standard output, for ranks above 0
    std::FILE* captured_ = nullptr;
};

// Whether every process got through a step. A process whose step failed
// repeats its own error lines, naming its rank; `failedRanks` lists the
// processes that failed of their own accord (rank 0 when no other says
// why). One process: its own result.
bool everyProcessSucceeded(const ProcessGroup& group, RankOutput& output, bool ok, std::string& failedRanks);
