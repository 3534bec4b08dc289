# The viewer serves the prefix-wide trace pipe: under the trace viewer's lock.
kvt_add_test(tracetail_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/tracetail_test.cpp TIMEOUT 120)
add_dependencies(tracetail_test tracetail KorvantaCloudUS)
set_tests_properties(tracetail_test PROPERTIES RESOURCE_LOCK trace_viewer)
