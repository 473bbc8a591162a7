# A host for programs of another processor. Its own programs are this machine's all the same: they need no emulator, and
# what they do on a test's behalf, such as namespaces, an emulator does not know.
include(ExternalProject)
set(programs hostlauncher hosttool post_event)
list(TRANSFORM programs PREPEND "<BINARY_DIR>/bin/" OUTPUT_VARIABLE built_programs)
ExternalProject_Add(hostsim_programs
    PREFIX "${CMAKE_BINARY_DIR}/hostsim-programs"
    SOURCE_DIR "${PROJECT_SOURCE_DIR}"
    CMAKE_ARGS -DCMAKE_BUILD_TYPE=${CMAKE_BUILD_TYPE} -DBUILD_TESTING=OFF -DVEXPROD_BENCH=OFF
               -DVEXPROD_HOSTSIM=ON
    BUILD_COMMAND "${CMAKE_COMMAND}" --build <BINARY_DIR> --target ${programs}
    BUILD_ALWAYS ON
    # Where hostsim/enter looks for them.
    INSTALL_COMMAND "${CMAKE_COMMAND}" -E copy_if_different ${built_programs} "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}"
    COMMAND "${CMAKE_COMMAND}" -E copy_if_different <BINARY_DIR>/hostsim-tools.list "${CMAKE_BINARY_DIR}"
    EXCLUDE_FROM_ALL ON)
add_executable(post_event IMPORTED GLOBAL)
set_target_properties(post_event PROPERTIES IMPORTED_LOCATION "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/post_event")
add_dependencies(post_event hostsim_programs)

# The other processor's loader and libraries, laid over the root with all that is in hostsim-root: the programs find them
# in an empty environment too.
set(library_folder "lib/${CMAKE_LIBRARY_ARCHITECTURE}")
file(GLOB libraries "${CMAKE_SYSROOT}/${library_folder}/*.so.*" "${CMAKE_SYSROOT}/usr/${library_folder}/*.so.*")
file(COPY ${libraries} DESTINATION "${CMAKE_BINARY_DIR}/hostsim-root/usr/${library_folder}")
file(COPY "${CMAKE_SYSROOT}/lib/ld-linux-aarch64.so.1" DESTINATION "${CMAKE_BINARY_DIR}/hostsim-root/usr/lib")

add_custom_target(hostsim DEPENDS hostsim_programs libhcore_nasauth libhcore_config libhcore_NAS)
