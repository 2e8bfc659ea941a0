# The command-line parse shared by the companion programs (CommandLine.h,
# header only, on CLI11). Each tool's CMakeLists.txt includes this file and
# links tessaline_commandline. CLI11's imported target is visible only in the
# folder that found it, so every includer looks for it.
find_package(CLI11 REQUIRED)
include_guard(GLOBAL)
add_library(tessaline_commandline INTERFACE)
target_include_directories(tessaline_commandline INTERFACE ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(tessaline_commandline INTERFACE CLI11::CLI11 tessaline_runcontext)
