// tessaline._core: the C++ side of the Python package. The public API, its
// argument checks and its documentation live in tessaline/__init__.py.
#include <nanobind/nanobind.h>

#include "LibraryCall.h"

namespace nb = nanobind;

void bindMesh(nb::module_& m);
void bindScene(nb::module_& m);
void bindRefine(nb::module_& m);
void bindMemory(nb::module_& m);

NB_MODULE(_core, m) {
    bindErrors(m);
    bindMesh(m);
    bindScene(m);
    bindRefine(m);
    bindMemory(m);
}
