#include "MeshFiles.h"

#include <fstream>

#include <nanobind/nanobind.h>

#include "LibraryCall.h"
#include "MeshReader.h"
#include "ToolError.h"
#include "plyIO.h"

namespace nb = nanobind;

namespace {

bool startsWithPly(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    char bytes[4] = {0, 0, 0, 0};
    in.read(bytes, sizeof bytes);
    return tessaline_tools::startsWithPlyMagic(bytes, size_t(in.gcount()));
}

bool hasExtension(const std::string& path, const std::string& extension) {
    if (path.size() < extension.size()) return false;
    std::string tail = path.substr(path.size() - extension.size());
    for (char& c : tail) c = char(std::tolower(static_cast<unsigned char>(c)));
    return tail == extension;
}

// The formats the writer below takes: ASCII PLY for now.
bool writableFormat(const std::string& path) { return hasExtension(path, ".ply"); }

// The one place that chooses the writer: the tool's ASCII PLY writer for
// now. The front end's writers (writeMeshFile: binary PLY, OBJ, GLB) take
// its place here, and widen writableFormat, once they are in the tree.
// False with `error` set when the file was not written.
bool writeMesh(const std::string& path, const TriMesh& mesh, std::string& error) {
    bool saved = false;
    runCaptured([&](OutputCapture&) { saved = savePly(mesh, path); });
    if (!saved) error = "cannot save " + path;
    return saved;
}

}  // namespace

TriMesh loadMeshFile(const std::string& path) {
    TriMesh mesh;
    std::string failure;
    bool triedToolReader = false;
    const std::vector<std::string> lines = runCaptured([&](OutputCapture&) {
        triedToolReader = startsWithPly(path);
        if (triedToolReader && loadPly(mesh, path)) return;
        try {
            mesh = tessaline_tools::toTriMesh(tessaline_tools::readMeshFile(path));
        } catch (const tessaline_tools::ToolError& e) {
            failure = e.what();
        }
    });
    // A PLY file that neither reader takes: the message tessaline_refine
    // prints for it.
    if (!failure.empty() && triedToolReader) failure = failureMessage(lines);
    if (!failure.empty()) throw nb::value_error(failure.c_str());
    return mesh;
}

void saveMeshFile(const TriMesh& mesh, const std::string& path) {
    if (!writableFormat(path)) throw nb::value_error(("cannot save " + path + ": only .ply files can be written").c_str());
    std::string error;
    if (writeMesh(path, mesh, error)) return;
    PyErr_SetString(PyExc_OSError, error.c_str());
    throw nb::python_error();
}
