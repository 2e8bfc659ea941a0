// Helpers shared by the scene, driver and tool tests: a fresh temporary
// folder, whole-file reads and writes, the capture of standard output, and
// running a command's entry point as `main`.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace scene_test {

namespace fs = std::filesystem;

// A new empty folder, removed with all it holds when the object goes.
class TempFolder {
public:
    TempFolder() {
        std::string name = (fs::temp_directory_path() / "tessaline_test_XXXXXX").string();
        if (!mkdtemp(name.data())) ADD_FAILURE() << "cannot make " << name;
        dir_ = name;
    }
    ~TempFolder() {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    fs::path operator/(const std::string& name) const { return dir_ / name; }
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

// A test fixture that owns a new empty folder for the length of one test.
class TempFolderTest : public ::testing::Test, public TempFolder {};

// Writes `text` as the whole file, making its folders first.
inline void writeFile(const fs::path& path, const std::string& text) {
    if (path.has_parent_path()) fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary);
    out << text;
    ASSERT_TRUE(static_cast<bool>(out)) << path;
}

inline std::string readFile(const fs::path& path) {
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

// Runs `call` with `folder` as the working directory, then returns to the
// one before.
template <class Call>
void inFolder(const fs::path& folder, const Call& call) {
    const fs::path before = fs::current_path();
    fs::current_path(folder);
    call();
    fs::current_path(before);
}

// Runs a command's entry point as `main` is run, with `program` as argv[0];
// returns its status, and what it printed in `printed`.
template <class Main>
int runMain(const Main& main, const std::string& program, std::vector<std::string> args, std::string& printed) {
    args.insert(args.begin(), program);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    int status = -1;
    printed = printedBy([&] { status = main(int(argv.size()), argv.data()); });
    return status;
}

}  // namespace scene_test
