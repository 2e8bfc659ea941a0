#include "ColmapModel.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <sstream>

#include "FileIO.h"
#include "ToolError.h"

namespace fs = std::filesystem;

namespace tessaline_tools {

namespace {

const ColmapCameraModel kCameraModels[] = {
    {0, "SIMPLE_PINHOLE", 3}, {1, "PINHOLE", 4},
    {2, "SIMPLE_RADIAL", 4},  {3, "RADIAL", 5},
    {4, "OPENCV", 8},         {5, "OPENCV_FISHEYE", 8},
    {6, "FULL_OPENCV", 12},   {7, "FOV", 5},
    {8, "SIMPLE_RADIAL_FISHEYE", 4}, {9, "RADIAL_FISHEYE", 5},
    {10, "THIN_PRISM_FISHEYE", 12},
};

// ---------------------------------------------------------------- text form

// The whitespace-separated tokens of one line of a text file, with the place
// for messages.
struct TextLine {
    std::string file;
    size_t lineNo = 0;
    std::vector<std::string> tokens;

    std::string where() const { return file + " line " + std::to_string(lineNo); }

    double number(size_t i, const char* what) const {
        const std::string& s = token(i, what);
        errno = 0;
        char* end = nullptr;
        const double v = std::strtod(s.c_str(), &end);
        if (end != s.c_str() + s.size() || errno == ERANGE || !std::isfinite(v))
            throw ToolError(where() + ": " + what + " \"" + s + "\" is not a finite number");
        return v;
    }

    // A whole number within [lo, hi].
    int64_t integer(size_t i, const char* what, int64_t lo, int64_t hi) const {
        const std::string& s = token(i, what);
        errno = 0;
        char* end = nullptr;
        const long long v = std::strtoll(s.c_str(), &end, 10);
        if (end != s.c_str() + s.size() || errno == ERANGE || v < lo || v > hi)
            throw ToolError(where() + ": " + what + " \"" + s + "\" is not a whole number from " +
                            std::to_string(lo) + " to " + std::to_string(hi));
        return v;
    }

    const std::string& token(size_t i, const char* what) const {
        if (i >= tokens.size()) throw ToolError(where() + ": the line ends before the " + std::string(what));
        return tokens[i];
    }
};

// A text file as lines; `name` is the file's name, for messages.
struct TextFile {
    std::string name;
    std::vector<std::string> lines;

    TextFile(const std::string& bytes, const std::string& fileName) : name(fileName) {
        size_t pos = 0;
        std::string line;
        while (nextLine(bytes, pos, line)) lines.push_back(line);
    }

    static bool isSkipped(const std::string& line) {
        const size_t first = line.find_first_not_of(" \t");
        return first == std::string::npos || line[first] == '#';
    }

