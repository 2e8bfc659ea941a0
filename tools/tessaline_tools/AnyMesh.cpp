#include "AnyMesh.h"

#include <exception>
#include <fstream>
#include <sstream>

#include "MeshReader.h"
#include "plyIO.h"

namespace tessaline_tools {

bool isRefinerPlyHeader(const std::string& header) {
    std::istringstream lines(header);
    std::string line, element;
    if (!std::getline(lines, line) || line != "ply" || !std::getline(lines, line) || line != "format ascii 1.0")
        return false;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string keyword, type, name;
        words >> keyword;
        if (keyword == "end_header") return true;
        if (keyword == "element") {
            words >> element;
            if (element != "vertex" && element != "face") return false;
        } else if (keyword == "property" && element == "vertex") {
            words >> type >> name;
            if (type == "list" || (name != "x" && name != "y" && name != "z" && !(type == "uchar" && name == "alpha")))
                return false;
        } else if (keyword != "property" && keyword != "comment" && keyword != "obj_info") {
            return false;
        }
    }
    return false;
}

namespace {

std::string plyHeader(const std::string& path) {
    constexpr size_t kMaxHeaderBytes = 64 * 1024;
    std::ifstream in(path, std::ios::binary);
    std::string text, line;
    while (text.size() < kMaxHeaderBytes && std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        text += line + "\n";
        if (line == "end_header") break;
    }
    return text;
}

}  // namespace

bool readAnyMesh(const std::string& path, TriMesh& mesh, std::string& error) {
    if (isRefinerPlyHeader(plyHeader(path))) {
        if (loadPly(mesh, path)) return true;
        error = "cannot read the mesh " + path;
        return false;
    }
    try {
        mesh = toTriMesh(readMeshFile(path));
        return true;
    } catch (const std::exception& e) {
        error = e.what();
        return false;
    }
}

}  // namespace tessaline_tools
