#include "MeshReader.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <sstream>

#include "FileIO.h"
#include "ToolError.h"

namespace fs = std::filesystem;

namespace tessaline_tools {

namespace {

constexpr int64_t kMaxCount = INT32_MAX;  // vertex and facet indices are int32

// ---------------------------------------------------------------- PLY header

enum class PlyType { Int8, UInt8, Int16, UInt16, Int32, UInt32, Float32, Float64 };

bool parsePlyType(const std::string& s, PlyType& t) {
    static const struct {
        const char* name;
        PlyType type;
    } names[] = {{"char", PlyType::Int8},     {"int8", PlyType::Int8},       {"uchar", PlyType::UInt8},
                 {"uint8", PlyType::UInt8},   {"short", PlyType::Int16},     {"int16", PlyType::Int16},
                 {"ushort", PlyType::UInt16}, {"uint16", PlyType::UInt16},   {"int", PlyType::Int32},
                 {"int32", PlyType::Int32},   {"uint", PlyType::UInt32},     {"uint32", PlyType::UInt32},
                 {"float", PlyType::Float32}, {"float32", PlyType::Float32}, {"double", PlyType::Float64},
                 {"float64", PlyType::Float64}};
    for (const auto& n : names)
        if (s == n.name) {
            t = n.type;
            return true;
        }
    return false;
}

size_t plyTypeSize(PlyType t) {
    switch (t) {
        case PlyType::Int8:
        case PlyType::UInt8: return 1;
        case PlyType::Int16:
        case PlyType::UInt16: return 2;
        case PlyType::Int32:
        case PlyType::UInt32:
        case PlyType::Float32: return 4;
        case PlyType::Float64: return 8;
    }
    return 8;
}

bool isIntegerType(PlyType t) { return t != PlyType::Float32 && t != PlyType::Float64; }

struct PlyProperty {
    std::string name;
    bool isList = false;
    PlyType type = PlyType::Float32;       // of the value, or of the list entries
    PlyType countType = PlyType::UInt8;    // of a list's length
};

struct PlyElement {
    std::string name;
    uint64_t count = 0;
    std::vector<PlyProperty> props;
};

enum class PlyFormat { Ascii, BinaryLittle, BinaryBig };

struct PlyHeader {
    PlyFormat format = PlyFormat::Ascii;
    std::vector<PlyElement> elements;
    size_t bodyStart = 0;
};

PlyHeader parsePlyHeader(const std::string& bytes, const std::string& name) {
    PlyHeader h;
    bool haveFormat = false, ended = false;
    size_t pos = 0, lineNo = 0;
    std::string line;
    while (!ended && nextLine(bytes, pos, line)) {
        ++lineNo;
        const std::string where = name + " header line " + std::to_string(lineNo);
        std::istringstream in(line);
        std::string word;
        in >> word;
        if (lineNo == 1) {
            if (word != "ply" || (in >> word)) throw ToolError(name + " does not start with the line \"ply\"");
            continue;
        }
        if (word.empty() || word == "comment" || word == "obj_info") continue;
        if (word == "format") {
            std::string kind, version;
            in >> kind >> version;
            if (kind == "ascii") h.format = PlyFormat::Ascii;
            else if (kind == "binary_little_endian") h.format = PlyFormat::BinaryLittle;
            else if (kind == "binary_big_endian") h.format = PlyFormat::BinaryBig;
            else throw ToolError(where + ": unknown format \"" + kind + "\"");
            if (version != "1.0") throw ToolError(where + ": unknown format version \"" + version + "\"");
            haveFormat = true;
        } else if (word == "element") {
            PlyElement el;
            std::string count;
            in >> el.name >> count;
            char* endp = nullptr;
            errno = 0;
            const unsigned long long c = std::strtoull(count.c_str(), &endp, 10);
            if (el.name.empty() || count.empty() || count[0] == '-' || *endp != '\0' || errno == ERANGE)
                throw ToolError(where + ": an element needs a name and a count");
            el.count = c;
            h.elements.push_back(el);
        } else if (word == "property") {
            if (h.elements.empty()) throw ToolError(where + ": a property before any element");
            PlyProperty p;
            std::string t1;
            in >> t1;
            if (t1 == "list") {
                std::string t2, t3;
                in >> t2 >> t3 >> p.name;
                p.isList = true;
                if (!parsePlyType(t2, p.countType) || !isIntegerType(p.countType))
                    throw ToolError(where + ": a list's length must have an integer type, not \"" + t2 + "\"");
                if (!parsePlyType(t3, p.type)) throw ToolError(where + ": unknown type \"" + t3 + "\"");
            } else {
                in >> p.name;
                if (!parsePlyType(t1, p.type)) throw ToolError(where + ": unknown type \"" + t1 + "\"");
            }
            if (p.name.empty()) throw ToolError(where + ": the property has no name");
            h.elements.back().props.push_back(p);
        } else if (word == "end_header") {
            ended = true;
        } else {
            throw ToolError(where + ": unknown keyword \"" + word + "\"");
        }
    }
    if (!ended) throw ToolError(name + ": the header has no end_header line");
    if (!haveFormat) throw ToolError(name + ": the header has no format line");
    h.bodyStart = std::min(pos, bytes.size());
    return h;
}

// ------------------------------------------------------------- PLY values

// Where the body reader is, for messages.
struct BodyPlace {
    std::string file;
    const PlyElement* element = nullptr;
    uint64_t item = 0;

