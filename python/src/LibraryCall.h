// Library calls made on behalf of Python: one at a time, with the Python
// lock released while they run and their printed lines captured, and the
// Python exceptions that report their failures.
#pragma once

#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <nanobind/nanobind.h>

#include "OutputCapture.h"

// Raised in Python as tessaline.DeviceError: the device failed, or the
// backend asked for is not there.
struct DeviceFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Standard output is redirected for a whole call, so two calls must not run
// at once: every captured call holds this lock.
std::mutex& libraryCallLock();

// Runs `call(capture)` with the Python lock released, the library lock held
// and standard output captured; returns the captured lines. `call` must not
// touch Python objects (a callback takes the Python lock itself). C++
// exceptions leave it as they came.
template <class Call>
std::vector<std::string> runCaptured(Call&& call) {
    nanobind::gil_scoped_release released;
    std::lock_guard<std::mutex> lock(libraryCallLock());
    OutputCapture capture;
    call(capture);
    return capture.finish();
}

// Raises MemoryError with `message` (needs the Python lock).
[[noreturn]] void raiseMemoryError(const std::string& message);

// A device module failure: MemoryError when its lines say that memory ran
// out, DeviceError otherwise.
[[noreturn]] void raiseDeviceFailure(const std::string& message);

// Registers tessaline._core.DeviceError.
void bindErrors(nanobind::module_& m);
