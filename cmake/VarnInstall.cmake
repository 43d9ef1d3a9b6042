# What `cmake --install` puts where. Three components: "library" is the shared library, "runtime" the
# command with its manual pages and examples, "development" what another project builds against.

include(CMakePackageConfigHelpers)

# Debian's zsh looks for what packages bring in a place of its own.
if(EXISTS /etc/debian_version AND CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(completions zsh/vendor-completions)
else()
  set(completions zsh/site-functions)
endif()
set(VARN_ZSH_COMPLETIONS_DIR ${CMAKE_INSTALL_DATADIR}/${completions}
    CACHE STRING "Where the zsh completion is installed")
set(config ${CMAKE_INSTALL_LIBDIR}/cmake/VarnScriptRepository)
set(documents ${CMAKE_INSTALL_DATAROOTDIR}/doc/varn-scripts)

# ---- Libraries and headers ------------------------------------------------------------------------

install(TARGETS VarnScriptRepository EXPORT VarnScriptRepositoryTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library
    NAMELINK_COMPONENT development
  FRAMEWORK DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library)
install(TARGETS VarnAgentInterfaces EXPORT VarnScriptRepositoryTargets COMPONENT development)
install(TARGETS VarnContracts EXPORT VarnScriptRepositoryContractsTargets COMPONENT development)
install(TARGETS VarnUnitsArchive EXPORT VarnScriptRepositoryUnitsTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
if(TARGET VarnMarkupParserArchive)
  install(TARGETS VarnMarkupParserArchive EXPORT VarnScriptRepositoryMarkupParserTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
endif()

file(GLOB headers CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/include/VarnScriptRepository/*.h ${PROJECT_SOURCE_DIR}/interfaces/*.h)
if(VARN_BUNDLED_AGENT_MODULES)
  file(GLOB settings CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/agent/settings/*.h)
  list(APPEND headers ${settings})
endif()
install(FILES ${headers}
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/VarnScriptRepository COMPONENT development)

# The suites, with the headers that they stand on; an agent compiles them itself.
file(GLOB suites CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/contracts/*ContractTests.cpp)
install(FILES ${suites} ${PROJECT_SOURCE_DIR}/tests/contracts/Contract.h
  DESTINATION ${contracts} COMPONENT development)
install(FILES
  ${PROJECT_SOURCE_DIR}/src/support/KeyedCoding.h
  ${PROJECT_SOURCE_DIR}/tests/agent/support/StoredRecord.h
  ${PROJECT_SOURCE_DIR}/tests/support/SmallRecords.h
  DESTINATION ${contracts}/support COMPONENT development)

# ---- How other projects find them -----------------------------------------------------------------

# One file per component, because each needs other libraries to be there.
foreach(part IN ITEMS "" Units MarkupParser Contracts)
  if(part STREQUAL "MarkupParser" AND NOT TARGET VarnMarkupParserArchive)
    continue()
  endif()
  install(EXPORT VarnScriptRepository${part}Targets NAMESPACE VarnScriptRepository::
    DESTINATION ${config} COMPONENT development)
endforeach()
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/VarnScriptRepositoryConfig.cmake.in
  ${PROJECT_BINARY_DIR}/VarnScriptRepositoryConfig.cmake
  INSTALL_DESTINATION ${config}
  NO_SET_AND_CHECK_MACRO)
# Before 1.0 a minor version may change anything.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VarnScriptRepositoryConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/VarnScriptRepositoryConfig.cmake
  ${PROJECT_BINARY_DIR}/VarnScriptRepositoryConfigVersion.cmake
  ${CMAKE_CURRENT_LIST_DIR}/FindObjectRuntime.cmake
  DESTINATION ${config} COMPONENT development)

# The file knows its prefix by its own place, so that the whole may be moved.
file(RELATIVE_PATH varn_pkgconfig_to_prefix
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
if(APPLE)
  set(varn_pkgconfig_libs "-F\${libdir} -framework VarnScriptRepository")
else()
  set(varn_pkgconfig_libs "-L\${libdir} -lVarnScriptRepository")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/VarnScriptRepository.pc.in
  ${PROJECT_BINARY_DIR}/VarnScriptRepository.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/VarnScriptRepository.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# ---- The command, its manual pages and examples ---------------------------------------------------

if(NOT TARGET varn-scripts)
  return()
endif()
install(FILES ${PROJECT_SOURCE_DIR}/CHANGELOG.md
  DESTINATION ${documents} COMPONENT runtime)
install(TARGETS varn-scripts RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/docs/man/varn-scripts.1
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/docs/man/scripts.toml.5
              ${PROJECT_SOURCE_DIR}/docs/man/varn-scripts.toml.5
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/completions/varn-scripts.bash
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT runtime
  RENAME varn-scripts)
install(FILES ${PROJECT_SOURCE_DIR}/completions/varn-scripts.zsh
  DESTINATION ${VARN_ZSH_COMPLETIONS_DIR} COMPONENT runtime
  RENAME _varn-scripts)
install(FILES ${PROJECT_SOURCE_DIR}/completions/varn-scripts.fish
  DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/examples/README.md ${PROJECT_SOURCE_DIR}/examples/varn-scripts.toml
  DESTINATION ${documents}/examples COMPONENT runtime)
install(PROGRAMS ${PROJECT_SOURCE_DIR}/examples/demo
  DESTINATION ${documents}/examples COMPONENT runtime)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/scripts
  DESTINATION ${documents}/examples COMPONENT runtime)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/embed ${PROJECT_SOURCE_DIR}/examples/resident
  DESTINATION ${documents}/examples COMPONENT development)

# How the system runs a script now and then; enabled by nobody but its administrator.
if(APPLE)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/launchd
    DESTINATION ${documents}/examples COMPONENT runtime)
else()
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/systemd/
    DESTINATION lib/systemd/system COMPONENT runtime
    FILES_MATCHING PATTERN *.service PATTERN *.timer)
  install(FILES ${PROJECT_SOURCE_DIR}/examples/systemd/look-only.conf
    DESTINATION ${documents}/examples COMPONENT runtime)
endif()
