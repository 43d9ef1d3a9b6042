# Run by CPack before it packs what it has staged: Debian keeps manual pages compressed.
file(GLOB pages "${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/man*/*.[0-9]")
if(pages)
  # Without name and time, so that the same page gives the same bytes.
  execute_process(COMMAND gzip -9 -n ${pages} COMMAND_ERROR_IS_FATAL ANY)
endif()
