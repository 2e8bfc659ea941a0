// PLY reader and writer: one small ASCII dialect, read as
// whitespace-separated tokens.
//
// loadPly follows the header walk and body shapes; it opens the file and
// hands it to loadPlyFromStream, the reader of any stream. It returns true
// when the mesh is usable; for inputs that would be misread or would break the
// mesh's invariants it prints an "Error: " line and returns false,
// leaving the mesh empty (both counts 0, all primary tables empty):
//   - the file cannot be opened (the "<path> not found" line);
//   - end of input before "end_header" (it ends the walk);
//   - "format binary_little_endian" or "format binary_big_endian": this tool
//     reads ASCII PLY only, and reading binary as text gives nothing useful;
//   - a count after "element vertex"/"element face" that does not parse as an
//     int32, a negative count, or a count whose triple does not fit in int32;
//   - a vertex property other than x, y, z (any scalar type) and "uchar
//     alpha", including list properties under the vertex element: such files
//     would be misread without a word, so the user is told to convert the mesh
//     to x, y, z vertices first (the choice between reading and dropping such
//     properties and refusing them is made here for refusal: it keeps the
//     alpha behaviour exactly and misreads nothing);
//   - a facet entry whose leading count is not 3: the dialect holds triangles
//     only, and a polygon would shift everything after it;
//   - a body with fewer values than the header declares, or with a value that
//     does not parse (a silent zero fill would hide a corrupt mesh, so it
//     is refused here);
//   - a facet index outside 0..num_v-1 (rejected here so that it never indexes
//     past the mesh's tables).
// An element other than vertex and face is still passed over in the header, with one "Warning: " line per such element, since its data in the body
// (if any) would be taken for vertices or facets.
//
// Header tokens are held as at most 255 characters (a 256-byte buffer): a longer token is truncated to its first 255 characters for
// every comparison (so it never equals a keyword) and the rest of it is
// skipped without being stored.
//
// savePly writes "<path>.tmp<pid>" in the same folder, checks the stream after
// the last line and renames the file onto the path, so a failed write never
// leaves half a file. Lines end with '\n' (the platform line end on Linux in
// text mode) and the stream is flushed once at the end rather than per line;
// nothing can observe the difference since the file only appears when it is
// complete. Numbers use the stream's default format (six significant digits).
#include "plyIO.h"

#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <locale>