    std::string where() const {
        return file + ": element " + element->name + " entry " + std::to_string(item + 1) + " of " +
               std::to_string(element->count);
    }
};

class AsciiValues {
   public:
    AsciiValues(const std::string& bytes, size_t start, BodyPlace& place) : s_(bytes), pos_(start), place_(place) {}

    double value(PlyType t) {
        skipSpace();
        if (pos_ >= s_.size()) throw ToolError(place_.where() + ": the file ends before the entry is complete");
        const size_t start = pos_;
        while (pos_ < s_.size() && !std::isspace(static_cast<unsigned char>(s_[pos_]))) ++pos_;
        const std::string tok = s_.substr(start, pos_ - start);
        char* end = nullptr;
        errno = 0;
        if (isIntegerType(t)) {
            const long long v = std::strtoll(tok.c_str(), &end, 10);
            const double lo = t == PlyType::Int8 ? -128.0 : t == PlyType::Int16 ? -32768.0
                            : t == PlyType::Int32 ? -2147483648.0 : 0.0;
            const double hi = t == PlyType::Int8 ? 127.0 : t == PlyType::UInt8 ? 255.0 : t == PlyType::Int16 ? 32767.0
                            : t == PlyType::UInt16 ? 65535.0 : t == PlyType::Int32 ? 2147483647.0 : 4294967295.0;
            if (*end != '\0' || errno == ERANGE || double(v) < lo || double(v) > hi)
                throw ToolError(place_.where() + ": \"" + tok + "\" is not a whole number of the declared type");
            return double(v);
        }
        const double v = std::strtod(tok.c_str(), &end);
        if (*end != '\0' || !std::isfinite(v))
            throw ToolError(place_.where() + ": \"" + tok + "\" is not a finite number");
        return v;
    }

    // True when nothing but white space is left.
    bool atEnd() {
        skipSpace();
        return pos_ >= s_.size();
    }
    size_t left() const { return s_.size() - pos_; }

   private:
    void skipSpace() {
        while (pos_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[pos_]))) ++pos_;
    }
    const std::string& s_;
    size_t pos_;
    BodyPlace& place_;
};

class BinaryValues {
   public:
    BinaryValues(const std::string& bytes, size_t start, bool bigEndian, BodyPlace& place)
        : s_(bytes), pos_(start), big_(bigEndian), place_(place) {}

