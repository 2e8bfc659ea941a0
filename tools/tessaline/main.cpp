#include "Commands.h"

int main(int argc, char** argv) { return tessaline::frontend::runTessaline(argc, argv); }
