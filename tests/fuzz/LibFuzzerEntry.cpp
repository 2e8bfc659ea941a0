// libFuzzer's entry for one fuzz target, named at compile time by
// TESSALINE_FUZZ_TARGET. A broken promise aborts, so that libFuzzer reports
// the input and keeps it as a crash.
#include <cstdio>
#include <cstdlib>

#include "FuzzTargets.h"

#ifndef TESSALINE_FUZZ_TARGET
#error "TESSALINE_FUZZ_TARGET must name the target function"
#endif

namespace tessaline_fuzz {

void reportBrokenPromise(const std::string& what) {
    std::fprintf(stderr, "broken promise of the reader: %s\n", what.c_str());
    std::abort();
}

}  // namespace tessaline_fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    tessaline_fuzz::TESSALINE_FUZZ_TARGET(data, size);
    return 0;
}
