// tessaline_tools: companion program of the refiner. `import` brings a COLMAP
// model, its photographs and a mesh into the refiner's files; `render` draws a
// mesh from a scene camera to judge a run.
#pragma once

namespace tessaline_tools {

// The whole program; returns its exit status (see CommandLine.h).
int runToolsCommand(int argc, char** argv);

}  // namespace tessaline_tools
