#include "RunEnvironment.h"

#include <tbb/info.h>

#include <cstdlib>
#include <cstring>

namespace {

bool isSet(const char* value) { return value != nullptr; }

OptimizationSchedule scheduleFrom(const char* value, std::vector<std::string>& warnings) {
    if (!isSet(value) || std::strcmp(value, "fast") == 0) return OptimizationSchedule::Fast;
    if (std::strcmp(value, "reference") == 0) return OptimizationSchedule::Reference;
    warnings.push_back("Warning: TESSALINE_SCHEDULE=" + std::string(value) +
                       " is neither reference nor fast; the fast schedule runs");
    return OptimizationSchedule::Fast;
}

// A whole number from 1 to 4096, or 0 (every core) with a warning.
int threadsFrom(const char* value, std::vector<std::string>& warnings) {
    if (!isSet(value)) return 0;
    char* end = nullptr;
    const long wanted = std::strtol(value, &end, 10);
    if (end != value && *end == '\0' && wanted >= 1 && wanted <= 4096) return int(wanted);
    warnings.push_back("Warning: TESSALINE_THREADS=" + std::string(value) + " is not a whole number from 1 to 4096; " +
                       std::to_string(tbb::info::default_concurrency()) + " threads are used");
    return 0;
}

}  // namespace

RunContext runContextFromVariables(const EnvironmentLookup& lookup, std::vector<std::string>& warnings) {
    RunContext context;
    context.schedule = scheduleFrom(lookup("TESSALINE_SCHEDULE"), warnings);
    const char* graphs = lookup("TESSALINE_GRAPHS");
    context.graphs = !(isSet(graphs) && std::strcmp(graphs, "0") == 0);
    const char* profile = lookup("TESSALINE_PROFILE");
    context.profile = isSet(profile) && *profile != '\0' && std::strcmp(profile, "0") != 0;
    context.threads = threadsFrom(lookup("TESSALINE_THREADS"), warnings);
    const char* backend = lookup("TESSALINE_BACKEND");
    context.cpuOnly = isSet(backend) && std::strcmp(backend, "cpu") == 0;
    return context;
}

RunContext runContextFromEnvironment(std::vector<std::string>& warnings) {
    return runContextFromVariables([](const char* name) { return static_cast<const char*>(std::getenv(name)); },
                                   warnings);
}
