// The small ASCII PLY dialect the tool reads and writes.
#pragma once

#include <istream>
#include <string>

#include "TriMesh.h"

// Reads vertices and facets. Prints "reading <path>". Returns true when the
// header ended with "end_header" and the counts are usable; on failure it has
// printed an "Error: " line (or "<path> not found").
bool loadPly(TriMesh& mesh, const std::string& path);

// The same reader over any stream (switched to the classic locale); messages
// name the file `name`. Prints what loadPly prints after its "reading " line
// and returns what it returns; loadPly is this reader over the opened file.
bool loadPlyFromStream(TriMesh& mesh, std::istream& in, const std::string& name);

// Writes num_v vertices and num_f facets as ASCII PLY. Prints "saving <path>".
// The file is written under a temporary name in the same folder and renamed
// into place, so a failed write never leaves half a file. Returns false (and
// prints "Warning: cannot save <path>") when the file could not be written.
bool savePly(const TriMesh& mesh, const std::string& path);
