# find_package(kservice): the targets kservice::kservice (shared) and kservice::static.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
include("${CMAKE_CURRENT_LIST_DIR}/kserviceTargets.cmake")
