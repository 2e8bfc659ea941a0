# The front end's libraries that the Python package links too, included by
# tools/tessaline and by python/ (which builds without the companion
# programs).
include_guard(GLOBAL)
find_package(OpenCV REQUIRED COMPONENTS core imgproc imgcodecs)
find_package(TBB REQUIRED)
find_package(TinyGLTF REQUIRED)  # Debian's libtinygltf-dev: the glTF 2.0 writer

# The mesh writers (.ply, .obj, .glb) and the offset file's reader.
add_library(tessaline_meshwriters STATIC ${CMAKE_CURRENT_LIST_DIR}/CoordinateOffset.cpp
                                         ${CMAKE_CURRENT_LIST_DIR}/MeshWriters.cpp)
target_include_directories(tessaline_meshwriters PUBLIC ${CMAKE_CURRENT_LIST_DIR} ${CMAKE_SOURCE_DIR}/include)
target_link_libraries(tessaline_meshwriters PRIVATE TinyGLTF::TinyGLTF)
set_target_properties(tessaline_meshwriters PROPERTIES POSITION_INDEPENDENT_CODE ON)

# The memory estimate of a run, from image headers, cameras and the mesh,
# and the shape of a run it is worked out from.
add_library(tessaline_memoryestimate STATIC ${CMAKE_CURRENT_LIST_DIR}/ImageHeader.cpp
                                            ${CMAKE_CURRENT_LIST_DIR}/MemoryEstimate.cpp
                                            ${CMAKE_CURRENT_LIST_DIR}/RunShape.cpp)
target_include_directories(tessaline_memoryestimate PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(tessaline_memoryestimate PUBLIC tessaline_camera PRIVATE TBB::tbb ${OpenCV_LIBS})
set_target_properties(tessaline_memoryestimate PROPERTIES POSITION_INDEPENDENT_CODE ON)
