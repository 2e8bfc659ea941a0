// The run context that the documented environment variables ask for, and the
// warning lines of values that cannot be used.
#include <gtest/gtest.h>

#include <tbb/info.h>

#include <map>
#include <string>
#include <vector>

#include "RunEnvironment.h"

namespace {

RunContext contextOf(const std::map<std::string, std::string>& variables, std::vector<std::string>& warnings) {
    warnings.clear();
    return runContextFromVariables(
        [&](const char* name) {
            const auto it = variables.find(name);
            return it == variables.end() ? static_cast<const char*>(nullptr) : it->second.c_str();
        },
        warnings);
}

TEST(RunEnvironment, UnsetVariablesGiveTheDefaultContext) {
    std::vector<std::string> warnings;
    const RunContext c = contextOf({}, warnings);
    EXPECT_EQ(c.schedule, OptimizationSchedule::Fast);
    EXPECT_TRUE(c.graphs);
    EXPECT_FALSE(c.profile);
    EXPECT_EQ(c.threads, 0);
    EXPECT_FALSE(c.cpuOnly);
    EXPECT_EQ(c.processes.size, 1);
    EXPECT_TRUE(warnings.empty());
}

TEST(RunEnvironment, EachVariableSetsItsField) {
    std::vector<std::string> warnings;
    const RunContext c = contextOf({{"TESSALINE_SCHEDULE", "reference"},
                                    {"TESSALINE_GRAPHS", "0"},
                                    {"TESSALINE_PROFILE", "1"},
                                    {"TESSALINE_THREADS", "4096"},
                                    {"TESSALINE_BACKEND", "cpu"}},
                                   warnings);
    EXPECT_EQ(c.schedule, OptimizationSchedule::Reference);
    EXPECT_FALSE(c.graphs);
    EXPECT_TRUE(c.profile);
    EXPECT_EQ(c.threads, 4096);
    EXPECT_TRUE(c.cpuOnly);
    EXPECT_TRUE(warnings.empty());
    // Values that leave the defaults without a word.
    const RunContext d = contextOf({{"TESSALINE_SCHEDULE", "fast"},
                                    {"TESSALINE_GRAPHS", "1"},
                                    {"TESSALINE_PROFILE", "0"},
                                    {"TESSALINE_THREADS", "1"},
                                    {"TESSALINE_BACKEND", "cuda"}},
                                   warnings);
    EXPECT_EQ(d.schedule, OptimizationSchedule::Fast);
    EXPECT_TRUE(d.graphs);
    EXPECT_FALSE(d.profile);
    EXPECT_EQ(d.threads, 1);
    EXPECT_FALSE(d.cpuOnly);
    EXPECT_TRUE(warnings.empty());
    EXPECT_FALSE(contextOf({{"TESSALINE_PROFILE", ""}}, warnings).profile);
}

TEST(RunEnvironment, UnusableValuesWarnAndKeepTheDefault) {
    std::vector<std::string> warnings;
    const std::string cores = std::to_string(tbb::info::default_concurrency());
    for (const char* bad : {"0", "-2", "", "abc", "3x", "4097", "99999999999999999999"}) {
        EXPECT_EQ(contextOf({{"TESSALINE_THREADS", bad}}, warnings).threads, 0) << bad;
        ASSERT_EQ(warnings.size(), 1u) << bad;
        EXPECT_EQ(warnings[0], "Warning: TESSALINE_THREADS=" + std::string(bad) +
                                   " is not a whole number from 1 to 4096; " + cores + " threads are used");
    }
    EXPECT_EQ(contextOf({{"TESSALINE_SCHEDULE", "quick"}}, warnings).schedule, OptimizationSchedule::Fast);
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0], "Warning: TESSALINE_SCHEDULE=quick is neither reference nor fast; the fast schedule runs");
}

}  // namespace
