# The Debian packages that `cpack -G DEB` makes of the three install components: varn-scripts, the
# command; libvarnscriptrepository0, the shared library for agents that embed it, which needs nothing
# of the command; libvarnscriptrepository-dev, what other projects build against.

set(VARN_PACKAGE_CONTACT "varn-scripts maintainers <root@localhost>"
    CACHE STRING "Who maintains the packages: name and address")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME varn-scripts)
set(CPACK_PACKAGE_CONTACT ${VARN_PACKAGE_CONTACT})
set(CPACK_COMPONENTS_ALL library runtime development)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/debian/Documents.cmake)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)

set(library libvarnscriptrepository${PROJECT_VERSION_MAJOR})

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME varn-scripts)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS "ca-certificates, python3")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"The command varn-scripts fetches a script from the organisation's server when
it is new or has changed, verifies it against the server's checksum, runs it
through its interpreter and judges its exit code. It also publishes
directories of scripts for any web server to serve.

Agents that embed the library have a package of their own:
${library}.")
# What programs and libraries link to is asked of dpkg; libcurl is loaded and not linked to.
set(loaded "libcurl4t64 | libcurl4 (>= 7.85)")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS ${loaded})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_LIST_DIR}/debian/postinst
  ${CMAKE_CURRENT_LIST_DIR}/debian/prerm
  ${CMAKE_CURRENT_LIST_DIR}/debian/postrm)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_RECOMMENDS "ca-certificates")
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION
"The library VarnScriptRepository, with the agent modules that it brings: it
fetches a script from the organisation's server when it is new or has changed,
verifies it, runs it and judges its exit code, inside an agent that embeds it.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS ${loaded})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/triggers)

# The object runtime's headers come in one package per compiler version; the one in use is named.
string(REGEX MATCH "/gcc/[^/]+/([0-9]+)/" match "${ObjectRuntime_LIBRARY}")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvarnscriptrepository-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
string(JOIN ", " CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${library} (= ${PROJECT_VERSION})" "libexpat1-dev" "libobjc-${CMAKE_MATCH_1}-dev"
  "libutf8proc-dev" "pkgconf | pkg-config")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "libgmock-dev, libgtest-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"Headers, archives and CMake and pkg-config files to build an agent on the
library VarnScriptRepository: with the agent modules that it brings, or with
modules of the agent's own, and tests for these.")

include(CPack)
