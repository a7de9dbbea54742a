# Functions that declare tests; tests/ and examples/ use them.
include(GoogleTest)
find_package(GTest REQUIRED)
find_package(rapidcheck REQUIRED CONFIG)
find_package(Python3 REQUIRED COMPONENTS Interpreter)

# The library's objects with their hidden symbols, for tests of private parts.
add_library(vntq-private STATIC EXCLUDE_FROM_ALL $<TARGET_OBJECTS:VantorqFoundation>)
target_include_directories(vntq-private PUBLIC include)
target_link_libraries(vntq-private PUBLIC ICU::i18n ICU::uc Threads::Threads)

# What tests of several folders share: objects, because some tests link the library's hidden symbols.
add_library(vntq-test-support OBJECT
    ${PROJECT_SOURCE_DIR}/tests/Support/Operations.cpp)
target_include_directories(vntq-test-support PUBLIC
    ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/tests)
vntq_set_warnings(vntq-test-support)

# vntq_add_googletests(<target> LABEL <label> SOURCES <file>... [LIBRARIES <library>...]
#                      [PROPERTIES <name> <value>...])
# One executable; every GoogleTest case in it is a test of its own, named <label>.<suite>.<case>.
function(vntq_add_googletests target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "LABEL" "SOURCES;LIBRARIES;PROPERTIES")
    add_executable(${target} ${arg_SOURCES} $<TARGET_OBJECTS:vntq-test-support>)
    target_include_directories(${target} PRIVATE
        ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/tests)
    target_link_libraries(${target} PRIVATE
        ${arg_LIBRARIES} GTest::gmock GTest::gtest_main rapidcheck)
    vntq_set_warnings(${target})
    gtest_discover_tests(${target}
        TEST_PREFIX "${arg_LABEL}."
        DISCOVERY_MODE PRE_TEST
        DISCOVERY_TIMEOUT 60
        PROPERTIES LABELS ${arg_LABEL} TIMEOUT 120 ${arg_PROPERTIES})
endfunction()

# vntq_add_script_test(<name> LABEL <label> COMMAND <command>...)
# A test that is a command of its own.
function(vntq_add_script_test name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "LABEL" "COMMAND")
    add_test(NAME ${arg_LABEL}.${name} COMMAND ${arg_COMMAND})
    set_tests_properties(${arg_LABEL}.${name} PROPERTIES LABELS ${arg_LABEL} TIMEOUT 300)
endfunction()
