// The library reports progress and failures as lines on standard output,
// some through std::cout and some through printf. A Python caller wants
// them as exception messages instead, so a library call runs with file
// descriptor 1 redirected into an anonymous temporary file; the lines are
// read back when the call is over.
#pragma once

#include <string>
#include <vector>

class OutputCapture {
   public:
    OutputCapture();  // starts capturing
    ~OutputCapture();
    OutputCapture(const OutputCapture&) = delete;
    OutputCapture& operator=(const OutputCapture&) = delete;

    // Gives standard output back for a while (a Python callback may print)
    // and takes it again.
    void pause();
    void resume();

    // Stops capturing and returns every line written meanwhile.
    std::vector<std::string> finish();

   private:
    int savedFd_ = -1;    // the real standard output while captured
    int captureFd_ = -1;  // the temporary file
    bool active_ = false;
};

// The message of a failure from its captured lines: the text of every
// "Error: " line without that prefix, one per line; without such a line, the
// last line that is not empty (a few readers report "<path> cannot read").
std::string failureMessage(const std::vector<std::string>& lines);
