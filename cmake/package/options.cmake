# SPDX-License-Identifier: MIT
# Read by cpack for each kind of package. An archive can be unpacked anywhere; Debian's packages tell in some paths and
# texts where they are.
if(CPACK_GENERATOR STREQUAL "DEB")
    set(CPACK_SET_DESTDIR ON)
    set(CPACK_INSTALL_PREFIX /usr)
    set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
endif()
