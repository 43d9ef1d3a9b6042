# Compiles for macOS on another system: Zig's C++ compiler, which brings the C library's headers and
# link-time descriptions for macOS, and a tree of third-party headers and link stubs.
# cross-compile.sh makes both and sets the variables that are read here.
#
#   VARN_MACOS_ARCH   arm64 or x86_64
#   VARN_MACOS_SDK    the tree of headers and stubs

# The compiler checks read this file again, in projects of their own.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VARN_MACOS_ARCH VARN_MACOS_SDK)

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR ${VARN_MACOS_ARCH})
set(zig_arch ${VARN_MACOS_ARCH})
if(zig_arch STREQUAL arm64)
  set(zig_arch aarch64)
endif()

set(CMAKE_CXX_COMPILER ${CMAKE_CURRENT_LIST_DIR}/c++)
set(CMAKE_AR ${CMAKE_CURRENT_LIST_DIR}/ar)
set(CMAKE_RANLIB ${CMAKE_CURRENT_LIST_DIR}/ranlib)
# The oldest system that the library is for.
set(CMAKE_CXX_COMPILER_TARGET ${zig_arch}-macos.12.0)
set(CMAKE_OSX_SYSROOT "" CACHE STRING "The compiler knows its own")
# Nothing is installed from here, so no install name is ever rewritten.
set(CMAKE_INSTALL_NAME_TOOL false)

# The compiler takes the C++ library to be its own, of the newest version. The program runs on the
# system's, so what the oldest system lacks is an error.
# Undefined behaviour is left to the sanitizer presets.
string(JOIN " " CMAKE_CXX_FLAGS_INIT
  -U_LIBCPP_HAS_VENDOR_AVAILABILITY_ANNOTATIONS
  -D_LIBCPP_HAS_VENDOR_AVAILABILITY_ANNOTATIONS=1
  -fno-sanitize=undefined)

# Only the tree of headers and stubs is searched: a header of this system's C library among those
# for macOS would compile something that exists nowhere.
set(CMAKE_FIND_ROOT_PATH ${VARN_MACOS_SDK})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
