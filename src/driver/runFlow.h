// The tool's entry: command line, start-up, level loop, timing and saving.
#pragma once

// Runs the whole tool; returns the process exit status (0 when the arguments
// were refused or the run could not start, 1 at the end of a run).
int runTessalineRefine(int argc, char** argv);
