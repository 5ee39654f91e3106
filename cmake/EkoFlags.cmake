# SPDX-License-Identifier: MIT
# How eko is compiled: the language, the flags of all its code, the flags of the library itself, the warnings.

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES AND PROJECT_IS_TOP_LEVEL)
    set_property(CACHE CMAKE_BUILD_TYPE PROPERTY VALUE RelWithDebInfo)
endif()

set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)

# Nothing gets the C++ run-time just because it holds or links eko's objects. C++ programs still have it, from
# the compiler that links them.
set(CMAKE_CXX_IMPLICIT_LINK_LIBRARIES "")
set(CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES "")

# Two builds of the same tree, wherever they are made, are the same to the byte.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
set(CMAKE_CXX_ARCHIVE_CREATE "<CMAKE_AR> qcD <TARGET> <LINK_FLAGS> <OBJECTS>")
set(CMAKE_CXX_ARCHIVE_FINISH "<CMAKE_RANLIB> -D <TARGET>")

# Sanitizers watch all code of the build, the test framework included. clang's check of function types needs the C++
# run-time, which the library does not have.
if(EKO_SANITIZE)
    add_compile_options(-fsanitize=${EKO_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
        $<$<CXX_COMPILER_ID:Clang>:-fno-sanitize=function>)
    add_link_options(-fsanitize=${EKO_SANITIZE})
endif()

# ---- all of eko's own code, tests and examples included ---------------------------------------------------

add_library(eko_own_code INTERFACE)
target_compile_definitions(eko_own_code INTERFACE _GNU_SOURCE)
target_compile_options(eko_own_code INTERFACE
    # __FILE__ is the path in the tree, wherever the tree is, or begins with "build" for what is made.
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -ffile-prefix-map=${CMAKE_BINARY_DIR}=build
    -ffp-contract=off
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
    $<$<BOOL:${EKO_WERROR}>:-Werror>)
if(EKO_CHECKED)
    target_compile_definitions(eko_own_code INTERFACE EKO_CHECKED=1)
endif()

# Among the sanitizers' additions gcc loses track of what is set. The other builds keep this warning.
if(EKO_SANITIZE)
    target_compile_options(eko_own_code INTERFACE $<$<C_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
endif()

# In a 32-bit build plain doubles are computed as in a 64-bit one. What wants extended precision says so with
# long double.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    target_compile_options(eko_own_code INTERFACE -msse2 -mfpmath=sse)
endif()

# The formatter's loop over literal text takes 20 % longer when it comes to lie across a line of 32 bytes of code.
set(formatter source/eko/eko_format.cpp source/eko/eko_vsnprintf.cpp source/eko/eko_vsnwprintf.cpp)
set_property(SOURCE ${formatter} APPEND PROPERTY COMPILE_OPTIONS -falign-functions=32)

# ---- hardening --------------------------------------------------------------------------------------------

# Of the library, in builds that are meant to be used. Sanitizers see more, and dislike the fortified functions.
option(EKO_HARDENING "Harden the library in builds of Release, RelWithDebInfo and MinSizeRel" ON)
add_library(eko_hardening INTERFACE)
if(EKO_HARDENING AND NOT EKO_SANITIZE)
    set(hardened $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
    file(GLOB allocators CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/source/eko/eko_*_allocator.cpp)
    list(APPEND allocators source/eko/ekomem.cpp source/eko/eko_large_block.cpp)
    # Level 3 of the fortified functions costs %g and %d 3 % of their instructions, level 2 nothing.
    target_compile_options(eko_hardening INTERFACE
        $<${hardened}:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong -fstack-clash-protection
        -fcf-protection>)
    target_link_options(eko_hardening INTERFACE
        $<${hardened}:LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack LINKER:-z,separate-code>)

    # The guard of the stack would cost the formatter 4 to 7 % of its instructions, a traced line 5 %, and a tag with
    # ten blocks 3 % of its time. The allocators have no arrays on the stack.
    set_property(SOURCE ${formatter} ${allocators} source/eko/ekotrace.cpp APPEND PROPERTY
        COMPILE_OPTIONS -fno-stack-protector)
    # Logs hand the caller's format to vfprintf while the library is not started. A fortified one aborts at %n.
    set_property(SOURCE source/eko/eko_log.cpp APPEND PROPERTY COMPILE_OPTIONS -U_FORTIFY_SOURCE)
endif()

# ---- the library ------------------------------------------------------------------------------------------

# No exceptions, but unwind tables: ending a thread unwinds its frames. The library's calls of its own functions are
# bound when it is linked, so nothing is lost by compiling them without regard to another definition elsewhere.
add_library(eko_library_code INTERFACE)
target_compile_options(eko_library_code INTERFACE
    -fvisibility=hidden
    -fasynchronous-unwind-tables
    -fno-semantic-interposition
    $<$<CXX_COMPILER_ID:GNU>:-fno-ipa-icf> # functions that come out alike keep their debug information, for abi/
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>)
