kvt_add_test(json_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/json_test.cpp)
