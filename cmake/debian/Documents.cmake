# Run by CPack before it packs what it has staged: Debian keeps manual pages compressed, and wants a
# changelog of its own form in each package.
set(sources ${CMAKE_CURRENT_LIST_DIR}/../..)
file(TIMESTAMP ${sources}/CHANGELOG.md changed "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(documents)
foreach(component IN ITEMS LIBRARY RUNTIME DEVELOPMENT)
  set(package ${CPACK_DEBIAN_${component}_PACKAGE_NAME})
  string(TOLOWER ${component} directory)
  set(changelog ${CPACK_TEMPORARY_DIRECTORY}/${directory}/usr/share/doc/${package}/changelog)
  file(WRITE ${changelog}
"varn-scripts (${CPACK_PACKAGE_VERSION}) unstable; urgency=medium

  * What has changed is in CHANGELOG.md of the package varn-scripts.

 -- ${CPACK_PACKAGE_CONTACT}  ${changed}
")
  list(APPEND documents ${changelog})
endforeach()
file(GLOB pages "${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/man*/*.[0-9]")
# Without name and time, so that the same page gives the same bytes.
execute_process(COMMAND gzip -9 -n ${documents} ${pages} COMMAND_ERROR_IS_FATAL ANY)
