// The readers' fuzz targets: each takes one input's bytes, hands them to a
// reader in memory and checks what the reader promises of its result (see
// each target's file). A broken promise goes to reportBrokenPromise; an
// input the reader refuses in order comes back as Outcome::Refused.
#pragma once

#include <cstddef>
#include <cstdint>

#include "FuzzCheck.h"

namespace tessaline_fuzz {

Outcome fuzzSfmScene(const uint8_t* data, size_t size);      // the refiner's scene file
Outcome fuzzRefinerPly(const uint8_t* data, size_t size);    // the refiner's PLY reader
Outcome fuzzMeshReader(const uint8_t* data, size_t size);    // the importer's PLY and OBJ reader
Outcome fuzzColmapText(const uint8_t* data, size_t size);    // a COLMAP text model
Outcome fuzzColmapBinary(const uint8_t* data, size_t size);  // a COLMAP binary model

}  // namespace tessaline_fuzz
