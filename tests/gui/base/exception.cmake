kvt_add_test(exception_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/exception_test.cpp TIMEOUT 120)

# The same tests, the library under them included, at the release optimisation
# level: the guard must hold whatever the optimiser keeps in registers.
separate_arguments(KVT_RELEASE_FLAGS UNIX_COMMAND "${CMAKE_CXX_FLAGS_RELEASE}")
get_target_property(KVT_QELBASE_SOURCES qelbase SOURCES)
get_target_property(KVT_QELBASE_LIBS qelbase INTERFACE_LINK_LIBRARIES)
add_library(qelbase_release STATIC ${KVT_QELBASE_SOURCES})
target_include_directories(qelbase_release PUBLIC ${PROJECT_SOURCE_DIR}/gui/base/include)
target_compile_options(qelbase_release PRIVATE ${KVT_RELEASE_FLAGS})
target_link_libraries(qelbase_release PRIVATE kvt_strict PUBLIC ${KVT_QELBASE_LIBS})
add_executable(exception_release_test ${CMAKE_CURRENT_LIST_DIR}/exception_test.cpp
                                      ${CMAKE_CURRENT_LIST_DIR}/../../support/testsupport.cpp)
target_include_directories(exception_release_test PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../../support)
target_compile_options(exception_release_test PRIVATE ${KVT_RELEASE_FLAGS})
target_link_libraries(exception_release_test PRIVATE qelbase_release GTest::gtest kvt_strict)
add_test(NAME exception_release_test COMMAND exception_release_test)
set_tests_properties(exception_release_test PROPERTIES FIXTURES_REQUIRED wineprefix TIMEOUT 120
                                                       ENVIRONMENT "${KVT_TEST_ENVIRONMENT}"
                                                       FAIL_REGULAR_EXPRESSION "Unhandled (page fault|exception)")
