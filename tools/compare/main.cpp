#include "MeshCompare.h"

int main(int argc, char** argv) { return tessaline::compare::runCompareCommand(argc, argv); }
