// The command line of the companion programs (tessaline_synth,
// tessaline_compare, tessaline_planesweep, tessaline_tools): one parse, one
// way of refusing, one set of exit statuses.
//
//   0  success, and after --help (the usage is printed on standard output)
//   1  a failure while running: an input that cannot be read or used, a
//      device call that failed, an output that cannot be written
//   2  a refused command line: a missing argument, an unknown option, a
//      malformed or out-of-range value, options that do not go together
//
// A refusal prints, on standard output, one "Error: " line with the reason
// followed by "Run with --help for the usage."; a failure prints its own
// "Error: " line (or the device module has printed it). No program writes an
// output file after either.
//
//   CLI::App app{"What the program does."};
//   app.add_option(...);
//   if (const auto status = tessaline::cli::parse(app, argc, argv)) return *status;
//   if (badCombination) return tessaline::cli::refuse("--a and --b exclude each other");
#pragma once

#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "RunEnvironment.h"

namespace tessaline::cli {

enum ExitStatus : int {
    kSuccess = 0,
    kFailure = 1,
    kRefused = 2,
};

inline constexpr const char* kUsageHint = "Run with --help for the usage.";

// Prints the refusal of a command line and returns kRefused.
inline int refuse(const std::string& reason) {
    std::cout << "Error: " << reason << "\n" << kUsageHint << std::endl;
    return kRefused;
}

// Prints "Error: " and `reason`, and returns kFailure.
inline int fail(const std::string& reason) {
    std::cout << "Error: " << reason << std::endl;
    return kFailure;
}

// Parses the command line into `app`. Returns nothing when the program should
// go on, otherwise its exit status: kSuccess after the help (of the
// sub-command named, where there is one) was printed, kRefused after a
// refusal.
inline std::optional<int> parse(CLI::App& app, int argc, const char* const* argv) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // --help (and CLI11's other requests that end a run without fault)
        // come as a ParseError with exit code 0.
        if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            app.exit(e, std::cout, std::cout);
            std::cout << std::flush;
            return kSuccess;
        }
        return refuse(e.what());
    }
    return std::nullopt;
}

// The run context that the environment asks for; its warnings are printed.
inline RunContext runContext() {
    std::vector<std::string> warnings;
    const RunContext context = runContextFromEnvironment(warnings);
    for (const std::string& warning : warnings) std::cout << warning << std::endl;
    return context;
}

}  // namespace tessaline::cli
