#include "PlaneSweepCommand.h"

int main(int argc, char** argv) { return planesweep_tool::runPlaneSweepCommand(argc, argv); }
