# The event side of the daemon: queues and relays. Included by tests/CMakeLists.txt.
foreach(name queue_listener_test relays_test)
    vexprod_add_test(${name} SOURCES "${CMAKE_CURRENT_LIST_DIR}/${name}.cpp" DEPS vexprod::daemon vexprod::test_support)
endforeach()
