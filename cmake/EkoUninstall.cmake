# SPDX-License-Identifier: MIT
# An installation remembers its files, in share/eko/uninstall.cmake: running that script with cmake -P, or building the
# target uninstall, removes them and the directories that were made for them. Installing runs the script that is there,
# so that an older version leaves nothing behind. Packages are without it: they have package managers.

set(EKO_UNINSTALL_SCRIPT ${EKO_INSTALL_DATADIR}/uninstall.cmake)

# Directories that are not ours alone. Those that are there before an installation are there after its removal.
set(shared_directories ${CMAKE_INSTALL_LIBDIR} ${CMAKE_INSTALL_LIBDIR}/cmake ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    ${CMAKE_INSTALL_INCLUDEDIR} ${CMAKE_INSTALL_DATADIR} ${CMAKE_INSTALL_DOCDIR} ${CMAKE_INSTALL_MANDIR}/man3
    "${CMAKE_INSTALL_DATADIR}/gdb/auto-load\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}")
install(CODE "
set(eko_version \"${PROJECT_VERSION}\")
set(eko_build \"${PROJECT_BINARY_DIR}\")
set(eko_script \"${EKO_UNINSTALL_SCRIPT}\")
set(eko_shared_directories \"${shared_directories}\")
include(\"${CMAKE_CURRENT_LIST_DIR}/install/remember.cmake\")
eko_look_before()" ALL_COMPONENTS)

# eko_end_install()  stands behind all that is installed.
function(eko_end_install)
    install(CODE "eko_remember()" ALL_COMPONENTS)
endfunction()

add_custom_target(uninstall
    COMMAND ${CMAKE_COMMAND} -P ${PROJECT_BINARY_DIR}/uninstall.cmake
    COMMENT "Removing what was last installed from here"
    VERBATIM)
