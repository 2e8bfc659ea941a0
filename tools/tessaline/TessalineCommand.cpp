#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "MeshCompare.h"
#include "PhotoConsistency.h"
#include "PlaneSweepCommand.h"
#include "SynthScene.h"
#include "ToolsCommand.h"

#ifndef TESSALINE_VERSION
#define TESSALINE_VERSION "unknown"
#endif

namespace tessaline::frontend {

namespace {

struct SubCommand {
    const char* name;
    const char* summary;
    int (*run)(int argc, char** argv);
    bool keepsName;                     // takes "tessaline NAME ..." whole, NAME as its own sub-command
};

int runTools(int argc, char** argv) { return tessaline_tools::runToolsCommand(argc, argv); }

const std::vector<SubCommand>& subCommands() {
    static const std::vector<SubCommand> table = {
        {"import", "COLMAP model, photographs and mesh to a scene file and mesh", runTools, true},
        {"refine", "refine a mesh against the photographs (scene file or COLMAP model)", runRefineCommand, false},
        {"export", "convert a mesh to .ply, .obj or .glb, with an imported scene's offset", runExportCommand, false},
        {"render", "draw a mesh from a camera over its photograph", runTools, true},
        {"compare", "accuracy and completeness of a mesh against a reference", compare::runCompareCommand, false},
        {"synth", "generate a synthetic scene with known ground truth", synth::runSynthCommand, false},
        {"planesweep", "depth map of one camera by a plane sweep", planesweep_tool::runPlaneSweepCommand, false},
        {"photoconsistency", "photo-consistency of a mesh with the photographs", photo::runPhotoConsistencyCommand,
         false},
    };
    return table;
}

void printUsage() {
    std::cout << "tessaline: refines a triangle mesh against calibrated photographs.\n"
              << "Usage: tessaline SUB-COMMAND [ARGUMENTS] (tessaline SUB-COMMAND --help for its own)\n\n"
              << "Sub-commands:\n";
    for (const SubCommand& c : subCommands()) {
        std::string name = c.name;
        name.resize(18, ' ');
        std::cout << "  " << name << c.summary << "\n";
    }
    std::cout << "\nOptions:\n  -h,--help         this text\n  --version         the program's version\n"
              << std::flush;
}

// Runs `command` with argv[0] "tessaline NAME", or "tessaline" followed by
// NAME for a command that takes its name as its own sub-command, so that
// the usage names the program the user ran.
int runSubCommand(const SubCommand& command, int argc, char** argv) {
    std::string program = "tessaline", name = std::string("tessaline ") + command.name;
    std::vector<char*> args{command.keepsName ? program.data() : name.data()};
    for (int k = command.keepsName ? 1 : 2; k < argc; ++k) args.push_back(argv[k]);
    args.push_back(nullptr);
    return command.run(int(args.size()) - 1, args.data());
}

}  // namespace

int runTessaline(int argc, char** argv) {
    if (argc < 2) return cli::refuse("name a sub-command");
    const std::string first = argv[1];
    if (first == "-h" || first == "--help") {
        printUsage();
        return cli::kSuccess;
    }
    if (first == "--version") {
        std::cout << "tessaline " << TESSALINE_VERSION << std::endl;
        return cli::kSuccess;
    }
    for (const SubCommand& command : subCommands())
        if (first == command.name) return runSubCommand(command, argc, argv);
    return cli::refuse("unknown sub-command '" + first + "'");
}

}  // namespace tessaline::frontend
