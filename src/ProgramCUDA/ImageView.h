// Images as kernels hold them: the address of the first element with the
// image's width and height, rows `width` elements apart without gaps (the
// device's work images). A view owns nothing; it is copied into a kernel
// record by value. ImageView<T> reads and writes, ImageView<const T>
// (ConstImageView<T>) only reads, and a writable view converts to a
// read-only one.
#pragma once

#include <cstddef>
#include <type_traits>

#include "DeviceCommon.h"

namespace tessaline {

template <class T>
struct ImageView {
    T* data = nullptr;
    int width = 0;
    int height = 0;

    ImageView() = default;
    DEVICE_HOST_HOT ImageView(T* pixels, int w, int h) : data(pixels), width(w), height(h) {}
    // A writable view of the same image, seen read-only.
    template <class U, class = std::enable_if_t<std::is_same_v<const U, T> && !std::is_same_v<U, T>>>
    DEVICE_HOST_HOT ImageView(const ImageView<U>& other) : data(other.data), width(other.width), height(other.height) {}

    // Element e = y * width + x.
    DEVICE_HOST_HOT T& operator[](size_t e) const { return data[e]; }
    DEVICE_HOST_HOT T& operator()(int x, int y) const { return data[index(x, y)]; }
    DEVICE_HOST_HOT int index(int x, int y) const { return y * width + x; }
    DEVICE_HOST_HOT bool contains(int x, int y) const { return x >= 0 && y >= 0 && x < width && y < height; }
    // The address of element e: for the row routines, which walk rows.
    DEVICE_HOST_HOT T* at(size_t e) const { return data + e; }
    DEVICE_HOST_HOT size_t pixels() const { return size_t(width) * size_t(height); }
};

template <class T>
using ConstImageView = ImageView<const T>;

// A view of `data` as a width x height image.
template <class T>
ImageView<T> imageView(T* data, int width, int height) {
    return ImageView<T>(data, width, height);
}

}  // namespace tessaline
