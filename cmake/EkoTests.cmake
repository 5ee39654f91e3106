# SPDX-License-Identifier: MIT
# The test framework, and eko_add_test, which makes one test program of one file.

include(GoogleTest)

# Debian ships the framework as source, which suits every word size and sanitizer.
set(EKO_GOOGLETEST_DIR /usr/src/googletest CACHE PATH "The test framework's source")
if(NOT EXISTS ${EKO_GOOGLETEST_DIR}/CMakeLists.txt)
    message(FATAL_ERROR "EKO_BUILD_TESTS needs GoogleTest's source in ${EKO_GOOGLETEST_DIR}. On Debian: "
        "apt-get install googletest")
endif()
set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
add_subdirectory(${EKO_GOOGLETEST_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)

# A deadlock is a failed test.
if(EKO_SANITIZE MATCHES "thread")
    set(EKO_TEST_TIMEOUT 300)
else()
    set(EKO_TEST_TIMEOUT 60)
endif()

# eko_tagged_lines(RESULT FILE TAG)  what stands behind "// TAG: " in the lines of FILE.
function(eko_tagged_lines result file tag)
    file(STRINGS ${file} lines REGEX "^// ${tag}: ")
    list(TRANSFORM lines REPLACE "^// ${tag}: " "")
    set(${result} ${lines} PARENT_SCOPE)
endfunction()

# eko_add_test(FILE)  makes a program of FILE, linked with the static library so that it reaches the private
# headers' functions, and has CTest run each of its tests in a process of its own. A line such as
#       // LINK: --wrap=malloc --wrap=free
# in the file, or in a header of support/ that it includes, gives options to the linker. Lines such as
#       // GRAMMAR: grammars/calc.y
#       // REFERENCE: grammars/calc.y
# make parsers of a grammar: eko's, and bison's own to compare it with, whose names begin with ref_.
function(eko_add_test file)
    cmake_path(GET file STEM LAST_ONLY name)
    add_executable(${name} ${file})
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests ${PROJECT_SOURCE_DIR}/source/eko)
    target_compile_options(${name} PRIVATE -fno-exceptions)
    target_link_libraries(${name} PRIVATE eko_own_code GTest::gtest_main)
    if(TARGET eko_test_support)
        target_link_libraries(${name} PRIVATE eko_test_support)
    endif()
    target_link_libraries(${name} PRIVATE eko_static)

    file(STRINGS ${file} included REGEX "^#include \"support/")
    list(TRANSFORM included REPLACE "^#include \"(.*)\"" "${PROJECT_SOURCE_DIR}/tests/\\1")
    foreach(source IN LISTS file included)
        set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
        eko_tagged_lines(link_lines ${source} LINK)
        foreach(line IN LISTS link_lines)
            separate_arguments(options UNIX_COMMAND "${line}")
            list(TRANSFORM options PREPEND "LINKER:")
            target_link_options(${name} PRIVATE ${options})
        endforeach()
    endforeach()

    eko_tagged_lines(grammars ${file} GRAMMAR)
    foreach(grammar IN LISTS grammars)
        eko_add_grammar(${name} ${grammar})
    endforeach()
    eko_tagged_lines(grammars ${file} REFERENCE)
    foreach(grammar IN LISTS grammars)
        cmake_path(GET grammar STEM LAST_ONLY stem)
        eko_run_bison(${name} ${grammar} ${stem}.ref -F "api.prefix={ref_}" -D api.pure=full -D parse.lac=full
            -D parse.error=custom)
        set_source_files_properties(${CMAKE_CURRENT_BINARY_DIR}/${name}-grammars/${stem}.ref.c PROPERTIES
            COMPILE_OPTIONS -w) # what bison writes has other habits
    endforeach()

    string(REGEX REPLACE "_test$" "" prefix ${name})
    gtest_discover_tests(${name}
        TEST_PREFIX "${prefix}/"
        DISCOVERY_MODE PRE_TEST
        DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT ${EKO_TEST_TIMEOUT})
endfunction()
