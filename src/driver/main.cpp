#include "processStart.h"
#include "runFlow.h"

int main(int argc, char** argv) {
    const ProcessStart processes = startProcesses(argc, argv);
    const int status = runTessalineRefine(argc, argv, processes);
    endProcesses();
    return status;
}
