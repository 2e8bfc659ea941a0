// SFM scene file and image loading.
//
// The loader prints its progress and failure lines in a fixed form. It
// returns bool (true = the scene is complete and usable) so that the
// driver can stop in order before the level loop; for inputs that make a run
// impossible this reader adds its own "Error: " lines, each naming the file
// and the place:
//   - a camera count that does not parse, is 0 or negative, or is above
//     kMaxCameras (an absurd count is refused before anything is allocated);
//   - a camera block, the bounding box or a neighbour block that ends early or
//     holds a token that does not parse (the reader says which block);
//   - an image path longer than 1023 characters (the tool's path limit);
//   - a negative neighbour count m;
//   - a neighbour index outside 0..N-1, rejected here so that it never reaches
//     the camera pair table.
// Images of different sizes are not an error here: later stages print their
// own lines for that. Tokens after the last neighbour block are not read.
//
// The file is read in its steps: the count, the camera blocks (each
// photograph read as soon as its block has been), the box, the neighbour
// blocks. The text reader takes any stream, so that the file and text held
// in memory go through the same code.
#include "SfmScene.h"

#include <fstream>
#include <iostream>
#include <locale>

#include <opencv2/imgcodecs.hpp>

namespace {

// No photo set of this tool comes near this many photographs; a larger count
// is taken for a damaged file rather than a reason to allocate.
constexpr int kMaxCameras = 1000000;
// Paths are held in 1024-byte buffers in the tool.
constexpr size_t kMaxPathLength = 1023;

void printMalformed(const std::string& name, const std::string& where) {
    std::cout << "Error: the scene file " << name << " ends or is malformed at " << where << std::endl;
}

// The camera count N: a positive integer up to kMaxCameras. Returns 0 after
// printing why when there is none.
int readCameraCount(std::istream& in, const std::string& name) {
    int N = 0;
    if (!(in >> N) || N <= 0) {
        std::cout << "Error: the scene file " << name << " has no usable camera count (it must be a positive integer)"
                  << std::endl;
        return 0;
    }
    if (N > kMaxCameras) {
        std::cout << "Error: the scene file " << name << " declares " << N << " cameras; at most " << kMaxCameras
                  << " are supported" << std::endl;
        return 0;
    }
    return N;
}

// Camera block i: `image_path R(9) t(3) fx fy cx cy`. False after printing why.
bool readCameraBlock(std::istream& in, const std::string& name, int i, std::string& imagePath, mycamera& camera) {
    camera = mycamera{};
    camera.fx = camera.fy = camera.cx = camera.cy = -1.0;
    bool ok = static_cast<bool>(in >> imagePath);
    for (int k = 0; ok && k < 9; ++k) ok = static_cast<bool>(in >> camera.R[k]);
    for (int k = 0; ok && k < 3; ++k) ok = static_cast<bool>(in >> camera.t[k]);
    ok = ok && (in >> camera.fx) && (in >> camera.fy) && (in >> camera.cx) && (in >> camera.cy);
    if (!ok) {
        printMalformed(name, "camera " + std::to_string(i));
        return false;
    }
    if (imagePath.size() > kMaxPathLength) {
        std::cout << "Error: the scene file " << name << " gives camera " << i << " an image path longer than "
                  << kMaxPathLength << " characters" << std::endl;
        return false;
    }
    return true;
}

// The N camera blocks and their photographs. The lists grow block by block
// rather than being sized to N at once, so that a damaged count costs no
// memory; when a photograph fails they end with its entry (no pixels), and
// are not padded to N either: a count of a million in a file of one block
// would otherwise cost half a gigabyte on the way out.
bool readCameras(std::istream& in, const std::string& name, int N, SfmScene& scene,
                 const SceneImageReader& readImage) {
    for (int i = 0; i < N; ++i) {
        std::string imagePath;
        mycamera camera;
        if (!readCameraBlock(in, name, i, imagePath, camera)) return false;
        scene.imagePaths.push_back(imagePath);
        scene.cameras.push_back(camera);
        // Read as soon as its block has been read.
        scene.images.push_back(readImage(imagePath));
        if (scene.images.back().cols < 1 || scene.images.back().rows < 1) {
            std::cout << "Error: fail to load " << imagePath << std::endl;
            return false;
        }
    }
    return true;
}

// Stored as lower x, y, z then upper x, y, z; the file gives x lower,
// x upper, y lower, y upper, z lower, z upper. The scene's box is set only
// when all six values have been read.
bool readBoundingBox(std::istream& in, const std::string& name, SfmScene& scene) {
    static const int kBoxOrder[6] = {0, 3, 1, 4, 2, 5};
    float box[6];
    for (int k = 0; k < 6; ++k) {
        if (!(in >> box[kBoxOrder[k]])) {
            printMalformed(name, "the bounding box");
            return false;
        }
    }
    for (int k = 0; k < 6; ++k) scene.boundingBox[k] = box[k];
    return true;
}

// Neighbour block i: `index m n_1 ... n_m`; the index is read and dropped,
// block i belongs to camera i. The list grows entry by entry: a huge m in a
// short file costs no memory.
bool readNeighbourBlock(std::istream& in, const std::string& name, int N, int i, std::vector<int>& list) {
    int blockIndex = 0;
    int m = 0;
    if (!(in >> blockIndex) || !(in >> m)) {
        printMalformed(name, "neighbour block " + std::to_string(i));
        return false;
    }
    if (m < 0) {
        std::cout << "Error: the scene file " << name << " gives neighbour block " << i << " a negative length " << m
                  << std::endl;
        return false;
    }
    for (int k = 0; k < m; ++k) {
        int neighbour = 0;
        if (!(in >> neighbour)) {
            printMalformed(name, "neighbour block " + std::to_string(i));
            return false;
        }
        if (neighbour < 0 || neighbour >= N) {
            std::cout << "Error: the scene file " << name << " lists neighbour " << neighbour << " for camera " << i
                      << ", outside 0.." << (N - 1) << std::endl;
            return false;
        }
        list.push_back(neighbour);
    }
    return true;
}

bool readNeighbourLists(std::istream& in, const std::string& name, int N, SfmScene& scene) {
    scene.neighbourLists.assign(N, std::vector<int>());
    for (int i = 0; i < N; ++i)
        if (!readNeighbourBlock(in, name, N, i, scene.neighbourLists[i])) return false;
    return true;
}

void printLoaded(const SfmScene& scene, int N) {
    std::cout << N << " images have been loaded" << std::endl;
    std::cout << "Bounding Box: " << scene.boundingBox[0] << " " << scene.boundingBox[3] << " "
              << scene.boundingBox[1] << " " << scene.boundingBox[4] << " " << scene.boundingBox[2] << " "
              << scene.boundingBox[5] << std::endl;
}

}  // namespace

