// Named sets of refinement numbers for the front end and the Python package.
// "reference" is the tool's own schedule (RefinementSettings' defaults, what
// tessaline_refine always runs); "quality" is the front end's default.
#pragma once

#include <string>
#include <vector>

#include "RefinementSettings.h"

inline const char* const kDefaultRefinementPreset = "quality";

// The quality preset: the adaptive descent with its default numbers
// (RefinementSettings.h), facets divided from half the pixels, and room for
// six times the finest level's iterations and twice the middle one's;
// levels mostly end earlier, when the vertices settle.
inline RefinementSettings qualityRefinementSettings() {
    RefinementSettings settings;
    settings.levels[0].iterations = 60;
    settings.levels[1].iterations = 50;
    settings.selection.min_pixels = 25;
    settings.adaptive.enabled = true;
    return settings;
}

inline const std::vector<std::string>& refinementPresetNames() {
    static const std::vector<std::string> names{"reference", "quality"};
    return names;
}

// Fills `settings` with the preset called `name`; false, with `settings`
// untouched, for a name that is not a preset.
inline bool refinementPreset(const std::string& name, RefinementSettings& settings) {
    if (name == "reference") {
        settings = RefinementSettings();
        return true;
    }
    if (name == "quality") {
        settings = qualityRefinementSettings();
        return true;
    }
    return false;
}