    TextLine tokenise(size_t index) const {
        TextLine t{name, index + 1, {}};
        std::istringstream in(lines[index]);
        std::string tok;
        while (in >> tok) t.tokens.push_back(tok);
        return t;
    }
};

constexpr int64_t kMaxId32 = 0xFFFFFFFFll;

void readCamerasText(const std::string& bytes, const std::string& name, ColmapModel& model) {
    const TextFile file(bytes, name);
    for (size_t i = 0; i < file.lines.size(); ++i) {
        if (TextFile::isSkipped(file.lines[i])) continue;
        const TextLine line = file.tokenise(i);
        ColmapCamera cam;
        cam.id = uint32_t(line.integer(0, "camera id", 0, kMaxId32));
        const std::string& modelName = line.token(1, "camera model");
        const ColmapCameraModel* cm = colmapCameraModelByName(modelName);
        if (!cm) throw ToolError(line.where() + ": unknown camera model " + modelName);
        cam.modelId = cm->id;
        cam.width = uint64_t(line.integer(2, "width", 1, INT32_MAX));
        cam.height = uint64_t(line.integer(3, "height", 1, INT32_MAX));
        if (line.tokens.size() != size_t(4 + cm->numParams))
            throw ToolError(line.where() + ": camera model " + modelName + " takes " +
                            std::to_string(cm->numParams) + " parameters, the line has " +
                            std::to_string(line.tokens.size() < 4 ? 0 : line.tokens.size() - 4));
        for (int k = 0; k < cm->numParams; ++k) cam.params.push_back(line.number(4 + k, "camera parameter"));
        if (!model.cameras.emplace(cam.id, cam).second)
            throw ToolError(line.where() + ": camera " + std::to_string(cam.id) + " is listed twice");
    }
}

void readImagesText(const std::string& bytes, const std::string& name, ColmapModel& model) {
    const TextFile file(bytes, name);
    size_t i = 0;
    while (i < file.lines.size()) {
        if (TextFile::isSkipped(file.lines[i])) {
            ++i;
            continue;
        }
        // First line: IMAGE_ID QW QX QY QZ TX TY TZ CAMERA_ID NAME. The name is
        // the rest of the line, so that a blank in it is kept and reported later.
        const TextLine line = file.tokenise(i);
        ColmapImage image;
        image.id = uint32_t(line.integer(0, "image id", 0, kMaxId32));
        for (int k = 0; k < 4; ++k) image.q[k] = line.number(1 + k, "quaternion");
        for (int k = 0; k < 3; ++k) image.t[k] = line.number(5 + k, "translation");
        image.cameraId = uint32_t(line.integer(8, "camera id", 0, kMaxId32));
        line.token(9, "image name");
        {
            std::istringstream in(file.lines[i]);
            std::string skip;
            for (int k = 0; k < 9; ++k) in >> skip;
            std::getline(in, image.name);
            const size_t a = image.name.find_first_not_of(" \t");
            const size_t b = image.name.find_last_not_of(" \t");
            image.name = image.name.substr(a, b - a + 1);
        }
        // Second line: X Y POINT3D_ID triples; empty for an image without
        // keypoints, and it may be missing at the very end of the file.
        if (i + 1 < file.lines.size()) {
            const TextLine pts = file.tokenise(i + 1);
            if (pts.tokens.size() % 3 != 0)
                throw ToolError(pts.where() + ": keypoints come as X Y POINT3D_ID triples, the line has " +
                                std::to_string(pts.tokens.size()) + " values");
            image.points2D.resize(pts.tokens.size() / 3);
            for (size_t k = 0; k < image.points2D.size(); ++k) {
                image.points2D[k].x = pts.number(3 * k, "keypoint x");
                image.points2D[k].y = pts.number(3 * k + 1, "keypoint y");
                image.points2D[k].point3DId = pts.integer(3 * k + 2, "point id", -1, INT64_MAX);
            }
        }
        model.images.push_back(std::move(image));
        i += 2;
    }
}

void readPointsText(const std::string& bytes, const std::string& name, ColmapModel& model) {
    const TextFile file(bytes, name);
    for (size_t i = 0; i < file.lines.size(); ++i) {
        if (TextFile::isSkipped(file.lines[i])) continue;
        const TextLine line = file.tokenise(i);
        ColmapPoint3D p;
        p.id = uint64_t(line.integer(0, "point id", 0, INT64_MAX));
        for (int k = 0; k < 3; ++k) p.xyz[k] = line.number(1 + k, "point coordinate");
        for (int k = 0; k < 3; ++k) p.rgb[k] = uint8_t(line.integer(4 + k, "colour", 0, 255));
        p.error = line.number(7, "error");
        if ((line.tokens.size() - 8) % 2 != 0)
            throw ToolError(line.where() + ": the track comes as IMAGE_ID POINT2D_IDX pairs, one value is left over");
        p.track.resize((line.tokens.size() - 8) / 2);
        for (size_t k = 0; k < p.track.size(); ++k) {
            p.track[k].imageId = uint32_t(line.integer(8 + 2 * k, "track image id", 0, kMaxId32));
            p.track[k].point2DIdx = uint32_t(line.integer(9 + 2 * k, "track keypoint index", 0, kMaxId32));
        }
        model.points.push_back(std::move(p));
    }
}

// -------------------------------------------------------------- binary form

// Little-endian reads from a whole file held in memory. Every count is checked
// against the bytes that are left before anything is sized by it.
class BinaryReader {
   public:
    BinaryReader(const std::string& bytes, const std::string& name) : name_(name), bytes_(bytes) {}

