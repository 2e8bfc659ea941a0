// Failures of the companion program. Readers and writers throw ToolError with
// a message meant for the user; the sub-command entry catches it, prints
// "Error: " and the message, and stops with a non-zero status.
#pragma once

#include <stdexcept>
#include <string>

namespace tessaline_tools {

struct ToolError : std::runtime_error {
    explicit ToolError(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace tessaline_tools
