# The warnings that all of our own code is compiled with.
function(vntq_set_warnings target)
    target_compile_options(${target} PRIVATE
        -Wall
        -Wextra
        -Wpedantic
        -Wcast-align
        -Wcast-qual
        -Wconversion
        -Wextra-semi
        -Wformat=2
        -Wnon-virtual-dtor
        -Wold-style-cast
        -Woverloaded-virtual
        -Wshadow
        -Wsign-conversion
        -Wundef
        -Wvla)
    if(VNTQ_WARNINGS_AS_ERRORS)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
        # GCC 12 reports overlapping copies inside std::string concatenation where there are none.
        target_compile_options(${target} PRIVATE -Wno-restrict)
    endif()
    if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        # Of libstdc++ 12: its stable_sort calls a function that it declares deprecated itself.
        target_compile_options(${target} PRIVATE -Wno-deprecated-declarations)
    endif()
endfunction()

# Clang names, at the line where it stands, what the test of the built library finds only afterwards:
# code that would run when the library is loaded.
function(vntq_forbid_load_time_code target)
    if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        target_compile_options(${target} PRIVATE -Wglobal-constructors)
    endif()
endfunction()
