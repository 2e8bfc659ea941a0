#include "CoordinateOffset.h"

#include <cmath>
#include <filesystem>
#include <fstream>
#include <locale>
#include <sstream>

namespace tessaline::offset {

bool readCoordinateOffset(const std::string& folder, double offset[3], std::string& error) {
    offset[0] = offset[1] = offset[2] = 0.0;
    const std::filesystem::path path = std::filesystem::path(folder) / kOffsetFileName;
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) return true;
    std::ifstream in(path);
    std::string text;
    if (!in.is_open() || !std::getline(in, text, '\0')) {
        error = "cannot read " + path.string();
        return false;
    }
    std::istringstream numbers(text);
    numbers.imbue(std::locale::classic());
    double values[3];
    std::string rest;
    const bool three = bool(numbers >> values[0] >> values[1] >> values[2]) && !(numbers >> rest);
    if (!three || !std::isfinite(values[0]) || !std::isfinite(values[1]) || !std::isfinite(values[2])) {
        error = path.string() + " should hold three numbers \"x y z\"";
        return false;
    }
    for (int a = 0; a < 3; ++a) offset[a] = values[a];
    return true;
}

}  // namespace tessaline::offset
