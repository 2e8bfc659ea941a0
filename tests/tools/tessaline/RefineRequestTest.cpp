// The refine command line's numbers land over the preset they name, and
// only where given.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "RefineRequest.h"
#include "RefinementPresets.h"

namespace {

using namespace tessaline::frontend;

// Parses `args` (after "refine") into a completed request; "" or the reason
// it was refused.
std::string parse(std::vector<std::string> args, RefineRequest& request) {
    CLI::App app;
    SettingOverrides overrides;
    std::string device = "auto";
    addRefineOptions(app, request, overrides, device);
    std::vector<const char*> argv{"refine"};
    for (const std::string& a : args) argv.push_back(a.c_str());
    app.parse(int(argv.size()), const_cast<char**>(argv.data()));
    return completeRefineRequest(request, overrides, device);
}

TEST(RefineRequestNumbers, OptionsOverridePresetFieldsAndLeaveTheRest) {
    RefineRequest quality;
    ASSERT_EQ(parse({"s.sfm", "m.ply", "o.glb"}, quality), "");
    const RefinementSettings preset = qualityRefinementSettings();
    EXPECT_TRUE(quality.settings.adaptive.enabled);
    EXPECT_EQ(quality.settings.levels[0].iterations, preset.levels[0].iterations);
    EXPECT_EQ(quality.settings.selection.min_pixels, preset.selection.min_pixels);

    RefineRequest tuned;
    ASSERT_EQ(parse({"s.sfm", "m.ply", "o.ply", "--preset", "reference", "--iterations-level0", "7",
                     "--photometric-step", "20", "--selection-pixels", "30", "--max-move", "0.5",
                     "--settled-move", "0.1", "--settled-share", "0.25"},
                    tuned),
              "");
    const RefinementSettings reference;
    EXPECT_FALSE(tuned.settings.adaptive.enabled);  // the numbers alone do not turn the rule on
    EXPECT_EQ(tuned.settings.levels[0].iterations, 7);
    EXPECT_EQ(tuned.settings.levels[1].iterations, reference.levels[1].iterations);
    EXPECT_EQ(tuned.settings.steps.photometric, 20.0f);
    EXPECT_EQ(tuned.settings.steps.first_order, reference.steps.first_order);
    EXPECT_EQ(tuned.settings.selection.min_pixels, 30);
    EXPECT_EQ(tuned.settings.adaptive.max_move, 0.5f);
    EXPECT_EQ(tuned.settings.adaptive.settled_move, 0.1f);
    EXPECT_EQ(tuned.settings.adaptive.settled_share, 0.25f);

    RefineRequest unknown;
    EXPECT_NE(parse({"s.sfm", "m.ply", "o.ply", "--preset", "fast"}, unknown), "");
}

}  // namespace
