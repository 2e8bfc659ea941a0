#include "Commands.h"
#include "Job.h"

// Joins an MPI job only when a launcher started several processes, so that
// a plain start never waits on MPI.
int main(int argc, char** argv) {
    using namespace tessaline::frontend;
    if (launchedProcesses() <= 1) return runTessaline(argc, argv);
    setJobProcesses(startProcesses(argc, argv));
    const int status = runTessaline(argc, argv);
    endProcesses();
    return status;
}
