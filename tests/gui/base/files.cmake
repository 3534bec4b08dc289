kvt_add_test(files_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/files_test.cpp)
