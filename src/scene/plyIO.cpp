// PLY reader and writer: one small ASCII dialect, read as
// whitespace-separated tokens.
//
// loadPly follows the header walk and body shapes. It returns true
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

#include <algorithm>
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

// The header walk, with the checks listed at the top of the file
// made on the side. Returns false after printing an "Error: " line.
bool walkHeader(std::istream& in, const std::string& path, TriMesh& mesh, HeaderInfo& info) {
    std::string buffer;
    std::string previousStep1;       // the last token read in step 1
    std::string currentElement;      // name of the element being declared
    bool checkNextAsVertexProperty = false;  // the next step-1 token names a vertex property

    for (;;) {
        // Step 1: the next token. End of input ends the walk.
        if (!readHeaderToken(in, buffer)) {
            std::cout << "Error: " << path << " ends before end_header" << std::endl;
            return false;
        }
        if (checkNextAsVertexProperty) {
            // "property <scalar type> <name>" under the vertex element: the
            // walk lets the name go by as an ordinary token; only x, y and z
            // are read by the body.
            checkNextAsVertexProperty = false;
            if (buffer != "x" && buffer != "y" && buffer != "z") {
                std::cout << "Error: " << path << " declares the vertex property '" << buffer
                          << "'; this tool reads vertices of x, y, z (and uchar alpha) only: convert the mesh first"
                          << std::endl;
                return false;
            }
        }
        if (previousStep1 == "format" &&
            (buffer == "binary_little_endian" || buffer == "binary_big_endian")) {
            std::cout << "Error: " << path << " is a binary PLY file; this tool reads ASCII PLY" << std::endl;
            return false;
        }
        previousStep1 = buffer;
        if (buffer == "end_header") return true;

        // Step 2: an element declaration and its count.
        if (buffer == "element") {
            if (!readHeaderToken(in, buffer)) {
                std::cout << "Error: " << path << " ends before end_header" << std::endl;
                return false;
            }
            currentElement = buffer;
            if (buffer == "vertex" || buffer == "face") {
                int32_t count = 0;
                if (!(in >> count)) {
                    std::cout << "Error: " << path << " has no readable " << buffer
                              << " count in its header (an int32 must follow 'element " << buffer << "')"
                              << std::endl;
                    return false;
                }
                (buffer == "vertex" ? mesh.num_v : mesh.num_f) = count;
            } else {
                std::cout << "Warning: " << path << " declares an element '" << buffer
                          << "' that this tool does not read; data of it in the body would be misread" << std::endl;
            }
        }

        // Step 3: a property declaration.
        if (buffer == "property") {
            if (!readHeaderToken(in, buffer)) {
                std::cout << "Error: " << path << " ends before end_header" << std::endl;
                return false;
            }
            const bool vertexProperty = currentElement == "vertex";
            if (buffer == "uchar") {
                if (!readHeaderToken(in, buffer)) {
                    std::cout << "Error: " << path << " ends before end_header" << std::endl;
                    return false;
                }
                if (buffer == "alpha") {
                    info.hasAlpha = true;
                } else if (vertexProperty && buffer != "x" && buffer != "y" && buffer != "z") {
                    std::cout << "Error: " << path << " declares the vertex property '" << buffer
                              << "'; this tool reads vertices of x, y, z (and uchar alpha) only: convert the mesh first"
                              << std::endl;
                    return false;
                }
            } else if (vertexProperty && buffer == "list") {
                std::cout << "Error: " << path
                          << " declares a list property for its vertices; this tool reads vertices of x, y, z (and "
                             "uchar alpha) only: convert the mesh first"
                          << std::endl;
                return false;
            } else if (vertexProperty) {
                checkNextAsVertexProperty = true;
            }
        }
        // Step 4: back to step 1.
    }
}

}  // namespace

bool loadPly(TriMesh& mesh, const std::string& path) {
    std::cout << "reading " << path << std::endl;
    mesh.clear();

    std::ifstream in(path);
    if (!in.is_open()) {
        std::cout << path << " not found" << std::endl;
        resetMesh(mesh);
        return false;
    }
    in.imbue(std::locale::classic());

    HeaderInfo info;
    if (!walkHeader(in, path, mesh, info)) {
        resetMesh(mesh);
        return false;
    }
    const int32_t num_v = mesh.num_v;
    const int32_t num_f = mesh.num_f;
    if (num_v < 0) return fail(mesh, path + " declares a negative vertex count " + std::to_string(num_v));
    if (num_f < 0) return fail(mesh, path + " declares a negative face count " + std::to_string(num_f));
    if (num_v > kMaxCount) {
        return fail(mesh, path + " declares " + std::to_string(num_v) + " vertices; at most " +
                              std::to_string(kMaxCount) + " are supported");
    }
    if (num_f > kMaxCount) {
        return fail(mesh, path + " declares " + std::to_string(num_f) + " faces; at most " +
                              std::to_string(kMaxCount) + " are supported");
    }

    // The tables grow with what the body really holds rather than being sized
    // from the header first, so that a damaged count costs no memory; a body
    // that is read completely ends in the same tables as sizing them first
    // and filling them would.
    const size_t kReserveLimit = size_t(1) << 20;
    std::vector<float>& vertices = mesh.vertices;
    std::vector<int32_t>& facets = mesh.facets;
    vertices.reserve(std::min<size_t>(size_t(num_v) * 3, kReserveLimit));
    facets.reserve(std::min<size_t>(size_t(num_f) * 3, kReserveLimit));

    auto shortBody = [&](const std::string& where) {
        if (in.eof()) {
            return fail(mesh, path + " holds fewer values than its header declares (it ends in " + where + ")");
        }
        return fail(mesh, path + " holds a value that does not parse in " + where);
    };

    for (int32_t i = 0; i < num_v; ++i) {
        float x = 0.0f, y = 0.0f, z = 0.0f;
        if (!(in >> x >> y >> z)) return shortBody("vertex " + std::to_string(i));
        vertices.push_back(x);
        vertices.push_back(y);
        vertices.push_back(z);
        if (info.hasAlpha) {
            int alpha = 0;  // read and dropped
            if (!(in >> alpha)) return shortBody("vertex " + std::to_string(i));
        }
    }
    for (int32_t f = 0; f < num_f; ++f) {
        int count = 0;
        int32_t a = 0, b = 0, c = 0;
        if (!(in >> count)) return shortBody("facet " + std::to_string(f));
        if (count != 3) {
            return fail(mesh, "facet " + std::to_string(f) + " of " + path + " has " + std::to_string(count) +
                                  " vertices; this tool reads triangles only");
        }
        if (!(in >> a >> b >> c)) return shortBody("facet " + std::to_string(f));
        facets.push_back(a);
        facets.push_back(b);
        facets.push_back(c);
    }
    for (int32_t f = 0; f < num_f; ++f) {
        for (int k = 0; k < 3; ++k) {
            const int32_t index = facets[size_t(f) * 3 + k];
            if (index < 0 || index >= num_v) {
                if (num_v == 0) {
                    return fail(mesh, "facet " + std::to_string(f) + " of " + path + " refers to vertex " +
                                          std::to_string(index) + ", but the mesh has no vertex");
                }
                return fail(mesh, "facet " + std::to_string(f) + " of " + path + " refers to vertex " +
                                      std::to_string(index) + ", outside 0.." + std::to_string(num_v - 1));
            }
        }
    }

    mesh.vertex_attributes.assign(size_t(num_v) * 3, 0);
    mesh.vertex_records.assign(size_t(num_v), VertexRecord());
    return true;
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