    double value(PlyType t) {
        const size_t n = plyTypeSize(t);
        if (s_.size() - pos_ < n) throw ToolError(place_.where() + ": the file ends before the entry is complete");
        uint64_t bits = 0;
        for (size_t k = 0; k < n; ++k) {
            const uint8_t byte = uint8_t(s_[pos_ + (big_ ? k : n - 1 - k)]);
            bits = (bits << 8) | byte;
        }
        pos_ += n;
        double v = 0.0;
        switch (t) {
            case PlyType::Int8: v = double(int8_t(bits)); break;
            case PlyType::UInt8: v = double(uint8_t(bits)); break;
            case PlyType::Int16: v = double(int16_t(bits)); break;
            case PlyType::UInt16: v = double(uint16_t(bits)); break;
            case PlyType::Int32: v = double(int32_t(bits)); break;
            case PlyType::UInt32: v = double(uint32_t(bits)); break;
            case PlyType::Float32: {
                const uint32_t b32 = uint32_t(bits);
                float f;
                std::memcpy(&f, &b32, sizeof f);
                v = double(f);
                break;
            }
            case PlyType::Float64: std::memcpy(&v, &bits, sizeof v); break;
        }
        if (!std::isfinite(v)) throw ToolError(place_.where() + ": a value is not a finite number");
        return v;
    }

    bool atEnd() const { return pos_ >= s_.size(); }
    size_t left() const { return s_.size() - pos_; }

   private:
    const std::string& s_;
    size_t pos_;
    bool big_;
    BodyPlace& place_;
};

// Refuses counts the body cannot hold before anything is sized by them: each
// binary entry needs the bytes of its scalars and list lengths; each ASCII
// value needs at least one character and a separator.
void checkCountsAgainstBody(const PlyHeader& h, size_t bodyBytes, const std::string& name) {
    uint64_t left = bodyBytes + (h.format == PlyFormat::Ascii ? 1 : 0);
    for (const PlyElement& el : h.elements) {
        uint64_t perEntry = 0;
        for (const PlyProperty& p : el.props)
            perEntry += h.format == PlyFormat::Ascii ? 2 : plyTypeSize(p.isList ? p.countType : p.type);
        if (perEntry == 0) {
            if (el.count > 0) throw ToolError(name + ": element " + el.name + " has entries but no properties");
            continue;
        }
        if (el.count > left / perEntry)
            throw ToolError(name + ": the header declares " + std::to_string(el.count) + " entries of element " +
                            el.name + ", more than the file's data can hold");
        left -= el.count * perEntry;
    }
}

// The `n` corners of a face, read one by one: a count larger than the data
// is refused where the data ends instead of sizing anything first.
template <class Values>
void readFaceCorners(Values& values, PlyType type, double n, const BodyPlace& place, std::vector<double>& polygon) {
    polygon.clear();
    for (double j = 0; j < n; ++j) {
        const double corner = values.value(type);
        if (corner < 0 || corner > double(kMaxCount))
            throw ToolError(place.where() + ": the vertex index " + std::to_string(int64_t(corner)) +
                            " is out of range");
        polygon.push_back(corner);
    }
}

// A polygon as a triangle fan, keeping its winding.
void addTriangleFan(const std::vector<double>& polygon, MeshData& mesh, const std::string& name) {
    if (polygon.size() > 3) ++mesh.polygonsSplit;
    for (size_t j = 1; j + 1 < polygon.size(); ++j) {
        if (mesh.facets.size() / 3 >= size_t(kMaxCount)) throw ToolError(name + ": too many facets");
        mesh.facets.push_back(int32_t(polygon[0]));
        mesh.facets.push_back(int32_t(polygon[j]));
        mesh.facets.push_back(int32_t(polygon[j + 1]));
    }
}

