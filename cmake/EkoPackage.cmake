# SPDX-License-Identifier: MIT
# cpack -G DEB makes libeko12, what programs run with, and libeko-dev, what they are built with; cpack -G TGZ makes one
# archive of all. The presets package and package-i386 build for them, with Debian's prefix and so its directories.

set(CPACK_PACKAGE_NAME eko)
set(CPACK_PACKAGE_VENDOR "the eko authors")
set(CPACK_PACKAGE_CONTACT "the eko authors <eko@example.org>")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
if(CMAKE_LIBRARY_ARCHITECTURE)
    set(CPACK_SYSTEM_NAME ${CMAKE_LIBRARY_ARCHITECTURE}) # in the archive's name
endif()
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/package/options.cmake)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# ---- Debian ---------------------------------------------------------------------------------------------------

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
if(CMAKE_SIZEOF_VOID_P EQUAL 4 AND CMAKE_SYSTEM_PROCESSOR MATCHES "86")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
endif()
set(multi_arch "")
if(CMAKE_LIBRARY_ARCHITECTURE AND CMAKE_INSTALL_LIBDIR MATCHES "${CMAKE_LIBRARY_ARCHITECTURE}")
    set(multi_arch "\nMulti-Arch: same") # CMake knows no such field before 3.31
endif()

set(runtime libeko${PROJECT_VERSION_MAJOR})
set(summary "platform library of a database engine")
set(about "Threads and locks, memory that is owned by tags, formatted text, files,
streams, parsers and logs, behind one C interface.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION "libs${multi_arch}")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${summary}
${about}")
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/install/triggers CONTENT "activate-noawait ldconfig\n")
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/install/shlibs CONTENT "libeko ${PROJECT_VERSION_MAJOR} ${runtime} (>= ${PROJECT_VERSION})\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${PROJECT_BINARY_DIR}/install/triggers ${PROJECT_BINARY_DIR}/install/shlibs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libeko-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION "libdevel${multi_arch}")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${runtime} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}), libc6-dev | libc-dev")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "bison, gdb, pkg-config")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "${summary}, development files
${about}
.
This package has what programs that use it are built with.")

include(CPack)
