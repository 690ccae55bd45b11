# Run by cpack before it makes the Debian packages: puts beside the files of each what the
# distribution's policy asks for (copyright, changelog), and compresses the manual pages.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(roots "")
foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(root "${CPACK_TEMPORARY_DIRECTORY}/${component}")
  set(docs "${root}/usr/share/doc/${package}")
  file(MAKE_DIRECTORY ${docs} "${root}/usr/share/lintian/overrides")
  configure_file("${CMAKE_CURRENT_LIST_DIR}/../LICENSE" "${docs}/copyright" COPYONLY)
  file(WRITE "${docs}/changelog" "kel (${CPACK_PACKAGE_VERSION}) unstable; urgency=medium

  * CHANGELOG.md in the source tells what is new.

 -- ${CPACK_PACKAGE_CONTACT}  ${date}
")
  # Whoever distributes the packages gives an address (KEL_PACKAGE_CONTACT). The scripts of a
  # package with shared libraries are cpack's own; the trigger beside them does the work.
  set(overrides "${package}: bogus-mail-host *\n${package}: bogus-mail-host-in-debian-changelog *\n")
  if(component STREQUAL "runtime")
    string(APPEND overrides "${package}: maintscript-calls-ldconfig *\n")
  endif()
  file(WRITE "${root}/usr/share/lintian/overrides/${package}" "${overrides}")
  file(CHMOD "${docs}/copyright" "${docs}/changelog" "${root}/usr/share/lintian/overrides/${package}"
       PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(GLOB pages "${root}/usr/share/man/man*/*.1")
  execute_process(COMMAND gzip -9nf "${docs}/changelog" ${pages} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
