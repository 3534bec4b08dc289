kvt_add_test(report_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/report_test.cpp TIMEOUT 120)
# The event-log check below runs the service executable.
add_dependencies(report_test KorvantaCloudUS)

# The trace pipe and the shared header word are common to the whole prefix: the
# tests of them run as an entry of their own, under a lock that the other users
# of the trace output (the debugger-output check below) take too.
set_property(TEST report_test APPEND PROPERTY ENVIRONMENT "GTEST_FILTER=-SharedTrace.*")
add_test(NAME report_trace_test COMMAND report_test --gtest_filter=SharedTrace.*)
set_tests_properties(report_trace_test PROPERTIES FIXTURES_REQUIRED wineprefix TIMEOUT 120
                                                  ENVIRONMENT "${KVT_TEST_ENVIRONMENT}"
                                                  RESOURCE_LOCK trace_viewer)

# What Wine's event log shows of the service's failure at a console start, and
# the unknown-LOGTYPE report on the debugger output.
add_test(NAME eventlog_channel
         COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/../../clients/services/winupdate/eventlog_channel.sh
                 ${CMAKE_BINARY_DIR}/wine-run $<TARGET_FILE:KorvantaCloudUS>)
set_tests_properties(eventlog_channel PROPERTIES FIXTURES_REQUIRED wineprefix TIMEOUT 120
                                                 RESOURCE_LOCK trace_viewer)
