#include "runFlow.h"

int main(int argc, char** argv) { return runTessalineRefine(argc, argv); }