    uint8_t u8() { return uint8_t(take(1)[0]); }
    uint32_t u32() { return uint32_t(le(take(4), 4)); }
    int32_t i32() { return int32_t(u32()); }
    uint64_t u64() { return le(take(8), 8); }
    int64_t i64() { return int64_t(u64()); }
    double f64(const char* what) {
        const uint64_t bits = u64();
        double v;
        std::memcpy(&v, &bits, sizeof v);
        if (!std::isfinite(v))
            throw ToolError(name_ + ": " + what + " at byte " + std::to_string(pos_ - 8) + " is not a finite number");
        return v;
    }

    // A NUL-terminated string.
    std::string text(const char* what) {
        const size_t end = bytes_.find('\0', pos_);
        if (end == std::string::npos)
            throw ToolError(name_ + " is truncated: the " + std::string(what) + " at byte " + std::to_string(pos_) +
                            " has no end");
        std::string s = bytes_.substr(pos_, end - pos_);
        pos_ = end + 1;
        return s;
    }

    // A count of records that need at least `minBytes` each.
    uint64_t count(const char* what, uint64_t minBytes) {
        const size_t at = pos_;
        const uint64_t n = u64();
        const uint64_t left = bytes_.size() - pos_;
        if (minBytes > 0 && n > left / minBytes)
            throw ToolError(name_ + ": the count of " + what + " at byte " + std::to_string(at) + " is " +
                            std::to_string(n) + ", more than the " + std::to_string(left) +
                            " bytes left in the file can hold");
        return n;
    }

    void expectEnd() const {
        if (pos_ != bytes_.size())
            throw ToolError(name_ + " has " + std::to_string(bytes_.size() - pos_) +
                            " bytes after its last record");
    }

    const std::string& name() const { return name_; }

   private:
    const char* take(size_t n) {
        if (bytes_.size() - pos_ < n)
            throw ToolError(name_ + " is truncated: it ends at byte " + std::to_string(bytes_.size()) +
                            " inside a record");
        const char* p = bytes_.data() + pos_;
        pos_ += n;
        return p;
    }
    static uint64_t le(const char* p, int n) {
        uint64_t v = 0;
        for (int k = n - 1; k >= 0; --k) v = (v << 8) | uint8_t(p[k]);
        return v;
    }

