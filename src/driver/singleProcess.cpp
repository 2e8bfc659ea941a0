// A build without MPI: every run is one process.
#include "processStart.h"

ProcessStart startProcesses(int&, char**&) { return ProcessStart(); }

void endProcesses() {}

void abortProcesses(int) {}
