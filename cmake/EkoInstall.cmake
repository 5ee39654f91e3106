# SPDX-License-Identifier: MIT
# What is installed, and where: headers, both libraries, what CMake's find_package and pkg-config read, the gdb script,
# the skeleton for bison and the licence. Component runtime is what programs run with, development what they are
# built with.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(EKO_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/eko) # a directory of our own: base.h is a common name
set(EKO_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/eko)
set(EKO_INSTALL_PCDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(EKO_INSTALL_DATADIR ${CMAKE_INSTALL_DATADIR}/eko)

if(PROJECT_IS_TOP_LEVEL)
    include(EkoUninstall) # first, it looks at what is there before
endif()

set_target_properties(eko_static PROPERTIES EXPORT_NAME static)
install(TARGETS eko eko_static EXPORT ekoTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    INCLUDES DESTINATION ${EKO_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${EKO_INSTALL_INCLUDEDIR} COMPONENT development
    FILES_MATCHING PATTERN *.h)
install(FILES ${PROJECT_SOURCE_DIR}/tools/bison/eko.m4 DESTINATION ${EKO_INSTALL_DATADIR} COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)

# ---- CMake --------------------------------------------------------------------------------------------------

set(config ${CMAKE_CURRENT_BINARY_DIR}/install)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/install/ekoConfig.cmake.in ${config}/ekoConfig.cmake
    INSTALL_DESTINATION ${EKO_INSTALL_CMAKEDIR}
    PATH_VARS EKO_INSTALL_DATADIR)
write_basic_package_version_file(${config}/ekoConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(EXPORT ekoTargets NAMESPACE eko:: DESTINATION ${EKO_INSTALL_CMAKEDIR} COMPONENT development)
install(FILES ${config}/ekoConfig.cmake ${config}/ekoConfigVersion.cmake ${CMAKE_CURRENT_LIST_DIR}/EkoGrammar.cmake
    DESTINATION ${EKO_INSTALL_CMAKEDIR} COMPONENT development)

# ---- pkg-config ---------------------------------------------------------------------------------------------

# The prefix is told from where the file is, so that it may be moved with all the rest.
set(pc_prefix ${CMAKE_INSTALL_PREFIX})
if(NOT IS_ABSOLUTE "${EKO_INSTALL_PCDIR}")
    cmake_path(ABSOLUTE_PATH EKO_INSTALL_PCDIR BASE_DIRECTORY /prefix OUTPUT_VARIABLE from)
    set(pc_root /prefix)
    cmake_path(RELATIVE_PATH pc_root BASE_DIRECTORY ${from})
    set(pc_prefix "\${pcfiledir}/${pc_root}")
endif()
foreach(name IN ITEMS LIBDIR INCLUDEDIR)
    set(pc_${name} ${CMAKE_INSTALL_${name}})
    cmake_path(ABSOLUTE_PATH pc_${name} BASE_DIRECTORY "\${prefix}")
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/install/eko.pc.in ${config}/eko.pc @ONLY)
install(FILES ${config}/eko.pc DESTINATION ${EKO_INSTALL_PCDIR} COMPONENT development)

# ---- gdb ----------------------------------------------------------------------------------------------------

# gdb looks below its own data directory for a script with the path of the library. An archive cannot know that path,
# and has it where gdb looks then, beside the library.
set(script_of_library ${CMAKE_INSTALL_FULL_LIBDIR})
cmake_path(IS_ABSOLUTE CMAKE_INSTALL_LIBDIR fixed)
if(NOT fixed)
    set(script_of_library "\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}")
endif()
install(CODE "
set(eko_gdb_directory \"${CMAKE_INSTALL_DATADIR}/gdb/auto-load${script_of_library}\")
if(CMAKE_INSTALL_PREFIX MATCHES /_CPack_Packages/)
    set(eko_gdb_directory \"${CMAKE_INSTALL_LIBDIR}\")
endif()" COMPONENT development)
install(FILES $<TARGET_FILE:eko>-gdb.py DESTINATION "\${eko_gdb_directory}" COMPONENT development)
