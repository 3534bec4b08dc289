kvt_add_test(signature_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/signature_test.cpp LIBS winupdate PACKAGES)
