kvt_add_test(cache_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/cache_test.cpp TIMEOUT 120)
