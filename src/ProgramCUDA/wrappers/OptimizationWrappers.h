// Templated host wrappers of the refinement engine.
#pragma once

#include "wrappers/IntegratedOptimization.h"
#include "wrappers/NccWrappers.h"
