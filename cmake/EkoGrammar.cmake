# SPDX-License-Identifier: MIT
# eko_add_grammar(TARGET FILE.y)  turns a grammar into a parser that runs on eko_yyparse, and adds it to the target:
# FILE.tab.c is compiled with it, as C, and its sources can include "FILE.tab.h". Needs bison 3.8; its warnings are
# errors. For this project, and those that have it by add_subdirectory or find_package. How to write grammars: eko.m4.

find_package(BISON 3.8 QUIET)
set(EKO_BISON_SKELETON ${CMAKE_CURRENT_LIST_DIR}/../tools/bison/eko.m4
    CACHE INTERNAL "What makes bison write eko's tables")

# eko_run_bison(TARGET FILE STEM OPTION...)  has bison make STEM.c and STEM.h for the target.
function(eko_run_bison target file stem)
    find_package(BISON 3.8 QUIET) # callers outside of this project do not see what was found above
    if(NOT BISON_FOUND)
        message(FATAL_ERROR "${file} needs bison, 3.8 or newer. On Debian: apt-get install bison")
    endif()
    cmake_path(ABSOLUTE_PATH file BASE_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR})
    set(directory ${CMAKE_CURRENT_BINARY_DIR}/${target}-grammars)
    file(MAKE_DIRECTORY ${directory})
    add_custom_command(
        OUTPUT ${directory}/${stem}.c ${directory}/${stem}.h
        COMMAND ${BISON_EXECUTABLE} -Werror ${ARGN} --header=${stem}.h --output=${stem}.c ${file}
        WORKING_DIRECTORY ${directory}
        DEPENDS ${file} ${EKO_BISON_SKELETON}
        COMMENT "Making the parser ${stem}.c"
        VERBATIM)
    target_sources(${target} PRIVATE ${directory}/${stem}.c ${directory}/${stem}.h)
    cmake_path(GET file PARENT_PATH beside) # what code in the grammar includes
    target_include_directories(${target} PRIVATE ${directory} ${beside})
endfunction()

function(eko_add_grammar target file)
    cmake_path(GET file STEM LAST_ONLY stem)
    cmake_path(ABSOLUTE_PATH EKO_BISON_SKELETON OUTPUT_VARIABLE skeleton NORMALIZE)
    eko_run_bison(${target} ${file} ${stem}.tab --skeleton=${skeleton})
endfunction()
