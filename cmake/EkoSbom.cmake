# SPDX-License-Identifier: MIT
# The bill of materials, as SPDX 2.3 in JSON: the files that eko is made of with their checksums, and what the library
# is linked with. Installed beside the licence. Included, it makes the target eko_sbom; run as a script, it writes OUT
# for the FILES below SOURCE. There is no time of the machine and no path of it in there: created is SOURCE_DATE_EPOCH,
# or the time of the newest commit.

if(NOT CMAKE_SCRIPT_MODE_FILE)
    set(epoch "$ENV{SOURCE_DATE_EPOCH}")
    if(epoch STREQUAL "" AND EXISTS ${PROJECT_SOURCE_DIR}/.git)
        execute_process(COMMAND git log -1 --format=%ct WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
            OUTPUT_VARIABLE epoch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    endif()
    if(NOT epoch MATCHES "^[0-9]+$")
        set(epoch 0) # an archive of the sources, without its history
    endif()

    file(GLOB sbom_files LIST_DIRECTORIES false RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS
        LICENSE CMakeLists.txt cmake/* cmake/*/* include/*.h include/*/*.h
        source/eko/* tools/bison/* tools/gdb/*)
    list(FILTER sbom_files EXCLUDE REGEX "~$|/__pycache__/")
    list(SORT sbom_files)
    set(sbom ${PROJECT_BINARY_DIR}/eko.spdx.json)
    add_custom_command(
        OUTPUT ${sbom}
        COMMAND ${CMAKE_COMMAND} -E env SOURCE_DATE_EPOCH=${epoch} ${CMAKE_COMMAND} -D OUT=${sbom}
            -D VERSION=${PROJECT_VERSION} -D SOURCE=${PROJECT_SOURCE_DIR} -D "FILES=${sbom_files}"
            -P ${CMAKE_CURRENT_LIST_FILE}
        DEPENDS ${sbom_files}
        WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
        COMMENT "Writing the bill of materials"
        VERBATIM)
    add_custom_target(eko_sbom ALL DEPENDS ${sbom})
    install(FILES ${sbom} DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
    return()
endif()

# ---- the script -------------------------------------------------------------------------------------------

macro(related from how to)
    list(APPEND relationships "    {
      \"spdxElementId\": \"${from}\",
      \"relationshipType\": \"${how}\",
      \"relatedSpdxElement\": \"${to}\"
    }")
endmacro()

set(checksums "")
set(files "")
related(SPDXRef-DOCUMENT DESCRIBES SPDXRef-Package-eko)
foreach(file IN LISTS FILES)
    file(SHA1 ${SOURCE}/${file} sha1)
    file(SHA256 ${SOURCE}/${file} sha256)
    string(REGEX REPLACE "[^A-Za-z0-9.]" "-" id ${file})
    list(APPEND checksums ${sha1})
    list(APPEND files "    {
      \"SPDXID\": \"SPDXRef-File-${id}\",
      \"fileName\": \"./${file}\",
      \"checksums\": [
        {\"algorithm\": \"SHA1\", \"checksumValue\": \"${sha1}\"},
        {\"algorithm\": \"SHA256\", \"checksumValue\": \"${sha256}\"}
      ],
      \"licenseConcluded\": \"MIT\",
      \"copyrightText\": \"NOASSERTION\"
    }")
    related(SPDXRef-Package-eko CONTAINS SPDXRef-File-${id})
endforeach()
list(JOIN files ",\n" files)

list(SORT checksums)
list(JOIN checksums "" checksums)
string(SHA1 verification "${checksums}") # as the format wants it: of all sums, in their order
string(TIMESTAMP created "%Y-%m-%dT%H:%M:%SZ" UTC)
string(UUID document NAMESPACE 6ba7b811-9dad-11d1-80b4-00c04fd430c8 NAME "eko ${VERSION} ${verification} ${created}"
    TYPE SHA1)

# linked(NAME LICENSE)  a package that the library is linked with, and that it brings not along.
function(linked name license)
    set(packages "${packages},
    {
      \"SPDXID\": \"SPDXRef-Package-${name}\",
      \"name\": \"${name}\",
      \"downloadLocation\": \"NOASSERTION\",
      \"filesAnalyzed\": false,
      \"licenseConcluded\": \"NOASSERTION\",
      \"licenseDeclared\": \"${license}\",
      \"copyrightText\": \"NOASSERTION\"
    }" PARENT_SCOPE)
endfunction()
set(packages "")
linked(libc NOASSERTION) # which one is the system's affair
related(SPDXRef-Package-eko DYNAMIC_LINK SPDXRef-Package-libc)
linked(libgcc "GPL-3.0-or-later WITH GCC-exception-3.1")
related(SPDXRef-Package-eko DYNAMIC_LINK SPDXRef-Package-libgcc)
list(JOIN relationships ",\n" relationships)

file(WRITE ${OUT} "{
  \"spdxVersion\": \"SPDX-2.3\",
  \"dataLicense\": \"CC0-1.0\",
  \"SPDXID\": \"SPDXRef-DOCUMENT\",
  \"name\": \"eko-${VERSION}\",
  \"documentNamespace\": \"urn:uuid:${document}\",
  \"creationInfo\": {
    \"created\": \"${created}\",
    \"creators\": [\"Tool: EkoSbom.cmake-${VERSION}\"]
  },
  \"packages\": [
    {
      \"SPDXID\": \"SPDXRef-Package-eko\",
      \"name\": \"eko\",
      \"versionInfo\": \"${VERSION}\",
      \"primaryPackagePurpose\": \"LIBRARY\",
      \"downloadLocation\": \"NOASSERTION\",
      \"filesAnalyzed\": true,
      \"packageVerificationCode\": {\"packageVerificationCodeValue\": \"${verification}\"},
      \"licenseInfoFromFiles\": [\"MIT\"],
      \"licenseConcluded\": \"MIT\",
      \"licenseDeclared\": \"MIT\",
      \"copyrightText\": \"Copyright (c) the eko authors\"
    }${packages}
  ],
  \"files\": [
${files}
  ],
  \"relationships\": [
${relationships}
  ]
}
")
