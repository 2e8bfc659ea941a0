# The importer's libraries, included by tools/tessaline_tools and by the
# Python package (which builds without the companion programs).
include_guard(GLOBAL)
find_package(OpenCV REQUIRED COMPONENTS core imgproc imgcodecs)

# COLMAP's lens models, without dependencies: the synthetic scene generator
# renders through them too.
add_library(tessaline_lens STATIC ${CMAKE_CURRENT_LIST_DIR}/LensModel.cpp)
target_include_directories(tessaline_lens PUBLIC ${CMAKE_CURRENT_LIST_DIR})

# The import of COLMAP models, photographs and meshes into a scene file.
add_library(tessaline_importer STATIC
  ${CMAKE_CURRENT_LIST_DIR}/AnyMesh.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ColmapModel.cpp
  ${CMAKE_CURRENT_LIST_DIR}/FileIO.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ImportPhotographs.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ImportScene.cpp
  ${CMAKE_CURRENT_LIST_DIR}/MeshReader.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SceneOffset.cpp)
target_include_directories(tessaline_importer PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(tessaline_importer PUBLIC tessaline_lens tessaline_scene ${OpenCV_LIBS})
