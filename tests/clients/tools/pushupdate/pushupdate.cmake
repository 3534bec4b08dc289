# The push tool as a child process; the test plays the service by creating its
# global push event, so it must not run beside a real service.
kvt_add_test(pushupdate_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/pushupdate_test.cpp SERIAL TIMEOUT 300)
add_dependencies(pushupdate_test pushupdate)
