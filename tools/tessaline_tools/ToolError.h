// Failures of the companion program. Readers and writers throw ToolError with
// a message meant for the user; the sub-command entry catches it, prints
// "Error: " and the message, and stops with the failure status.
#pragma once

#include <stdexcept>
#include <string>

namespace tessaline_tools {

struct ToolError : std::runtime_error {
    explicit ToolError(const std::string& message) : std::runtime_error(message) {}
};

// A failure that has printed its "Error: " line already (the device module
// reports its own refusals and failures): the entry stops with the failure
// status and prints nothing more.
struct ReportedFailure : ToolError {
    using ToolError::ToolError;
};

}  // namespace tessaline_tools
