// What the readers' fuzz targets share: the report of a promise a reader
// broke, and a capture of what the readers print.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iostream>
#include <sstream>
#include <string>

namespace tessaline_fuzz {

// How a reader answered an input.
enum class Outcome { Accepted, Refused };

// Reports that a reader broke the promise `what` on the input being run.
// libFuzzer's entry aborts, so that libFuzzer keeps the input as a crash;
// the replay test throws, so that the test names the file.
[[noreturn]] void reportBrokenPromise(const std::string& what);

inline void require(bool holds, const char* what) {
    if (!holds) reportBrokenPromise(what);
}

// Sends what std::cout receives to a string for as long as it lives (the
// readers print progress and refusals there).
class CapturedOutput {
   public:
    CapturedOutput() : previous_(std::cout.rdbuf(text_.rdbuf())) {}
    ~CapturedOutput() { std::cout.rdbuf(previous_); }
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;

    std::string text() const { return text_.str(); }

   private:
    std::ostringstream text_;
    std::streambuf* previous_;
};

// Runs `read` (a reader's call that answers whether it accepted its input)
// with std::cout captured; returns the answer, what was printed in `printed`.
template <class Read>
bool runCapturingOutput(const Read& read, std::string& printed) {
    CapturedOutput output;
    const bool accepted = read();
    printed = output.text();
    return accepted;
}

// True when a line of `printed` starts with "Error: ".
inline bool hasErrorLine(const std::string& printed) {
    return printed.rfind("Error: ", 0) == 0 || printed.find("\nError: ") != std::string::npos;
}

inline std::string asString(const uint8_t* data, size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

}  // namespace tessaline_fuzz
