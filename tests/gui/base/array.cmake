kvt_add_test(array_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/array_test.cpp TIMEOUT 120 HEAP_TOO)