namespace {

constexpr size_t kMaxTokenLength = 255;
// num_v * 3 and num_f * 3 are formed in 32 bits.
constexpr int32_t kMaxCount = INT32_MAX / 3;

// Reads the next whitespace-separated token, keeping at most 255 characters of
// it. Returns false at the end of input.
bool readHeaderToken(std::istream& in, std::string& token) {
    token.clear();
    std::istream::sentry ok(in);  // skips leading white space
    if (!ok) return false;
    std::streambuf* buf = in.rdbuf();
    bool any = false;
    for (;;) {
        const int c = buf->sgetc();
        if (c == std::char_traits<char>::eof()) {
            in.setstate(std::ios::eofbit);
            break;
        }
        if (std::isspace(static_cast<unsigned char>(c))) break;
        if (token.size() < kMaxTokenLength) token.push_back(static_cast<char>(c));
        any = true;
        buf->sbumpc();
    }
    if (!any) in.setstate(std::ios::failbit);
    return any;
}

void resetMesh(TriMesh& mesh) {
    mesh.clear();
    mesh.num_v = 0;
    mesh.num_f = 0;
    mesh.vertex_records.clear();
}

bool fail(TriMesh& mesh, const std::string& message) {
    std::cout << "Error: " << message << std::endl;
    resetMesh(mesh);
    return false;
}

struct HeaderInfo {
    bool hasAlpha = false;
};

// What the header walk carries from one token to the next: the token just
// read (the walk's buffer), the last token read in step 1, the element being
// declared, and whether the next step-1 token names a vertex property.
struct HeaderWalk {
    std::istream& in;
    const std::string& name;
    std::string buffer;
    std::string previousStep1;
    std::string currentElement;
    bool checkNextAsVertexProperty = false;
};

// The next header token into the walk's buffer; false after printing the
// "ends before end_header" line at the end of input.
bool nextHeaderToken(HeaderWalk& walk) {
    if (readHeaderToken(walk.in, walk.buffer)) return true;
    std::cout << "Error: " << walk.name << " ends before end_header" << std::endl;
    return false;
}

bool refuseVertexProperty(const std::string& name, const std::string& property) {
    std::cout << "Error: " << name << " declares the vertex property '" << property
              << "'; this tool reads vertices of x, y, z (and uchar alpha) only: convert the mesh first" << std::endl;
    return false;
}

bool isCoordinate(const std::string& token) { return token == "x" || token == "y" || token == "z"; }

// Step 2, after "element": the element's name and, for vertex and face, its
// count. The buffer is left holding the name.
bool walkElement(HeaderWalk& walk, TriMesh& mesh) {
    if (!nextHeaderToken(walk)) return false;
    const std::string& element = walk.buffer;
    walk.currentElement = element;
    if (element != "vertex" && element != "face") {
        std::cout << "Warning: " << walk.name << " declares an element '" << element
                  << "' that this tool does not read; data of it in the body would be misread" << std::endl;
        return true;
    }
    int32_t count = 0;
    if (!(walk.in >> count)) {
        std::cout << "Error: " << walk.name << " has no readable " << element
                  << " count in its header (an int32 must follow 'element " << element << "')" << std::endl;
        return false;
    }
    (element == "vertex" ? mesh.num_v : mesh.num_f) = count;
    return true;
}

// Step 3, after "property": its type and, for "uchar", its name. A scalar
// vertex property other than uchar has its name checked as the next step-1
// token.
bool walkProperty(HeaderWalk& walk, HeaderInfo& info) {
    if (!nextHeaderToken(walk)) return false;
    const bool vertexProperty = walk.currentElement == "vertex";
    if (walk.buffer == "uchar") {
        if (!nextHeaderToken(walk)) return false;
        if (walk.buffer == "alpha") {
            info.hasAlpha = true;
        } else if (vertexProperty && !isCoordinate(walk.buffer)) {
            return refuseVertexProperty(walk.name, walk.buffer);
        }
    } else if (vertexProperty && walk.buffer == "list") {
        std::cout << "Error: " << walk.name
                  << " declares a list property for its vertices; this tool reads vertices of x, y, z (and "
                     "uchar alpha) only: convert the mesh first"
                  << std::endl;
        return false;
    } else if (vertexProperty) {
        walk.checkNextAsVertexProperty = true;
    }
    return true;
}

// The header walk, with the checks listed at the top of the file made on the
// side. Each round is step 1 (the next token; end of input ends the walk),
// step 2 when it is "element", step 3 when the buffer then says "property".
// Returns false after printing an "Error: " line.
bool walkHeader(std::istream& in, const std::string& name, TriMesh& mesh, HeaderInfo& info) {
    HeaderWalk walk{in, name, {}, {}, {}, false};
    for (;;) {
        if (!nextHeaderToken(walk)) return false;
        if (walk.checkNextAsVertexProperty) {
            // "property <scalar type> <name>" under the vertex element: the
            // walk lets the name go by as an ordinary token; only x, y and z
            // are read by the body.
            walk.checkNextAsVertexProperty = false;
            if (!isCoordinate(walk.buffer)) return refuseVertexProperty(name, walk.buffer);
        }
        if (walk.previousStep1 == "format" &&
            (walk.buffer == "binary_little_endian" || walk.buffer == "binary_big_endian")) {
            std::cout << "Error: " << name << " is a binary PLY file; this tool reads ASCII PLY" << std::endl;
            return false;
        }
        walk.previousStep1 = walk.buffer;
        if (walk.buffer == "end_header") return true;
        if (walk.buffer == "element" && !walkElement(walk, mesh)) return false;
        if (walk.buffer == "property" && !walkProperty(walk, info)) return false;
    }
}

// Refuses negative counts and counts whose triple does not fit in int32.
bool checkDeclaredCounts(TriMesh& mesh, const std::string& name) {
    const int32_t num_v = mesh.num_v;
    const int32_t num_f = mesh.num_f;
    if (num_v < 0) return fail(mesh, name + " declares a negative vertex count " + std::to_string(num_v));
    if (num_f < 0) return fail(mesh, name + " declares a negative face count " + std::to_string(num_f));
    if (num_v > kMaxCount) {
        return fail(mesh, name + " declares " + std::to_string(num_v) + " vertices; at most " +
                              std::to_string(kMaxCount) + " are supported");
    }
    if (num_f > kMaxCount) {
        return fail(mesh, name + " declares " + std::to_string(num_f) + " faces; at most " +
                              std::to_string(kMaxCount) + " are supported");
    }
    return true;
}

// A body value that could not be read: the input ended, or the value does
// not parse.
bool failShortBody(std::istream& in, TriMesh& mesh, const std::string& name, const std::string& where) {
    if (in.eof()) return fail(mesh, name + " holds fewer values than its header declares (it ends in " + where + ")");
    return fail(mesh, name + " holds a value that does not parse in " + where);
}

bool readVertices(std::istream& in, const std::string& name, bool hasAlpha, TriMesh& mesh) {
    for (int32_t i = 0; i < mesh.num_v; ++i) {
        float x = 0.0f, y = 0.0f, z = 0.0f;
        if (!(in >> x >> y >> z)) return failShortBody(in, mesh, name, "vertex " + std::to_string(i));
        mesh.vertices.push_back(x);
        mesh.vertices.push_back(y);
        mesh.vertices.push_back(z);
        if (hasAlpha) {
            int alpha = 0;  // read and dropped
            if (!(in >> alpha)) return failShortBody(in, mesh, name, "vertex " + std::to_string(i));
        }
    }
    return true;
}

bool readFacets(std::istream& in, const std::string& name, TriMesh& mesh) {
    for (int32_t f = 0; f < mesh.num_f; ++f) {
        int count = 0;
        int32_t a = 0, b = 0, c = 0;
        if (!(in >> count)) return failShortBody(in, mesh, name, "facet " + std::to_string(f));
        if (count != 3) {
            return fail(mesh, "facet " + std::to_string(f) + " of " + name + " has " + std::to_string(count) +
                                  " vertices; this tool reads triangles only");
        }
        if (!(in >> a >> b >> c)) return failShortBody(in, mesh, name, "facet " + std::to_string(f));
        mesh.facets.push_back(a);
        mesh.facets.push_back(b);
        mesh.facets.push_back(c);
    }
    return true;
}

bool checkFacetIndices(TriMesh& mesh, const std::string& name) {
    const int32_t num_v = mesh.num_v;
    for (int32_t f = 0; f < mesh.num_f; ++f) {
        for (int k = 0; k < 3; ++k) {
            const int32_t index = mesh.facets[size_t(f) * 3 + k];
            if (index >= 0 && index < num_v) continue;
            if (num_v == 0) {
                return fail(mesh, "facet " + std::to_string(f) + " of " + name + " refers to vertex " +
                                      std::to_string(index) + ", but the mesh has no vertex");
            }
            return fail(mesh, "facet " + std::to_string(f) + " of " + name + " refers to vertex " +
                                  std::to_string(index) + ", outside 0.." + std::to_string(num_v - 1));
        }
    }
    return true;
}

}  // namespace

