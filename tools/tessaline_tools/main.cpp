#include "ToolsCommand.h"

int main(int argc, char** argv) { return tessaline_tools::runToolsCommand(argc, argv); }
