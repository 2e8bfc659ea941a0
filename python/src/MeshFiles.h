// Mesh files for the Python package: reading every format the importer
// reads, writing through one function that picks the writer.
#pragma once

#include <string>

#include "TriMesh.h"

// Reads a mesh. An ASCII PLY that the tool itself accepts is read by the
// tool's reader, so that a refinement starts from exactly the vertices
// tessaline_refine would read; anything else (binary PLY, extra properties,
// polygons, OBJ) by the importer's reader. Raises ValueError with the
// reader's message.
TriMesh loadMeshFile(const std::string& path);

// Writes a mesh as binary PLY, OBJ or GLB, by its extension, with the front
// end's writers: whole or not at all (temporary file, then rename). Raises
// ValueError for a format that cannot be written and OSError when the file
// cannot be.
void saveMeshFile(const TriMesh& mesh, const std::string& path);
