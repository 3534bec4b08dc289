kvt_add_test(str_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/str_test.cpp TIMEOUT 120)

# Measuring a UTF-16 source of over 4 GiB (one small section mapped side by side)
# to reach the arithmetic-overflow error takes about ten seconds under Wine: it
# runs as an entry of its own, beside the rest rather than after it.
# StrReportChild runs only as a child process of StrReports.
set_property(TEST str_test APPEND PROPERTY ENVIRONMENT
                                            "GTEST_FILTER=-ConversionOverflow.*:StrReportChild.*")
add_test(NAME str_overflow_test COMMAND str_test --gtest_filter=ConversionOverflow.*)
set_tests_properties(str_overflow_test PROPERTIES FIXTURES_REQUIRED wineprefix TIMEOUT 300
                                                  ENVIRONMENT "${KVT_TEST_ENVIRONMENT}")
