// The size of a photograph without decoding it: PNG and JPEG sizes come
// from the file's first bytes; other formats are decoded once.
#pragma once

#include <string>

namespace tessaline::memory {

struct ImageSize {
    int width = 0;
    int height = 0;
    long long pixels() const { return (long long)width * height; }
};

// The width and height of the image file at `path`; false when the file
// cannot be read or holds no image.
bool readImageSize(const std::string& path, ImageSize& size);

// The size of a PNG or JPEG image from the file's leading bytes; false when
// the bytes are neither or end before the size.
bool imageSizeFromHeader(const std::string& bytes, ImageSize& size);

}  // namespace tessaline::memory
