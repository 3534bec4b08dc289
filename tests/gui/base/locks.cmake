kvt_add_test(locks_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/locks_test.cpp TIMEOUT 120)
# The trace map is common to the prefix: under the trace viewer's lock.
kvt_add_test(trace_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/trace_test.cpp TIMEOUT 120)
set_tests_properties(trace_test PROPERTIES RESOURCE_LOCK trace_viewer)
