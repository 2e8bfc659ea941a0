#include "FileIO.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include "ToolError.h"

namespace fs = std::filesystem;

namespace tessaline_tools {

namespace {

std::string systemMessage() { return std::strerror(errno); }

}  // namespace

std::string readWholeFile(const std::string& path, const std::string& what) {
    std::error_code ec;
    if (fs::is_directory(path, ec)) throw ToolError(what + " " + path + " is a folder, not a file");
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) throw ToolError("cannot open " + what + " " + path + ": " + systemMessage());
    std::string bytes;
    char buffer[1 << 16];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) bytes.append(buffer, n);
    const bool failed = std::ferror(f) != 0;
    std::fclose(f);
    if (failed) throw ToolError("cannot read " + what + " " + path);
    return bytes;
}

bool nextLine(const std::string& bytes, size_t& pos, std::string& line) {
    if (pos >= bytes.size()) return false;
    size_t end = bytes.find('\n', pos);
    if (end == std::string::npos) end = bytes.size();
    line.assign(bytes, pos, end - pos);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    pos = end + 1;
    return true;
}

PendingFile::PendingFile(const std::string& path, const std::string& bytes) : path_(path) {
    const fs::path target(path);
    const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
    std::string pattern = (folder / ("." + target.filename().string() + ".XXXXXX")).string();
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int fd = mkstemp(name.data());
    if (fd < 0) throw ToolError("cannot write in " + folder.string() + ": " + systemMessage());
    tempPath_ = name.data();

    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            const std::string why = systemMessage();
            ::close(fd);
            std::remove(tempPath_.c_str());
            throw ToolError("cannot write " + path + ": " + why);
        }
        done += size_t(n);
    }
    // mkstemp creates the file readable by its owner only; give it the usual
    // permissions of a new file.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(fd, 0666 & ~mask);
    if (::close(fd) != 0) {
        const std::string why = systemMessage();
        std::remove(tempPath_.c_str());
        throw ToolError("cannot write " + path + ": " + why);
    }
}

PendingFile::~PendingFile() {
    if (!committed_) std::remove(tempPath_.c_str());
}

void PendingFile::commit() {
    if (std::rename(tempPath_.c_str(), path_.c_str()) != 0)
        throw ToolError("cannot write " + path_ + ": " + systemMessage());
    committed_ = true;
}

void writeFileAtomically(const std::string& path, const std::string& bytes) {
    PendingFile file(path, bytes);
    file.commit();
}

}  // namespace tessaline_tools