bool loadSfmSceneFromStream(SfmScene& scene, std::istream& in, const std::string& name,
                            const SceneImageReader& readImage) {
    // Numbers are read in the classic locale whatever the global one is.
    in.imbue(std::locale::classic());
    const int N = readCameraCount(in, name);
    if (N == 0) return false;
    scene.imagePaths.clear();
    scene.images.clear();
    scene.cameras.clear();
    scene.neighbourLists.clear();
    if (!readCameras(in, name, N, scene, readImage) || !readBoundingBox(in, name, scene) ||
        !readNeighbourLists(in, name, N, scene)) {
        return false;
    }
    printLoaded(scene, N);
    return true;
}

bool loadSfmSceneWith(SfmScene& scene, const std::string& path, const SceneImageReader& readImage) {
    std::cout << "loading " << path << "..." << std::endl;
    std::ifstream in(path);
    if (!in.is_open()) {
        std::cout << path << " cannot read" << std::endl;
        return false;
    }
    return loadSfmSceneFromStream(scene, in, path, readImage);
}

// Image paths are taken relative to the working directory, as one 8-bit grey
// channel whatever the file holds.
bool loadSfmScene(SfmScene& scene, const std::string& path) { return loadSfmSceneWith(scene, path, readGreyImage); }

// A decoder that throws counts as a photograph that cannot be read, so that
// the caller prints the "Error: fail to load " line.
cv::Mat readGreyImage(const std::string& imagePath) {
    try {
        return cv::imread(imagePath, cv::IMREAD_GRAYSCALE);
    } catch (const cv::Exception&) {
        return cv::Mat();
    }
}
