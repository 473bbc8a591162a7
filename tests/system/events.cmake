# Events and stopping, with the real daemon. Included by tests/CMakeLists.txt.
foreach(name events_system_test stop_system_test)
    vexprod_add_test(${name} SOURCES "${CMAKE_CURRENT_LIST_DIR}/${name}.cpp" DEPS vexprod::util vexprod::test_support TIMEOUT 600)
    target_compile_definitions(${name} PRIVATE VEXPROD_PROGRAM="$<TARGET_FILE:vexprod>")
    add_dependencies(${name} vexprod child_probe)
endforeach()
