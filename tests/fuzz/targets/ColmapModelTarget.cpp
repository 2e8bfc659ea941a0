// Fuzz targets of the importer's COLMAP model readers, text and binary
// (parseColmapText, parseColmapBinary).
//
// Input: the model's three files in one, split as ColmapInput.h says.
//
// Promises checked: a refusal is a ToolError with a message (anything else
// thrown ends the run as a crash); an accepted model has cameras of a known
// model with its number of finite parameters and a size of 1 to INT32_MAX a
// side, filed under their own ids; images with unique ids and non-empty
// unique names, finite unit quaternions and translations, a camera of the
// model, finite keypoints whose points exist; an image index that finds
// every image; points with unique ids, finite values and tracks that name an
// image of the model and one of its keypoints.
#include <climits>
#include <cmath>
#include <set>

#include "ColmapInput.h"
#include "FuzzTargets.h"
#include "ToolError.h"

namespace tessaline_fuzz {

namespace {

using namespace tessaline_tools;

bool allFinite(const double* values, size_t n) {
    for (size_t k = 0; k < n; ++k)
        if (!std::isfinite(values[k])) return false;
    return true;
}

void checkCameras(const ColmapModel& model) {
    for (const auto& [id, camera] : model.cameras) {
        require(camera.id == id, "cameras are filed under their ids");
        const ColmapCameraModel* known = colmapCameraModelById(camera.modelId);
        require(known != nullptr, "cameras have a known model");
        require(camera.params.size() == size_t(known->numParams), "cameras have their model's parameters");
        require(allFinite(camera.params.data(), camera.params.size()), "camera parameters are finite");
        require(camera.width >= 1 && camera.width <= INT32_MAX && camera.height >= 1 && camera.height <= INT32_MAX,
                "image sizes of 1 to INT32_MAX");
    }
}

void checkImage(const ColmapImage& image, const ColmapModel& model, const std::set<uint64_t>& pointIds) {
    require(!image.name.empty(), "images have names");
    require(model.cameras.count(image.cameraId) == 1, "images name a camera of the model");
    require(allFinite(image.q, 4) && allFinite(image.t, 3), "poses are finite");
    const double length = std::sqrt(image.q[0] * image.q[0] + image.q[1] * image.q[1] + image.q[2] * image.q[2] +
                                    image.q[3] * image.q[3]);
    require(std::fabs(length - 1.0) < 1e-3, "rotations are unit quaternions");
    for (const ColmapObservation& ob : image.points2D) {
        require(std::isfinite(ob.x) && std::isfinite(ob.y), "keypoints are finite");
        require(ob.point3DId == kNoPoint3D || (ob.point3DId >= 0 && pointIds.count(uint64_t(ob.point3DId)) == 1),
                "keypoints name no point or a point of the model");
    }
}

void checkImages(const ColmapModel& model, const std::set<uint64_t>& pointIds) {
    require(model.imageIndex.size() == model.images.size(), "one index entry per image (ids are unique)");
    std::set<std::string> names;
    for (size_t i = 0; i < model.images.size(); ++i) {
        const ColmapImage& image = model.images[i];
        require(model.findImage(image.id) == int(i), "the index finds every image");
        require(names.insert(image.name).second, "image names are unique");
        checkImage(image, model, pointIds);
    }
}

// Checks the points and returns their ids.
std::set<uint64_t> checkPoints(const ColmapModel& model) {
    std::set<uint64_t> ids;
    for (const ColmapPoint3D& point : model.points) {
        require(ids.insert(point.id).second, "point ids are unique");
        require(allFinite(point.xyz, 3) && std::isfinite(point.error), "points are finite");
        for (const ColmapTrackElement& element : point.track) {
            const int image = model.findImage(element.imageId);
            require(image >= 0 && size_t(image) < model.images.size(), "tracks name an image of the model");
            require(element.point2DIdx < model.images[size_t(image)].points2D.size(),
                    "tracks name a keypoint of their image");
        }
    }
    return ids;
}

Outcome fuzzColmap(const uint8_t* data, size_t size, ColmapModel (*parse)(const ColmapFileBytes&)) {
    ColmapModel model;
    try {
        model = parse(splitColmapInput(asString(data, size)));
    } catch (const ToolError& refusal) {
        require(refusal.what()[0] != '\0', "a refusal has a message");
        return Outcome::Refused;
    }
    checkCameras(model);
    checkImages(model, checkPoints(model));
    return Outcome::Accepted;
}

}  // namespace

Outcome fuzzColmapText(const uint8_t* data, size_t size) { return fuzzColmap(data, size, parseColmapText); }

Outcome fuzzColmapBinary(const uint8_t* data, size_t size) { return fuzzColmap(data, size, parseColmapBinary); }

}  // namespace tessaline_fuzz
