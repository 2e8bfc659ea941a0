// Named sets of refinement numbers for the front end and the Python package.
// "reference" is the tool's own schedule (RefinementSettings' defaults, what
// tessaline_refine always runs); "quality" is the front end's default.
#pragma once

#include <string>
#include <vector>

#include "RefinementSettings.h"

inline const char* const kDefaultRefinementPreset = "quality";

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
        settings = RefinementSettings();
        return true;
    }
    return false;
}