bool loadPlyFromStream(TriMesh& mesh, std::istream& in, const std::string& name) {
    mesh.clear();
    in.imbue(std::locale::classic());
    HeaderInfo info;
    if (!walkHeader(in, name, mesh, info)) {
        resetMesh(mesh);
        return false;
    }
    if (!checkDeclaredCounts(mesh, name)) return false;

    // The tables grow with what the body really holds rather than being sized
    // from the header first, not even in part, so that a damaged count costs
    // no memory; a body that is read completely ends in the same tables as
    // sizing them first and filling them would.
    if (!readVertices(in, name, info.hasAlpha, mesh) || !readFacets(in, name, mesh) ||
        !checkFacetIndices(mesh, name)) {
        return false;
    }
    mesh.vertex_attributes.assign(size_t(mesh.num_v) * 3, 0);
    mesh.vertex_records.assign(size_t(mesh.num_v), VertexRecord());
    return true;
}

bool loadPly(TriMesh& mesh, const std::string& path) {
    std::cout << "reading " << path << std::endl;
    std::ifstream in(path);
    if (!in.is_open()) {
        std::cout << path << " not found" << std::endl;
        resetMesh(mesh);
        return false;
    }
    return loadPlyFromStream(mesh, in, path);
}

bool savePly(const TriMesh& mesh, const std::string& path) {
    std::cout << "saving " << path << std::endl;

    auto warn = [&]() {
        std::cout << "Warning: cannot save " << path << std::endl;
        return false;
    };
    // A mesh whose tables are shorter than its counts cannot be written.
    if (mesh.num_v < 0 || mesh.num_f < 0 || mesh.vertices.size() < size_t(mesh.num_v) * 3 ||
        mesh.facets.size() < size_t(mesh.num_f) * 3) {
        return warn();
    }

    const std::string tempPath = path + ".tmp" + std::to_string(static_cast<long>(getpid()));
    std::ofstream out(tempPath);
    if (!out.is_open()) return warn();
    out.imbue(std::locale::classic());

    out << "ply\n"
        << "format ascii 1.0\n"
        << "element vertex " << mesh.num_v << "\n"
        << "property float x\n"
        << "property float y\n"
        << "property float z\n"
        << "element face " << mesh.num_f << "\n"
        << "property list uchar int vertex_indices\n"
        << "end_header\n";
    const float* v = mesh.vertices.data();
    for (int32_t i = 0; i < mesh.num_v; ++i) {
        out << v[3 * size_t(i)] << ' ' << v[3 * size_t(i) + 1] << ' ' << v[3 * size_t(i) + 2] << '\n';
    }
    const int32_t* f = mesh.facets.data();
    for (int32_t k = 0; k < mesh.num_f; ++k) {
        out << "3 " << f[3 * size_t(k)] << ' ' << f[3 * size_t(k) + 1] << ' ' << f[3 * size_t(k) + 2] << '\n';
    }
    out.flush();
    const bool written = static_cast<bool>(out);
    out.close();
    if (!written || out.fail() || std::rename(tempPath.c_str(), path.c_str()) != 0) {
        std::remove(tempPath.c_str());
        return warn();
    }
    return true;
}