    std::string name_;
    const std::string& bytes_;
    size_t pos_ = 0;
};

void readCamerasBinary(const std::string& bytes, const std::string& name, ColmapModel& model) {
    BinaryReader in(bytes, name);
    const uint64_t n = in.count("cameras", 24);
    for (uint64_t i = 0; i < n; ++i) {
        ColmapCamera cam;
        const int32_t id = in.i32();
        if (id < 0) throw ToolError(in.name() + ": camera id " + std::to_string(id) + " is negative");
        cam.id = uint32_t(id);
        const int32_t modelId = in.i32();
        const ColmapCameraModel* cm = colmapCameraModelById(modelId);
        if (!cm)
            throw ToolError(in.name() + ": camera " + std::to_string(id) + " has the unknown model id " +
                            std::to_string(modelId));
        cam.modelId = cm->id;
        cam.width = in.u64();
        cam.height = in.u64();
        if (cam.width < 1 || cam.height < 1 || cam.width > INT32_MAX || cam.height > INT32_MAX)
            throw ToolError(in.name() + ": camera " + std::to_string(id) + " has the image size " +
                            std::to_string(cam.width) + "x" + std::to_string(cam.height));
        for (int k = 0; k < cm->numParams; ++k) cam.params.push_back(in.f64("a camera parameter"));
        if (!model.cameras.emplace(cam.id, cam).second)
            throw ToolError(in.name() + ": camera " + std::to_string(id) + " is listed twice");
    }
    in.expectEnd();
}

void readImagesBinary(const std::string& bytes, const std::string& name, ColmapModel& model) {
    BinaryReader in(bytes, name);
    const uint64_t n = in.count("images", 4 + 32 + 24 + 4 + 1 + 8);
    for (uint64_t i = 0; i < n; ++i) {
        ColmapImage image;
        image.id = in.u32();
        for (int k = 0; k < 4; ++k) image.q[k] = in.f64("a quaternion");
        for (int k = 0; k < 3; ++k) image.t[k] = in.f64("a translation");
        image.cameraId = in.u32();
        image.name = in.text("image name");
        const uint64_t m = in.count("keypoints", 24);
        image.points2D.resize(m);
        for (auto& ob : image.points2D) {
            ob.x = in.f64("a keypoint position");
            ob.y = in.f64("a keypoint position");
            ob.point3DId = in.i64();
            if (ob.point3DId < kNoPoint3D)
                throw ToolError(in.name() + ": image " + std::to_string(image.id) + " refers to the point id " +
                                std::to_string(ob.point3DId));
        }
        model.images.push_back(std::move(image));
    }
    in.expectEnd();
}

void readPointsBinary(const std::string& bytes, const std::string& name, ColmapModel& model) {
    BinaryReader in(bytes, name);
    const uint64_t n = in.count("points", 8 + 24 + 3 + 8 + 8);
    model.points.reserve(n);
    for (uint64_t i = 0; i < n; ++i) {
        ColmapPoint3D p;
        p.id = in.u64();
        for (int k = 0; k < 3; ++k) p.xyz[k] = in.f64("a point coordinate");
        for (int k = 0; k < 3; ++k) p.rgb[k] = in.u8();
        p.error = in.f64("a point error");
        const uint64_t m = in.count("track elements", 8);
        p.track.resize(m);
        for (auto& el : p.track) {
            el.imageId = in.u32();
            el.point2DIdx = in.u32();
        }
        model.points.push_back(std::move(p));
    }
    in.expectEnd();
}

// --------------------------------------------------------------- references

void checkReferences(ColmapModel& model) {
    const bool bin = model.format == ColmapFormat::Binary;
    const std::string imagesFile = bin ? "images.bin" : "images.txt";
    const std::string camerasFile = bin ? "cameras.bin" : "cameras.txt";
    const std::string pointsFile = bin ? "points3D.bin" : "points3D.txt";

    model.imageIndex.clear();
    std::set<std::string> names;
    for (size_t i = 0; i < model.images.size(); ++i) {
        const ColmapImage& image = model.images[i];
        const std::string label = "image " + std::to_string(image.id) + " (" + image.name + ")";
        if (!model.imageIndex.emplace(image.id, int(i)).second)
            throw ToolError(imagesFile + ": image id " + std::to_string(image.id) + " is listed twice");
        if (image.name.empty()) throw ToolError(imagesFile + ": image " + std::to_string(image.id) + " has no name");
        if (!names.insert(image.name).second)
            throw ToolError(imagesFile + ": the name " + image.name + " is given to two images");
        if (!model.cameras.count(image.cameraId))
            throw ToolError(imagesFile + ": " + label + " refers to camera " + std::to_string(image.cameraId) +
                            ", which " + camerasFile + " does not have");
        const double qn = std::sqrt(image.q[0] * image.q[0] + image.q[1] * image.q[1] + image.q[2] * image.q[2] +
                                    image.q[3] * image.q[3]);
        if (!(std::fabs(qn - 1.0) < 1e-3))
            throw ToolError(imagesFile + ": the rotation of " + label + " is not a unit quaternion (length " +
                            std::to_string(qn) + ")");
    }

    std::set<uint64_t> pointIds;
    for (const ColmapPoint3D& p : model.points) {
        if (!pointIds.insert(p.id).second)
            throw ToolError(pointsFile + ": point " + std::to_string(p.id) + " is listed twice");
        for (const ColmapTrackElement& el : p.track) {
            const int idx = model.findImage(el.imageId);
            if (idx < 0)
                throw ToolError(pointsFile + ": point " + std::to_string(p.id) + " refers to image " +
                                std::to_string(el.imageId) + ", which " + imagesFile + " does not have");
            if (el.point2DIdx >= model.images[size_t(idx)].points2D.size())
                throw ToolError(pointsFile + ": point " + std::to_string(p.id) + " refers to keypoint " +
                                std::to_string(el.point2DIdx) + " of image " + std::to_string(el.imageId) +
                                ", which has " + std::to_string(model.images[size_t(idx)].points2D.size()) +
                                " keypoints");
        }
    }
    for (const ColmapImage& image : model.images)
        for (const ColmapObservation& ob : image.points2D)
            if (ob.point3DId != kNoPoint3D && !pointIds.count(uint64_t(ob.point3DId)))
                throw ToolError(imagesFile + ": image " + std::to_string(image.id) + " refers to point " +
                                std::to_string(ob.point3DId) + ", which " + pointsFile + " does not have");
}

// The three files of a model in reading order, with their parsers.
using PartParser = void (*)(const std::string& bytes, const std::string& name, ColmapModel& model);
struct ModelPart {
    const char* stem;
    std::string ColmapFileBytes::*bytes;
    PartParser parseText;
    PartParser parseBinary;
};
const ModelPart kModelParts[] = {
    {"cameras", &ColmapFileBytes::cameras, readCamerasText, readCamerasBinary},
    {"images", &ColmapFileBytes::images, readImagesText, readImagesBinary},
    {"points3D", &ColmapFileBytes::points3D, readPointsText, readPointsBinary},
};

// Parses the three files in order, each as soon as `bytesOf(part, fileName)`
// has given its bytes (a file is read only once the one before has been
// parsed), then checks the references between them.
template <class BytesOf>
ColmapModel parseModel(ColmapFormat format, const BytesOf& bytesOf) {
    ColmapModel model;
    model.format = format;
    const bool binary = format == ColmapFormat::Binary;
    for (const ModelPart& part : kModelParts) {
        const std::string fileName = std::string(part.stem) + (binary ? ".bin" : ".txt");
        (binary ? part.parseBinary : part.parseText)(bytesOf(part, fileName), fileName, model);
    }
    checkReferences(model);
    return model;
}

ColmapModel readModelFiles(const std::string& dir, ColmapFormat format) {
    return parseModel(format, [&](const ModelPart&, const std::string& fileName) {
        return readWholeFile((fs::path(dir) / fileName).string(), "COLMAP file");
    });
}

ColmapModel parseModelBytes(const ColmapFileBytes& files, ColmapFormat format) {
    return parseModel(format, [&](const ModelPart& part, const std::string&) -> const std::string& {
        return files.*part.bytes;
    });
}

bool hasAll(const fs::path& dir, const char* ext) {
    std::error_code ec;
    for (const char* stem : {"cameras", "images", "points3D"})
        if (!fs::is_regular_file(dir / (std::string(stem) + ext), ec)) return false;
    return true;
}

}  // namespace

const ColmapCameraModel* colmapCameraModelById(int id) {
    for (const auto& m : kCameraModels)
        if (m.id == id) return &m;
    return nullptr;
}

const ColmapCameraModel* colmapCameraModelByName(const std::string& name) {
    for (const auto& m : kCameraModels)
        if (name == m.name) return &m;
    return nullptr;
}

int ColmapModel::findImage(uint32_t imageId) const {
    const auto it = imageIndex.find(imageId);
    return it == imageIndex.end() ? -1 : it->second;
}

ColmapModel readColmapText(const std::string& dir) { return readModelFiles(dir, ColmapFormat::Text); }

ColmapModel readColmapBinary(const std::string& dir) { return readModelFiles(dir, ColmapFormat::Binary); }

ColmapModel parseColmapText(const ColmapFileBytes& files) { return parseModelBytes(files, ColmapFormat::Text); }

ColmapModel parseColmapBinary(const ColmapFileBytes& files) { return parseModelBytes(files, ColmapFormat::Binary); }

ColmapModel readColmapModel(const std::string& dir) {
    const fs::path d(dir);
    std::error_code ec;
    if (!fs::is_directory(d, ec)) throw ToolError("the model folder " + dir + " does not exist");
    if (hasAll(d, ".bin")) return readColmapBinary(dir);
    if (hasAll(d, ".txt")) return readColmapText(dir);
    std::string hint;
    if (hasAll(d / "0", ".bin") || hasAll(d / "0", ".txt")) hint = "; the model is in " + (d / "0").string();
    throw ToolError("no COLMAP model in " + dir +
                    ": it needs cameras, images and points3D, all three as .bin or all three as .txt" + hint);
}

}  // namespace tessaline_tools
