# Tools for the demonstration and for tests (not part of the product).
add_executable(kvt_svcctl ${CMAKE_CURRENT_LIST_DIR}/svcctl.cpp)
target_link_options(kvt_svcctl PRIVATE -municode)
target_link_libraries(kvt_svcctl PRIVATE kvt_strict)

add_executable(kvt_trustca ${CMAKE_CURRENT_LIST_DIR}/trustca.cpp)
target_link_options(kvt_trustca PRIVATE -municode)
target_link_libraries(kvt_trustca PRIVATE qelbase kvt_strict)
