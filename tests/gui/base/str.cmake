kvt_add_test(str_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/str_test.cpp TIMEOUT 120 HEAP_TOO)
