# The service's package and policy template, as administrators deploy them.

# The template checked against the schema's rules; its policies for package_test.
add_test(NAME admx_check
         COMMAND python3 ${CMAKE_CURRENT_LIST_DIR}/check_admx.py --self-test
                 ${CMAKE_SOURCE_DIR}/policy/Korvanta.admx
                 ${CMAKE_SOURCE_DIR}/policy/en-US/Korvanta.adml
                 --policies ${CMAKE_BINARY_DIR}/fixtures/policies.json)
set_tests_properties(admx_check PROPERTIES FIXTURES_SETUP admx_policies TIMEOUT 60)

add_test(NAME package_fixtures
         COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/make-packages.sh ${CMAKE_BINARY_DIR}/fixtures
                 $<TARGET_FILE:KorvantaCloudUS> ${KVT_SERVICE_VERSION})
set_tests_properties(package_fixtures PROPERTIES FIXTURES_REQUIRED packages
                                                 FIXTURES_SETUP service_packages TIMEOUT 300)

# Install, push, policy, removal and upgrade in a prefix of its own, made fresh.
add_executable(package_test ${CMAKE_CURRENT_LIST_DIR}/package_test.cpp)
target_link_libraries(package_test PRIVATE testsupport GTest::gtest_main nlohmann_json_headers
                                           winupdate msi kvt_strict)
add_dependencies(package_test KorvantaCloudUS_msi pushupdate)
add_test(NAME package_test
         COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/fresh-prefix.sh ${CMAKE_BINARY_DIR}/package-prefix
                 ${CMAKE_BINARY_DIR}/wine-run $<TARGET_FILE:package_test>)
set_tests_properties(package_test PROPERTIES
                     FIXTURES_REQUIRED "packages;service_packages;admx_policies" TIMEOUT 400
                     ENVIRONMENT "${KVT_TEST_ENVIRONMENT}"
                     FAIL_REGULAR_EXPRESSION "Unhandled (page fault|exception)")
