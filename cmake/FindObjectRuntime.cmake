# Finds the platform's object runtime with its C functions in <objc/runtime.h>: the system's own on
# macOS, GCC's libobjc elsewhere. Gives the target ObjectRuntime::ObjectRuntime.

set(hints)
if(NOT APPLE)
  # GCC keeps header and library in its own directory, which other compilers do not search.
  file(GLOB hints LIST_DIRECTORIES true /usr/lib/gcc/*/*)
  list(SORT hints COMPARE NATURAL ORDER DESCENDING)
endif()
find_path(ObjectRuntime_INCLUDE_DIR objc/runtime.h HINTS ${hints} PATH_SUFFIXES include)
find_library(ObjectRuntime_LIBRARY objc HINTS ${hints})

# In an archive the runtime sets itself up after the library has registered its class, and the program
# ends before its main function.
set(whyNot "")
if(ObjectRuntime_LIBRARY MATCHES "\\.a$")
  set(whyNot "${ObjectRuntime_LIBRARY} is an archive, and the object runtime must be a shared library")
  set(ObjectRuntime_LIBRARY ObjectRuntime_LIBRARY-NOTFOUND)
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(ObjectRuntime
  REQUIRED_VARS ObjectRuntime_LIBRARY ObjectRuntime_INCLUDE_DIR
  REASON_FAILURE_MESSAGE "${whyNot}")

if(ObjectRuntime_FOUND AND NOT TARGET ObjectRuntime::ObjectRuntime)
  add_library(ObjectRuntime::ObjectRuntime UNKNOWN IMPORTED)
  set_target_properties(ObjectRuntime::ObjectRuntime PROPERTIES
    IMPORTED_LOCATION ${ObjectRuntime_LIBRARY})
  if(NOT APPLE)
    # Searched last: that directory also holds GCC's own <stddef.h>.
    set_target_properties(ObjectRuntime::ObjectRuntime PROPERTIES
      INTERFACE_COMPILE_OPTIONS "SHELL:-idirafter ${ObjectRuntime_INCLUDE_DIR}")
  endif()
endif()
mark_as_advanced(ObjectRuntime_INCLUDE_DIR ObjectRuntime_LIBRARY)
