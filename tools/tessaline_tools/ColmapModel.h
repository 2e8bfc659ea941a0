// A sparse structure-from-motion model as COLMAP writes it: cameras.txt,
// images.txt and points3D.txt, or the same three records as .bin files.
//
// The records keep COLMAP's conventions unchanged: quaternions (w, x, y, z)
// and translations map world to camera, and image positions (intrinsics and
// keypoints alike) put the centre of the top-left pixel at (0.5, 0.5).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tessaline_tools {

struct ColmapCameraModel {
    int id;
    const char* name;
    int numParams;
};

// The camera models COLMAP knows, by id or by name; nullptr when unknown.
const ColmapCameraModel* colmapCameraModelById(int id);
const ColmapCameraModel* colmapCameraModelByName(const std::string& name);

struct ColmapCamera {
    uint32_t id = 0;
    int modelId = -1;
    uint64_t width = 0;
    uint64_t height = 0;
    std::vector<double> params;
};

constexpr int64_t kNoPoint3D = -1;

struct ColmapObservation {
    double x = 0.0;
    double y = 0.0;
    int64_t point3DId = kNoPoint3D;
};

struct ColmapImage {
    uint32_t id = 0;
    double q[4] = {1.0, 0.0, 0.0, 0.0};  // w, x, y, z
    double t[3] = {0.0, 0.0, 0.0};
    uint32_t cameraId = 0;
    std::string name;
    std::vector<ColmapObservation> points2D;
};

struct ColmapTrackElement {
    uint32_t imageId = 0;
    uint32_t point2DIdx = 0;
};

struct ColmapPoint3D {
    uint64_t id = 0;
    double xyz[3] = {0.0, 0.0, 0.0};
    uint8_t rgb[3] = {0, 0, 0};
    double error = 0.0;
    std::vector<ColmapTrackElement> track;
};

enum class ColmapFormat { Text, Binary };

struct ColmapModel {
    ColmapFormat format = ColmapFormat::Text;
    std::map<uint32_t, ColmapCamera> cameras;
    std::vector<ColmapImage> images;  // in file order
    std::vector<ColmapPoint3D> points;
    std::map<uint32_t, int> imageIndex;  // image id to index into `images`

    // Index into `images` of the image with this id, or -1.
    int findImage(uint32_t imageId) const;
};

// Reads the model in `dir`, in the format whose three files are present (the
// binary one when both are). Checks that every reference in it resolves.
// Throws ToolError.
ColmapModel readColmapModel(const std::string& dir);

// The readers for one format; they check references like readColmapModel.
ColmapModel readColmapText(const std::string& dir);
ColmapModel readColmapBinary(const std::string& dir);

// The bytes of a model's three files, held in memory.
struct ColmapFileBytes {
    std::string cameras;
    std::string images;
    std::string points3D;
};

// The same two readers over bytes held in memory; messages name the files
// as the path readers do (cameras.txt, images.bin, ...). Throw ToolError.
ColmapModel parseColmapText(const ColmapFileBytes& files);
ColmapModel parseColmapBinary(const ColmapFileBytes& files);

}  // namespace tessaline_tools
