// The sub-commands of `tessaline` that are its own (the others are the
// companion programs' commands). Each takes the command line with the
// sub-command's name as argv[0] and returns the exit status: 0 success,
// 1 failure, 2 refused command line (CommandLine.h).
#pragma once

namespace tessaline::frontend {

int runRefineCommand(int argc, char** argv);
int runExportCommand(int argc, char** argv);

// The whole program: `tessaline SUB-COMMAND ...`, `--help`, `--version`.
int runTessaline(int argc, char** argv);

}  // namespace tessaline::frontend
