#include "runFlow.h"
int runTessalineRefine(int, char**) { return 0; }
