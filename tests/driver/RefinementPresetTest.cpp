// The named presets: "reference" is the tool's schedule field for field, an
// unknown name changes nothing, and every listed name resolves.
#include <gtest/gtest.h>

#include <algorithm>

#include "RefinementPresets.h"

namespace {

void expectSameSettings(const RefinementSettings& a, const RefinementSettings& b) {
    for (int level = 0; level < 3; ++level) {
        EXPECT_EQ(a.levels[level].iterations, b.levels[level].iterations) << level;
        EXPECT_EQ(a.levels[level].first_order_smoothing, b.levels[level].first_order_smoothing) << level;
        EXPECT_EQ(a.levels[level].division_passes, b.levels[level].division_passes) << level;
    }
    EXPECT_EQ(a.steps.photometric, b.steps.photometric);
    EXPECT_EQ(a.steps.first_order, b.steps.first_order);
    EXPECT_EQ(a.steps.second_order, b.steps.second_order);
    EXPECT_EQ(a.ncc_half_window, b.ncc_half_window);
    EXPECT_EQ(a.selection.min_pixels, b.selection.min_pixels);
    EXPECT_EQ(a.selection.min_images, b.selection.min_images);
    EXPECT_EQ(a.pairs_per_camera, b.pairs_per_camera);
    EXPECT_EQ(a.adaptive.enabled, b.adaptive.enabled);
}

TEST(RefinementPresets, ReferenceIsTheToolsScheduleAndUnknownNamesChangeNothing) {
    RefinementSettings settings;
    ASSERT_TRUE(refinementPreset("quality", settings));
    EXPECT_TRUE(settings.adaptive.enabled);
    ASSERT_TRUE(refinementPreset("reference", settings));
    expectSameSettings(settings, RefinementSettings());
    // The tool's numbers themselves, so that a changed default shows here.
    EXPECT_EQ(settings.steps.photometric, 75.0f);
    EXPECT_EQ(settings.selection.min_pixels, 50);
    EXPECT_EQ(settings.levels[0].iterations, 10);
    EXPECT_FALSE(settings.adaptive.enabled);

    RefinementSettings untouched;
    untouched.selection.min_pixels = 7;
    for (const char* name : {"", "Quality", "fast"}) {
        EXPECT_FALSE(refinementPreset(name, untouched)) << name;
        EXPECT_EQ(untouched.selection.min_pixels, 7) << name;
    }
    const auto& names = refinementPresetNames();
    EXPECT_NE(std::find(names.begin(), names.end(), kDefaultRefinementPreset), names.end());
    for (const std::string& name : names) EXPECT_TRUE(refinementPreset(name, settings)) << name;
}

}  // namespace
