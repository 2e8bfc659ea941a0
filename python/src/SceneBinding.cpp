// tessaline._core.Scene: the tool's scene record (cameras, photographs,
// neighbour lists), read from a scene file, built from arrays or imported
// from a COLMAP model.
#include <string>
#include <utility>
#include <vector>

#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include "SceneSources.h"

namespace nb = nanobind;

namespace {

using Matrices = nb::ndarray<const double, nb::shape<-1, 3, 3>, nb::c_contig, nb::device::cpu>;
using Vectors = nb::ndarray<const double, nb::shape<-1, 3>, nb::c_contig, nb::device::cpu>;
using ImageInput = nb::ndarray<const uint8_t, nb::ndim<2>, nb::c_contig, nb::device::cpu>;
using ImageView = nb::ndarray<nb::numpy, const uint8_t, nb::ndim<2>>;
using DoubleArray = nb::ndarray<nb::numpy, double>;

SfmScene sceneFromInputs(const Matrices& K, const Matrices& R, const Vectors& t, const std::vector<ImageInput>& images,
                         const std::vector<std::vector<int64_t>>& neighbours) {
    const size_t n = K.shape(0);
    if (R.shape(0) != n || t.shape(0) != n)
        throw nb::value_error(("K, R and t hold " + std::to_string(n) + ", " + std::to_string(R.shape(0)) + " and " +
                               std::to_string(t.shape(0)) + " cameras; they must hold one each")
                                  .c_str());
    SceneArrays arrays;
    arrays.count = n;
    arrays.K = K.data(), arrays.R = R.data(), arrays.t = t.data();
    for (const ImageInput& image : images)  // copied: the scene owns its pixels
        arrays.images.push_back(
            cv::Mat(int(image.shape(0)), int(image.shape(1)), CV_8U, const_cast<uint8_t*>(image.data())).clone());
    arrays.neighbours = neighbours;
    return sceneFromArrays(arrays);
}

// A fresh (count, rows, cols) array (cols 0: (count, rows)) of one field
// of every camera.
template <class Field>
DoubleArray cameraField(const SfmScene& scene, size_t rows, size_t cols, Field field) {
    const size_t n = scene.cameras.size(), per = rows * (cols ? cols : 1);
    auto* values = new std::vector<double>();
    for (const mycamera& camera : scene.cameras) {
        const std::vector<double> v = field(camera);
        values->insert(values->end(), v.begin(), v.begin() + long(per));
    }
    nb::capsule owner(values, [](void* p) noexcept { delete static_cast<std::vector<double>*>(p); });
    const size_t shape3[3] = {n, rows, cols};
    return DoubleArray(values->data(), cols ? 3 : 2, shape3, owner);
}

std::vector<double> intrinsics(const mycamera& c) { return {c.fx, 0.0, c.cx, 0.0, c.fy, c.cy, 0.0, 0.0, 1.0}; }
std::vector<double> rotation(const mycamera& c) { return std::vector<double>(c.R, c.R + 9); }
std::vector<double> translation(const mycamera& c) { return std::vector<double>(c.t, c.t + 3); }

ImageView imageView(const SfmScene& scene, size_t index) {
    if (index >= scene.images.size()) throw nb::index_error("no camera of that index");
    const cv::Mat& image = scene.images[index];
    return ImageView(image.data, {size_t(image.rows), size_t(image.cols)});
}

}  // namespace

void bindScene(nb::module_& m) {
    nb::class_<SfmScene>(m, "Scene", "Calibrated photographs with their neighbour lists.")
        .def_static("load", &loadSceneFile, nb::arg("path"), nb::arg("image_root"))
        .def_static("from_arrays", &sceneFromInputs, nb::arg("K"), nb::arg("R"), nb::arg("t"), nb::arg("images"),
                    nb::arg("neighbours"))
        .def_static("from_colmap", &importColmapScene, nb::arg("model_dir"), nb::arg("image_dir"),
                    nb::arg("neighbours"))
        .def_prop_ro("camera_count", [](const SfmScene& s) { return s.cameras.size(); })
        .def_prop_ro("image_size", [](const SfmScene& s) { return std::make_pair(s.images[0].cols, s.images[0].rows); })
        .def_prop_ro("image_paths", [](const SfmScene& s) { return s.imagePaths; })
        .def_prop_ro("neighbours", [](const SfmScene& s) { return s.neighbourLists; })
        .def_prop_ro("bounding_box",
                     [](const SfmScene& s) { return std::vector<float>(s.boundingBox, s.boundingBox + 6); })
        .def_prop_ro("K", [](const SfmScene& s) { return cameraField(s, 3, 3, intrinsics); }, nb::rv_policy::automatic)
        .def_prop_ro("R", [](const SfmScene& s) { return cameraField(s, 3, 3, rotation); }, nb::rv_policy::automatic)
        .def_prop_ro("t", [](const SfmScene& s) { return cameraField(s, 3, 0, translation); }, nb::rv_policy::automatic)
        .def("image", &imageView, nb::arg("index"), nb::rv_policy::reference_internal);
}
