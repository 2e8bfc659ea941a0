#include "LibraryOutput.h"

#include <iostream>

namespace tessaline::frontend {

int ReportLinesOnly::overflow(int c) {
    if (c == traits_type::eof()) return traits_type::not_eof(c);
    if (c == '\n' || c == '\r')
        endLine();
    else
        line_.push_back(char(c));
    return c;
}

void ReportLinesOnly::endLine() {
    if (line_.rfind("Error: ", 0) == 0 || line_.rfind("Warning: ", 0) == 0) {
        line_.push_back('\n');
        target_->sputn(line_.data(), std::streamsize(line_.size()));
        target_->pubsync();
    }
    line_.clear();
}

LibraryOutput::LibraryOutput() : original_(std::cout.rdbuf()), filter_(original_), user_(original_) {
    std::cout.flush();
    std::cout.rdbuf(&filter_);
}

LibraryOutput::~LibraryOutput() {
    std::cout.flush();
    std::cout.rdbuf(original_);
}

}  // namespace tessaline::frontend
