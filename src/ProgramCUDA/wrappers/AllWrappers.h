// Every templated host wrapper, for the backends' entry translation units.
#pragma once

#include "wrappers/ZBufferWrapper.h"
#include "wrappers/OptimizationWrappers.h"
#include "wrappers/LibraryWrappers.h"
