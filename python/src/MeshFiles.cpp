#include "MeshFiles.h"

#include <fstream>

#include <nanobind/nanobind.h>

#include "LibraryCall.h"
#include "MeshReader.h"
#include "MeshWriters.h"
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

// The front end's writers, chosen by the extension; nothing is printed.
bool writeMesh(const std::string& path, const TriMesh& mesh, std::string& error) {
    bool saved = false;
    runCaptured([&](OutputCapture&) { saved = tessaline::writers::writeMeshFile(path, mesh, nullptr, error); });
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
    if (!tessaline::writers::isWritableMeshPath(path))
        throw nb::value_error(("cannot save " + path + ": the formats written are " +
                               tessaline::writers::writableMeshExtensions()).c_str());
    std::string error;
    if (writeMesh(path, mesh, error)) return;
    PyErr_SetString(PyExc_OSError, error.c_str());
    throw nb::python_error();
}
