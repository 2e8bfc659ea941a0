// Helpers of the scene tests, used by the driver tests too: a fresh temporary
// folder per test, whole-file reads and writes, and the shared capture of
// standard output.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace scene_test {

namespace fs = std::filesystem;

// A test fixture that owns a new empty folder for the length of one test.
class TempFolderTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "tessaline_scene_XXXXXX").string();
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        ASSERT_NE(mkdtemp(buffer.data()), nullptr);
        dir_ = fs::path(buffer.data());
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }

    // Absolute path of a file inside the folder.
    std::string path(const std::string& name) const { return (dir_ / name).string(); }
    const fs::path& dir() const { return dir_; }

    // Names of everything in the folder, sorted.
    std::vector<std::string> listFolder() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(dir_)) names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

private:
    fs::path dir_;
};

inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
    ASSERT_TRUE(static_cast<bool>(out)) << path;
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// What `call` prints on standard output.
template <class Call>
std::string printedBy(const Call& call) {
    ::testing::internal::CaptureStdout();
    call();
    return ::testing::internal::GetCapturedStdout();
}

}  // namespace scene_test
