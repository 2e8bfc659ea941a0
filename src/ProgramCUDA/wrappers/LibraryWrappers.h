// Templated host wrappers of the dormant device library.
#pragma once

#include "wrappers/PlaneSweepWrappers.h"
#include "wrappers/PrintfBracket.h"
#include "wrappers/PrintfWrappers.h"
#include "wrappers/SingleStepWrappers.h"
