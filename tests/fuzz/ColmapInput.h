// How one fuzz input holds a COLMAP model's three files: cameras, images and
// points3D, in that order, separated by the line "@@@" (the 5 bytes
// "\n@@@\n"). A missing part is an empty file; separators after the second
// stay in the points3D part. The separator is of neither format's syntax,
// and the seed maker checks that no seed's file holds it.
#pragma once

#include <string>

#include "ColmapModel.h"

namespace tessaline_fuzz {

inline const std::string kColmapPartSeparator = "\n@@@\n";

inline tessaline_tools::ColmapFileBytes splitColmapInput(const std::string& input) {
    tessaline_tools::ColmapFileBytes files;
    std::string* parts[3] = {&files.cameras, &files.images, &files.points3D};
    size_t start = 0;
    for (int k = 0; k < 2; ++k) {
        const size_t end = input.find(kColmapPartSeparator, start);
        if (end == std::string::npos) {
            *parts[k] = input.substr(start);
            return files;
        }
        *parts[k] = input.substr(start, end - start);
        start = end + kColmapPartSeparator.size();
    }
    files.points3D = input.substr(start);
    return files;
}

}  // namespace tessaline_fuzz
