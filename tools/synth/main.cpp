#include "SynthScene.h"

int main(int argc, char** argv) { return tessaline::synth::runSynthCommand(argc, argv); }
