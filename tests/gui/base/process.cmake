kvt_add_test(process_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/process_test.cpp TIMEOUT 120)
