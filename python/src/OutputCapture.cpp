#include "OutputCapture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <sstream>

namespace {

void flushStandardOutput() {
    std::cout.flush();
    std::fflush(stdout);
}

// The whole content of an open file, from its start.
std::string readAll(int fd) {
    std::string text;
    if (lseek(fd, 0, SEEK_SET) < 0) return text;
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0) break;
        text.append(buffer, size_t(n));
    }
    return text;
}

}  // namespace

OutputCapture::OutputCapture() {
    flushStandardOutput();
    std::FILE* file = std::tmpfile();
    if (!file) return;  // nothing captured: the lines go where they always go
    captureFd_ = dup(fileno(file));
    std::fclose(file);  // the duplicate keeps the anonymous file open
    savedFd_ = dup(STDOUT_FILENO);
    if (captureFd_ < 0 || savedFd_ < 0) return;
    resume();
}

OutputCapture::~OutputCapture() {
    pause();
    if (savedFd_ >= 0) close(savedFd_);
    if (captureFd_ >= 0) close(captureFd_);
}

void OutputCapture::pause() {
    if (!active_) return;
    flushStandardOutput();
    dup2(savedFd_, STDOUT_FILENO);
    active_ = false;
}

void OutputCapture::resume() {
    if (active_ || savedFd_ < 0 || captureFd_ < 0) return;
    flushStandardOutput();
    active_ = dup2(captureFd_, STDOUT_FILENO) >= 0;
}

std::vector<std::string> OutputCapture::finish() {
    pause();
    std::vector<std::string> lines;
    if (captureFd_ < 0) return lines;
    // The iteration counter rewrites its line with "\r": both end a line.
    std::string text = readAll(captureFd_);
    for (char& c : text)
        if (c == '\r') c = '\n';
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::string failureMessage(const std::vector<std::string>& lines) {
    static const std::string kPrefix = "Error: ";
    std::string message, lastLine;
    for (const std::string& line : lines) {
        if (line.compare(0, kPrefix.size(), kPrefix) == 0)
            message += (message.empty() ? "" : "\n") + line.substr(kPrefix.size());
        else if (line.find_first_not_of(" \t") != std::string::npos)
            lastLine = line;
    }
    return message.empty() ? lastLine : message;
}
