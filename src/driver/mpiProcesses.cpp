// The processes of an MPI job. Sums are MPI_Allreduce over the job's
// communicator, in pieces of at most 2^30 values; an MPI error aborts the
// whole job (the default), so no process waits for one that has gone.
#include <mpi.h>

#include <algorithm>
#include <cstdint>

#include "processStart.h"

namespace {

bool sumOverJob(uint64_t* values, size_t count) {
    constexpr size_t kPiece = size_t(1) << 30;
    for (size_t start = 0; start < count; start += kPiece) {
        const int n = int(std::min(kPiece, count - start));
        if (MPI_Allreduce(MPI_IN_PLACE, values + start, n, MPI_UINT64_T, MPI_SUM, MPI_COMM_WORLD) != MPI_SUCCESS)
            return false;
    }
    return true;
}

}  // namespace

ProcessStart startProcesses(int& argc, char**& argv) {
    ProcessStart start;
    int initialised = 0;
    MPI_Initialized(&initialised);
    if (!initialised) MPI_Init(&argc, &argv);
    MPI_Comm_rank(MPI_COMM_WORLD, &start.group.rank);
    MPI_Comm_size(MPI_COMM_WORLD, &start.group.size);
    if (start.group.size > 1) start.group.sumIntegers = sumOverJob;
    MPI_Comm local;
    MPI_Comm_split_type(MPI_COMM_WORLD, MPI_COMM_TYPE_SHARED, start.group.rank, MPI_INFO_NULL, &local);
    MPI_Comm_rank(local, &start.localRank);
    MPI_Comm_size(local, &start.localSize);
    MPI_Comm_free(&local);
    return start;
}

void abortProcesses(int status) { MPI_Abort(MPI_COMM_WORLD, status); }

void endProcesses() {
    int finalised = 0;
    MPI_Finalized(&finalised);
    if (!finalised) MPI_Finalize();
}
