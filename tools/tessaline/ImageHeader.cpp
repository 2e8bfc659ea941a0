#include "ImageHeader.h"

#include <cstdint>
#include <fstream>

#include <opencv2/imgcodecs.hpp>

namespace tessaline::memory {

namespace {

uint32_t bigEndian(const std::string& b, size_t at, int bytes) {
    uint32_t value = 0;
    for (int k = 0; k < bytes; ++k) value = (value << 8) | uint8_t(b[at + size_t(k)]);
    return value;
}

bool pngSize(const std::string& b, ImageSize& size) {
    static const char kMagic[] = "\x89PNG\r\n\x1a\n";
    if (b.size() < 24 || b.compare(0, 8, kMagic, 8) != 0 || b.compare(12, 4, "IHDR") != 0) return false;
    size.width = int(bigEndian(b, 16, 4) & 0x7fffffffu);
    size.height = int(bigEndian(b, 20, 4) & 0x7fffffffu);
    return true;
}

// A start-of-frame marker: C0 to CF except DHT (C4), JPG (C8) and DAC (CC).
bool isStartOfFrame(uint8_t marker) {
    return marker >= 0xc0 && marker <= 0xcf && marker != 0xc4 && marker != 0xc8 && marker != 0xcc;
}

bool jpegSize(const std::string& b, ImageSize& size) {
    if (b.size() < 4 || uint8_t(b[0]) != 0xff || uint8_t(b[1]) != 0xd8) return false;
    size_t at = 2;
    while (at + 4 <= b.size()) {
        if (uint8_t(b[at]) != 0xff) return false;
        const uint8_t marker = uint8_t(b[at + 1]);
        if (marker == 0xff) {  // fill byte
            ++at;
            continue;
        }
        const size_t length = bigEndian(b, at + 2, 2);
        if (isStartOfFrame(marker)) {
            if (at + 9 > b.size()) return false;
            size.height = int(bigEndian(b, at + 5, 2));
            size.width = int(bigEndian(b, at + 7, 2));
            return true;
        }
        if (length < 2) return false;
        at += 2 + length;
    }
    return false;
}

}  // namespace

bool imageSizeFromHeader(const std::string& bytes, ImageSize& size) {
    return pngSize(bytes, size) || jpegSize(bytes, size);
}

bool readImageSize(const std::string& path, ImageSize& size) {
    // A JPEG's frame header follows its metadata, which may hold a preview
    // image; 256 KiB covers what cameras write.
    constexpr size_t kHeaderBytes = 256 * 1024;
    std::ifstream in(path, std::ios::binary);
    if (!in.is_open()) return false;
    std::string bytes(kHeaderBytes, '\0');
    in.read(bytes.data(), std::streamsize(bytes.size()));
    bytes.resize(size_t(in.gcount()));
    if (imageSizeFromHeader(bytes, size)) return size.width > 0 && size.height > 0;
    try {
        const cv::Mat image = cv::imread(path, cv::IMREAD_GRAYSCALE);
        size.width = image.cols;
        size.height = image.rows;
    } catch (const cv::Exception&) {
        return false;
    }
    return size.width > 0 && size.height > 0;
}

}  // namespace tessaline::memory
