// Whole-file input, and output files that appear whole or not at all: the
// bytes go to a temporary file in the destination folder, which is renamed
// into place once it is complete.
#pragma once

#include <string>

namespace tessaline_tools {

// The whole content of a file; throws ToolError naming `what` when it cannot
// be read.
std::string readWholeFile(const std::string& path, const std::string& what);

// The line of `bytes` that starts at `pos`, without its "\n" or "\r\n";
// moves `pos` past it. False once `pos` is at the end.
bool nextLine(const std::string& bytes, size_t& pos, std::string& line);

// A file written under a temporary name, renamed into place by commit().
// When it is destroyed without commit(), the temporary file is removed.
class PendingFile {
   public:
    // Writes `bytes` to a temporary file next to `path`; throws ToolError.
    PendingFile(const std::string& path, const std::string& bytes);
    ~PendingFile();
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    // Renames the temporary file to the final path; throws ToolError.
    void commit();

   private:
    std::string path_;
    std::string tempPath_;
    bool committed_ = false;
};

// PendingFile and commit() in one step.
void writeFileAtomically(const std::string& path, const std::string& bytes);

}  // namespace tessaline_tools
