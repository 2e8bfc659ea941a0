// The refiner's library reports on standard output as it goes (the lines of
// tessaline_refine). `tessaline refine` shows its own lines and progress
// instead: while a LibraryOutput lives, what is written to std::cout passes
// only where a line starts with "Error: " or "Warning: ", and the program's
// own lines go to user(), which writes to the real standard output.
#pragma once

#include <ostream>
#include <streambuf>
#include <string>

namespace tessaline::frontend {

// Passes the lines of "Error: " and "Warning: " to `target`, each ended by
// "\n"; a line ends at "\n" or "\r" (the library redraws a counter with
// "\r").
class ReportLinesOnly : public std::streambuf {
   public:
    explicit ReportLinesOnly(std::streambuf* target) : target_(target) {}
    ~ReportLinesOnly() override { endLine(); }

   protected:
    int overflow(int c) override;
    int sync() override { return target_->pubsync(); }

   private:
    void endLine();
    std::streambuf* target_;
    std::string line_;
};

class LibraryOutput {
   public:
    LibraryOutput();
    ~LibraryOutput();
    LibraryOutput(const LibraryOutput&) = delete;
    LibraryOutput& operator=(const LibraryOutput&) = delete;

    std::ostream& user() { return user_; }

   private:
    std::streambuf* original_;
    ReportLinesOnly filter_;
    std::ostream user_;
};

}  // namespace tessaline::frontend
