// The coordinate offset of an imported scene. When the importer moves a
// model that lies far from the origin, it writes offset.txt beside the scene
// file: one line of three numbers "x y z", to be added (in float64) to every
// coordinate of a mesh refined in that scene to bring it back to the model's
// frame.
#pragma once

#include <string>

namespace tessaline::offset {

inline constexpr const char* kOffsetFileName = "offset.txt";

// Reads FOLDER/offset.txt into `offset`. A folder without the file gives
// zeros and true. False, with a one-line reason in `error`, when the file
// exists but does not hold exactly three finite numbers.
bool readCoordinateOffset(const std::string& folder, double offset[3], std::string& error);

}  // namespace tessaline::offset
