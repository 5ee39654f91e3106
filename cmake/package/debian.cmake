# SPDX-License-Identifier: MIT
# Run by cpack when the files of both Debian packages are laid out: adds what every package has, finds out what the
# library depends on, and compresses and strips as Debian does.

set(root ${CPACK_TEMPORARY_DIRECTORY})
set(run_checked COMMAND_ERROR_IS_FATAL ANY)
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
string(TIMESTAMP year "%Y" UTC)
file(READ ${CPACK_RESOURCE_FILE_LICENSE} license)
set(changelog "eko (${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=medium

  * changelog.gz tells what has changed.

 -- ${CPACK_PACKAGE_CONTACT}  ${date}
")

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} variable)
    set(share ${root}/${component}/usr/share)
    set(doc ${share}/doc/${CPACK_DEBIAN_${variable}_PACKAGE_NAME})
    if(EXISTS ${share}/doc/eko)
        file(RENAME ${share}/doc/eko ${doc})
        file(REMOVE ${doc}/LICENSE)
    endif()
    file(MAKE_DIRECTORY ${doc})
    file(WRITE ${doc}/copyright "eko is copyright ${year} by the eko authors.\n\n${license}")
    configure_file(${CMAKE_CURRENT_LIST_DIR}/../../CHANGELOG.md ${doc}/changelog COPYONLY)
    file(WRITE ${doc}/changelog.Debian "${changelog}")
    file(GLOB_RECURSE manual ${share}/man/*.[1-9])
    execute_process(COMMAND gzip -9n ${doc}/changelog ${doc}/changelog.Debian ${manual} ${run_checked})
endforeach()

file(GLOB_RECURSE library LIST_DIRECTORIES FALSE ${root}/runtime/usr/lib/*.so.*.*)
file(GLOB_RECURSE archive ${root}/development/usr/lib/*.a)
set(strip strip --remove-section=.comment --remove-section=.note)
execute_process(COMMAND ${strip} --strip-unneeded ${library} ${run_checked})
execute_process(COMMAND ${strip} --strip-debug --enable-deterministic-archives ${archive} ${run_checked})

# dpkg-shlibdeps wants to be in a source package. On a 64-bit machine the 32-bit libraries may be those that come with
# the compiler.
file(WRITE ${CPACK_TOPLEVEL_DIRECTORY}/source/debian/control "")
execute_process(COMMAND dpkg-shlibdeps -O ${library}
    WORKING_DIRECTORY ${CPACK_TOPLEVEL_DIRECTORY}/source OUTPUT_VARIABLE depends ${run_checked})
string(REGEX REPLACE "shlibs:Depends=([^\n]*)\n" "\\1" depends "${depends}")
string(REPLACE "libc6-i386" "libc6" depends "${depends}")
string(REPLACE "lib32gcc-s1" "libgcc-s1" depends "${depends}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${depends}")
