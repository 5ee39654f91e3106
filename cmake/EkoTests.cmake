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

# eko_add_test(FILE)  makes a program of FILE, linked with the static library so that it reaches the private
# headers' functions, and has CTest run each of its tests in a process of its own. A line such as
#       // LINK: --wrap=malloc --wrap=free
# in the file, or in a header of support/ that it includes, gives options to the linker.
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
        file(STRINGS ${source} link_lines REGEX "^// LINK: ")
        foreach(line IN LISTS link_lines)
            string(REGEX REPLACE "^// LINK: " "" options "${line}")
            separate_arguments(options UNIX_COMMAND "${options}")
            list(TRANSFORM options PREPEND "LINKER:")
            target_link_options(${name} PRIVATE ${options})
        endforeach()
    endforeach()

    string(REGEX REPLACE "_test$" "" prefix ${name})
    gtest_discover_tests(${name}
        TEST_PREFIX "${prefix}/"
        DISCOVERY_MODE PRE_TEST
        DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT ${EKO_TEST_TIMEOUT})
endfunction()
