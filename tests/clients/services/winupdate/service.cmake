# The service host under the real service manager.
add_executable(kvt_counting_service ${CMAKE_CURRENT_LIST_DIR}/counting_service.cpp)
target_link_libraries(kvt_counting_service PRIVATE winupdate kvt_strict)

kvt_add_test(service_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/service_test.cpp
             LIBS winupdate SERIAL TIMEOUT 300)
add_dependencies(service_test kvt_counting_service KorvantaCloudUS)

kvt_add_test(entry_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/entry_test.cpp
             LIBS winupdate SERIAL TIMEOUT 300)
add_dependencies(entry_test KorvantaCloudUS)

kvt_add_test(servicestep_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/servicestep_test.cpp
             LIBS winupdate SERIAL PACKAGES TIMEOUT 300)

kvt_add_test(e2e_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/e2e_test.cpp SERIAL PACKAGES TIMEOUT 400)
add_dependencies(e2e_test KorvantaCloudUS pushupdate)
