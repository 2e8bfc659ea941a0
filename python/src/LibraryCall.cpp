#include "LibraryCall.h"

namespace nb = nanobind;

std::mutex& libraryCallLock() {
    static std::mutex lock;
    return lock;
}

void raiseMemoryError(const std::string& message) {
    PyErr_SetString(PyExc_MemoryError, message.c_str());
    throw nb::python_error();
}

void raiseDeviceFailure(const std::string& message) {
    if (message.find("out of memory") != std::string::npos || message.find("out of host memory") != std::string::npos)
        raiseMemoryError(message);
    throw DeviceFailure(message);
}

void bindErrors(nb::module_& m) {
    nb::exception<DeviceFailure>(m, "DeviceError", PyExc_RuntimeError);
}