template <class Values>
void readPlyBody(const PlyHeader& h, Values& values, BodyPlace& place, MeshData& mesh, const std::string& name) {
    int64_t numVertices = -1;
    for (const PlyElement& el : h.elements) {
        place.element = &el;
        const bool isVertex = el.name == "vertex";
        const bool isFace = el.name == "face";
        int xyz[3] = {-1, -1, -1};
        int indexProp = -1;
        for (size_t k = 0; k < el.props.size(); ++k) {
            const PlyProperty& p = el.props[k];
            if (isVertex && !p.isList && p.name.size() == 1 && p.name[0] >= 'x' && p.name[0] <= 'z')
                xyz[p.name[0] - 'x'] = int(k);
            if (isFace && p.isList && (p.name == "vertex_indices" || p.name == "vertex_index")) {
                if (!isIntegerType(p.type))
                    throw ToolError(name + ": the vertex indices of the faces must have an integer type");
                indexProp = int(k);
            }
        }
        if (isVertex) {
            if (xyz[0] < 0 || xyz[1] < 0 || xyz[2] < 0)
                throw ToolError(name + ": the vertex element lacks one of the properties x, y, z");
            if (el.count > uint64_t(kMaxCount)) throw ToolError(name + ": too many vertices");
            mesh.vertices.assign(3 * el.count, 0.0);
            numVertices = int64_t(el.count);
        }
        if (isFace && indexProp < 0) throw ToolError(name + ": the face element has no vertex_indices list");

        std::vector<double> polygon;
        for (uint64_t i = 0; i < el.count; ++i) {
            place.item = i;
            for (size_t k = 0; k < el.props.size(); ++k) {
                const PlyProperty& p = el.props[k];
                if (!p.isList) {
                    const double v = values.value(p.type);
                    for (int a = 0; a < 3; ++a)
                        if (isVertex && int(k) == xyz[a]) mesh.vertices[3 * i + size_t(a)] = v;
                    continue;
                }
                const double n = values.value(p.countType);
                if (n < 0) throw ToolError(place.where() + ": a list has a negative length");
                if (!(isFace && int(k) == indexProp)) {
                    for (double j = 0; j < n; ++j) values.value(p.type);
                    continue;
                }
                if (n < 3) throw ToolError(place.where() + ": a face has fewer than three corners");
                readFaceCorners(values, p.type, n, place, polygon);
                addTriangleFan(polygon, mesh, name);
            }
        }
    }
    if (numVertices < 0) throw ToolError(name + " has no vertex element");
    bool hasFaceElement = false;
    for (const PlyElement& el : h.elements) hasFaceElement |= el.name == "face";
    if (!hasFaceElement) throw ToolError(name + " has no face element: a point cloud cannot be refined");
    for (size_t k = 0; k < mesh.facets.size(); ++k)
        if (mesh.facets[k] >= numVertices)
            throw ToolError(name + ": facet " + std::to_string(k / 3 + 1) + " refers to vertex " +
                            std::to_string(mesh.facets[k]) + ", but there are " + std::to_string(numVertices) +
                            " vertices");
}

// ------------------------------------------------------------------- OBJ

// Index of an OBJ corner ("7", "7/2", "7//3", "-1/2/3"), 0-based.
int64_t objCorner(const std::string& tok, int64_t verticesSoFar, const std::string& where) {
    const std::string first = tok.substr(0, tok.find('/'));
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(first.c_str(), &end, 10);
    if (first.empty() || *end != '\0' || errno == ERANGE || v == 0)
        throw ToolError(where + ": \"" + tok + "\" is not a vertex reference");
    if (v < 0) {
        const int64_t idx = verticesSoFar + v;
        if (idx < 0) throw ToolError(where + ": the relative reference " + first + " reaches before the first vertex");
        return idx;
    }
    if (v > kMaxCount) throw ToolError(where + ": the vertex reference " + first + " is out of range");
    return v - 1;
}

}  // namespace

MeshData parsePlyBytes(const std::string& bytes, const std::string& name) {
    const PlyHeader h = parsePlyHeader(bytes, name);
    checkCountsAgainstBody(h, bytes.size() - h.bodyStart, name);
    MeshData mesh;
    BodyPlace place{name, nullptr, 0};
    if (h.format == PlyFormat::Ascii) {
        AsciiValues values(bytes, h.bodyStart, place);
        readPlyBody(h, values, place, mesh, name);
        if (!values.atEnd()) throw ToolError(name + ": there are values after the last element the header declares");
    } else {
        BinaryValues values(bytes, h.bodyStart, h.format == PlyFormat::BinaryBig, place);
        readPlyBody(h, values, place, mesh, name);
        if (!values.atEnd())
            std::cout << "Warning: " << name << ": " << values.left()
                      << " bytes after the last element are ignored" << std::endl;
    }
    return mesh;
}

MeshData readPly(const std::string& path) {
    return parsePlyBytes(readWholeFile(path, "mesh"), fs::path(path).filename().string());
}

