# How every target of this project is compiled.

function(varn_compile_options target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  set_target_properties(${target} PROPERTIES
    CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ON)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wnon-virtual-dtor -Wold-style-cast)
  # Optimised builds of gcc 12 take the library's own copying of string literals for overlapping.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(${target} PRIVATE -Wno-restrict)
  endif()
  if(VARN_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(VARN_SANITIZE)
    target_compile_options(${target} PRIVATE
      -fsanitize=${VARN_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${VARN_SANITIZE})
    get_target_property(type ${target} TYPE)
    if(VARN_SANITIZE MATCHES "address" AND type STREQUAL "EXECUTABLE")
      target_sources(${target} PRIVATE ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/LeakSuppressions.cpp)
    endif()
  endif()
  if(VARN_COVERAGE)
    # clang counts the conditions of the source; others count the jumps of the generated code. The
    # profile's place is fixed, since the tests start programs with an environment of their own.
    target_compile_options(${target} PRIVATE -fcoverage-mapping -fprofile-update=atomic
      -fprofile-instr-generate=${CMAKE_BINARY_DIR}/profiles/%4m.profraw)
    target_link_options(${target} PRIVATE -fprofile-instr-generate)
  endif()
endfunction()
