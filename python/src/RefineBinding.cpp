// tessaline._core.refine: the tool's level loop (runLevels) on a copy of the
// mesh, with the Python lock released while it runs. After every iteration
// the run takes the lock back briefly: a pending Ctrl-C (or any signal
// whose Python handler raises) stops it there, and the progress callback is
// called.
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include "LibraryCall.h"
#include "RefineOptions.h"
#include "RefinementPresets.h"
#include "runFlow.h"

namespace nb = nanobind;

namespace {

// What one refine call carries between the level loop and its callback.
struct RefineCall {
    nb::object progress;       // None or callable(level, iteration, iterations)
    std::vector<int> levels;   // the levels that run iterations, in order
    size_t optimisation = 0;   // index into `levels` of the running one
    bool started = false;
    OutputCapture* capture = nullptr;
    std::optional<nb::python_error> error;  // what stopped the run from Python
};

std::vector<int> iteratedLevels(const RefinementSettings& settings, int finestLevel) {
    std::vector<int> levels;
    for (int level = 2; level >= finestLevel; --level)
        if (settings.levels[level].iterations > 0) levels.push_back(level);
    return levels;
}

void flushPythonOutput() {
    nb::object out = nb::module_::import_("sys").attr("stdout");
    if (!out.is_none() && nb::hasattr(out, "flush")) out.attr("flush")();
}

// The run context's per-iteration hook: false stops the run.
bool afterIteration(RefineCall& call, long long done, long long total) {
    nb::gil_scoped_acquire gil;
    if (done == 1 && call.started) ++call.optimisation;
    call.started = true;
    call.capture->pause();
    try {
        if (PyErr_CheckSignals() != 0) throw nb::python_error();
        if (!call.progress.is_none() && call.optimisation < call.levels.size()) {
            call.progress(call.levels[call.optimisation], done, total);
            flushPythonOutput();
        }
    } catch (nb::python_error& e) {
        call.error.emplace(std::move(e));
    }
    call.capture->resume();
    return !call.error;
}

// The device for a request; runs under the library lock, since starting a
// CUDA device resets it.
DeviceHandle startDevice(const DeviceRequest& request, const RunContext& context) {
    if (request.kind == DeviceRequest::Cpu) return cpuDevice(context);
    if (request.kind == DeviceRequest::Auto) return setupDevice(0, context).device;
    checkCudaDevice(request);
    return setupDevice(request.index, context).device;
}

TriMesh refine(const SfmScene& scene, const TriMesh& mesh, int finestLevel, const std::string& preset,
               const std::string& device, nb::object progress, int threads) {
    checkInputs(scene, mesh, finestLevel);
    const RefinementSettings settings = presetSettings(preset);
    RefineCall call;
    call.progress = progress;
    call.levels = iteratedLevels(settings, finestLevel);
    RunContext context;
    context.threads = threads;
    context.onIteration = [&call](long long done, long long total) { return afterIteration(call, done, total); };
    const DeviceRequest request = parseDevice(device);
    TriMesh result = mesh;
    bool completed = false;
    std::exception_ptr thrown;
    const std::vector<std::string> lines = runCaptured([&](OutputCapture& capture) {
        call.capture = &capture;
        try {
            completed = runLevels(result, scene, finestLevel, startDevice(request, context), settings);
        } catch (...) {
            thrown = std::current_exception();
        }
    });
    if (call.error) throw *call.error;
    if (thrown) std::rethrow_exception(thrown);
    if (!completed) raiseDeviceFailure(failureMessage(lines));
    return result;
}

}  // namespace

void bindRefine(nb::module_& m) {
    m.def("refine", &refine, nb::arg("scene"), nb::arg("mesh"), nb::arg("finest_level"), nb::arg("preset"),
          nb::arg("device"), nb::arg("progress").none(), nb::arg("threads"));
    m.def("preset_names", &refinementPresetNames);
    m.def("default_preset", [] { return std::string(kDefaultRefinementPreset); });
    m.def("cuda_available", &cudaDeviceAvailable);
}