MeshData parseObjBytes(const std::string& bytes, const std::string& name) {
    MeshData mesh;
    std::vector<int64_t> corners;
    size_t pos = 0, lineNo = 0;
    while (pos < bytes.size()) {
        // A line, joined with the next ones while it ends in a backslash.
        std::string line;
        const size_t firstLine = lineNo + 1;
        std::string part;
        while (nextLine(bytes, pos, part)) {
            ++lineNo;
            const bool more = !part.empty() && part.back() == '\\' && pos < bytes.size();
            if (more) part.pop_back();
            line += part;
            if (!more) break;
            line += ' ';
        }
        const std::string where = name + " line " + std::to_string(firstLine);
        std::istringstream in(line.substr(0, line.find('#')));
        std::string word;
        in >> word;
        if (word == "v") {
            std::string tok;
            for (int a = 0; a < 3; ++a) {
                if (!(in >> tok)) throw ToolError(where + ": a vertex needs three coordinates");
                char* end = nullptr;
                const double v = std::strtod(tok.c_str(), &end);
                if (*end != '\0' || !std::isfinite(v))
                    throw ToolError(where + ": \"" + tok + "\" is not a finite number");
                mesh.vertices.push_back(v);
            }
            if (mesh.numVertices() > kMaxCount) throw ToolError(name + ": too many vertices");
        } else if (word == "f") {
            corners.clear();
            std::string tok;
            while (in >> tok) corners.push_back(objCorner(tok, mesh.numVertices(), where));
            if (corners.size() < 3) throw ToolError(where + ": a face has fewer than three corners");
            if (corners.size() > 3) ++mesh.polygonsSplit;
            for (size_t j = 1; j + 1 < corners.size(); ++j) {
                if (mesh.numFacets() >= kMaxCount) throw ToolError(name + ": too many facets");
                for (int64_t c : {corners[0], corners[j], corners[j + 1]}) mesh.facets.push_back(int32_t(c));
            }
        }
        // Texture coordinates, normals, groups, materials, lines and points
        // carry nothing the tool uses.
    }
    for (size_t k = 0; k < mesh.facets.size(); ++k)
        if (mesh.facets[k] >= mesh.numVertices())
            throw ToolError(name + ": facet " + std::to_string(k / 3 + 1) + " refers to vertex " +
                            std::to_string(int64_t(mesh.facets[k]) + 1) + ", but there are " +
                            std::to_string(mesh.numVertices()) + " vertices");
    if (mesh.facets.empty()) throw ToolError(name + " has no faces");
    return mesh;
}

MeshData readObj(const std::string& path) {
    return parseObjBytes(readWholeFile(path, "mesh"), fs::path(path).filename().string());
}

bool startsWithPlyMagic(const char* bytes, size_t size) {
    return size >= 4 && std::memcmp(bytes, "ply", 3) == 0 && (bytes[3] == '\n' || bytes[3] == '\r');
}

MeshData readMeshFile(const std::string& path) {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) throw ToolError("the mesh " + path + " does not exist");
    char magic[4] = {0, 0, 0, 0};
    if (std::FILE* f = std::fopen(path.c_str(), "rb")) {
        const size_t n = std::fread(magic, 1, 4, f);
        std::fclose(f);
        if (startsWithPlyMagic(magic, n)) return readPly(path);
    }
    std::string ext = fs::path(path).extension().string();
    for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
    if (ext == ".obj") return readObj(path);
    if (ext == ".ply") throw ToolError(path + " does not start with the line \"ply\"");
    throw ToolError("cannot tell the format of the mesh " + path + ": it is neither PLY nor .obj");
}

TriMesh toTriMesh(const MeshData& mesh) {
    TriMesh m;
    m.num_v = int32_t(mesh.numVertices());
    m.num_f = int32_t(mesh.numFacets());
    m.vertices.resize(mesh.vertices.size());
    for (size_t k = 0; k < mesh.vertices.size(); ++k) m.vertices[k] = float(mesh.vertices[k]);
    m.facets = mesh.facets;
    m.vertex_attributes.assign(mesh.vertices.size(), 0);
    m.vertex_records.resize(size_t(m.num_v));
    return m;
}

}  // namespace tessaline_tools
