# The fuzz targets' sources, shared by the fuzzers (tests/fuzz, clang) and by
# the replay test of the ordinary build (tests/CMakeLists.txt).
set(TESSALINE_FUZZ_TARGET_SOURCES
  ${CMAKE_SOURCE_DIR}/tests/fuzz/targets/ColmapModelTarget.cpp
  ${CMAKE_SOURCE_DIR}/tests/fuzz/targets/MeshReaderTarget.cpp
  ${CMAKE_SOURCE_DIR}/tests/fuzz/targets/RefinerPlyTarget.cpp
  ${CMAKE_SOURCE_DIR}/tests/fuzz/targets/SfmSceneTarget.cpp)
