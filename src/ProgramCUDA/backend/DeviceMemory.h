// Device resources that own themselves: a buffer or a texture allocates in
// its constructor and releases in its destructor, is moved but never copied,
// and so a call that stops early leaks nothing. They work on either backend
// through its primitives; the backend must outlive them. After a failure of
// the backend they hold nothing (null) and their transfers do nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "ImageView.h"
#include "TextureSampler.h"

namespace tessaline {

template <class T, class Backend>
class DeviceBuffer {
   public:
    DeviceBuffer() = default;
    DeviceBuffer(Backend& be, size_t count) : be_(&be), count_(count) {
        data_ = static_cast<T*>(be.allocateBytes(count * sizeof(T)));
    }
    // Allocates `count` elements and uploads them from `host` (when given).
    DeviceBuffer(Backend& be, const T* host, size_t count) : DeviceBuffer(be, count) {
        if (host) upload(host);
    }
    ~DeviceBuffer() { reset(); }
    DeviceBuffer(DeviceBuffer&& other) noexcept { take(other); }
    DeviceBuffer& operator=(DeviceBuffer&& other) noexcept {
        if (this != &other) {
            reset();
            take(other);
        }
        return *this;
    }
    DeviceBuffer(const DeviceBuffer&) = delete;
    DeviceBuffer& operator=(const DeviceBuffer&) = delete;

    T* get() const { return data_; }
    size_t size() const { return count_; }
    // The buffer seen as a width x height image (it must hold that many).
    ImageView<T> image(int width, int height) const { return ImageView<T>(data_, width, height); }
    void upload(const T* host) { be_->copyToDevice(data_, host, count_ * sizeof(T)); }
    void download(T* host) const { be_->copyToHost(host, data_, count_ * sizeof(T)); }
    void zero() { be_->zeroBytes(data_, count_ * sizeof(T)); }

   private:
    void reset() {
        if (data_) be_->freeBytes(data_);
        data_ = nullptr;
        count_ = 0;
    }
    void take(DeviceBuffer& other) {
        be_ = other.be_;
        data_ = std::exchange(other.data_, nullptr);
        count_ = std::exchange(other.count_, size_t(0));
    }

    Backend* be_ = nullptr;
    T* data_ = nullptr;
    size_t count_ = 0;
};

// A texture kind owned as a whole: `View` is what kernels hold
// (LayeredTexture or Texture2D); the backend makes and destroys it.
template <class View, class Backend>
class OwnedTexture {
   public:
    OwnedTexture() = default;
    OwnedTexture(Backend& be, View view) : be_(&be), view_(view) {}
    ~OwnedTexture() { reset(); }
    OwnedTexture(OwnedTexture&& other) noexcept : be_(other.be_), view_(std::exchange(other.view_, View())) {}
    OwnedTexture& operator=(OwnedTexture&& other) noexcept {
        if (this != &other) {
            reset();
            be_ = other.be_;
            view_ = std::exchange(other.view_, View());
        }
        return *this;
    }
    OwnedTexture(const OwnedTexture&) = delete;
    OwnedTexture& operator=(const OwnedTexture&) = delete;

    const View& view() const { return view_; }

   private:
    void reset() {
        if (be_) be_->destroyTexture(view_);
        view_ = View();
    }

    Backend* be_ = nullptr;
    View view_{};
};

// The image stack: `layers` images of width x height bytes, uploaded in one
// copy from a contiguous host block, behind one layered texture.
template <class Backend>
OwnedTexture<LayeredTexture, Backend> makeImageStack(Backend& be, const uint8_t* bytes, int width, int height,
                                                     int layers) {
    return OwnedTexture<LayeredTexture, Backend>(be, be.createLayeredTexture(bytes, width, height, layers));
}

// One image in an array of its own, behind a 2D texture.
template <class Backend>
OwnedTexture<Texture2D, Backend> makeImageTexture(Backend& be, const uint8_t* bytes, int width, int height) {
    return OwnedTexture<Texture2D, Backend>(be, be.createImageTexture(bytes, width, height));
}

// An 8-bit image in pitched linear memory (rows `pitch()` bytes apart) that
// kernels write directly and read through a 2D texture of the same memory.
template <class Backend>
class PitchedImage {
   public:
    PitchedImage(Backend& be, int width, int height) : be_(&be) {
        data_ = be.allocatePitched(width, height, pitch_);
        view_ = be.pitchedTexture(data_, width, height, pitch_);
    }
    ~PitchedImage() {
        be_->destroyPitchedTexture(view_);
        if (data_) be_->freeBytes(data_);
    }
    PitchedImage(const PitchedImage&) = delete;
    PitchedImage& operator=(const PitchedImage&) = delete;

    uint8_t* data() const { return data_; }
    size_t pitch() const { return pitch_; }
    const Texture2D& view() const { return view_; }

   private:
    Backend* be_;
    uint8_t* data_ = nullptr;
    size_t pitch_ = 0;
    Texture2D view_{};
};

}  // namespace tessaline
