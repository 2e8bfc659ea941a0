// The command-line parse of the companion programs: --help prints the usage,
// a bad command line prints one "Error: " line and a hint.
#pragma once

#include <iostream>

#include <CLI/CLI.hpp>

namespace tessaline {

// Returns -1 when the program should go on, otherwise its exit status
// (0 after --help, 2 after a bad command line).
inline int parseCommandLine(CLI::App& app, int argc, char** argv) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::cout << app.help();
        return 0;
    } catch (const CLI::ParseError& e) {
        std::cout << "Error: " << e.what() << "\n" << "Run with --help for the options." << std::endl;
        return 2;
    }
    return -1;
}

}  // namespace tessaline
