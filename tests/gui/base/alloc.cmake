kvt_add_test(alloc_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/alloc_test.cpp TIMEOUT 300 HEAP_TOO)
