#include <exception>
#include <iostream>

#include "CommandLine.h"
#include "Commands.h"
#include "RefineRequest.h"
#include "RefineRun.h"
#include "ToolError.h"

namespace tessaline::frontend {

namespace {

constexpr const char* kDescription =
    "Refine MESH against the photographs of a scene and write it as OUT (.ply: binary PLY, .obj, .glb: binary "
    "glTF). The scene is a scene file (its image paths relative to its folder) or, with --colmap and --images, a "
    "COLMAP model imported on the fly. Before any photograph is loaded, the memory the run needs is estimated "
    "and the run stops when it cannot fit. Coordinates are shifted back by the scene folder's offset.txt when "
    "the import wrote one.";

}  // namespace

int runRefineCommand(int argc, char** argv) {
    CLI::App app{kDescription};
    RefineRequest request;
    SettingOverrides overrides;
    std::string device = "auto";
    addRefineOptions(app, request, overrides, device);
    if (const auto status = cli::parse(app, argc, argv)) return *status;
    if (const std::string problem = completeRefineRequest(request, overrides, device); !problem.empty())
        return cli::refuse(problem);
    try {
        return runRefine(request);
    } catch (const tessaline_tools::ReportedFailure&) {
        return cli::kFailure;
    } catch (const std::exception& e) {
        // The import's errors, and library exceptions (OpenCV, out of memory).
        return cli::fail(e.what());
    }
}

}  // namespace tessaline::frontend
