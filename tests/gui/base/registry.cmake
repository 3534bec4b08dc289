kvt_add_test(registry_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/registry_test.cpp)
