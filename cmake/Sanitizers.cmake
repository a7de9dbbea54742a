# VNTQ_SANITIZE and VNTQ_FUZZ instrument everything in the tree, tests included, because the
# sanitizers report reliably only when the whole program is built with them.
if((VNTQ_SANITIZE OR VNTQ_FUZZ) AND NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "VNTQ_SANITIZE and VNTQ_FUZZ need Clang (-DCMAKE_CXX_COMPILER=clang++-19)")
endif()

if(VNTQ_SANITIZE)
    # Every finding ends the process, so that no test passes with one.
    add_compile_options(
        -fsanitize=${VNTQ_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${VNTQ_SANITIZE})
endif()

if(VNTQ_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()
