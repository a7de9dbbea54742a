# Functions for the CMakeLists.txt of a folder under examples/. The tests carry the label `example`
# and exist only when the tests are built.

# vntq_add_example(<name>)
# The program <name>, made of the *.cpp files of the current folder. tests/*Tests.cpp beside them
# become its GoogleTest cases, linked with all of the program but its main.cpp.
function(vntq_add_example name)
    file(GLOB sources CONFIGURE_DEPENDS *.cpp)
    file(GLOB test_sources CONFIGURE_DEPENDS tests/*Tests.cpp)
    list(REMOVE_ITEM sources ${CMAKE_CURRENT_SOURCE_DIR}/main.cpp)

    add_executable(${name} main.cpp ${sources})
    target_link_libraries(${name} PRIVATE VantorqFoundation::VantorqFoundation)
    vntq_set_warnings(${name})

    if(VNTQ_BUILD_TESTS AND test_sources)
        vntq_add_googletests(${name}-tests
            LABEL example
            SOURCES ${test_sources} ${sources}
            LIBRARIES VantorqFoundation::VantorqFoundation)
        target_include_directories(${name}-tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
    endif()
endfunction()

# vntq_add_example_run(<test name> <command>...)
# A run of a program as a user would start it; $<TARGET_FILE:name> stands for the program.
function(vntq_add_example_run name)
    if(VNTQ_BUILD_TESTS)
        vntq_add_script_test(${name} LABEL example COMMAND ${ARGN})
    endif()
endfunction()
