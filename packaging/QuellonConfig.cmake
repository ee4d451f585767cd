# find_package(Quellon) defines the targets Quellon::Quellon and Quellon::Tarvik.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
include(${CMAKE_CURRENT_LIST_DIR}/QuellonTargets.cmake)
