# Warnings are errors in the project's own code; third-party headers come in as system headers.
function(kp_set_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
    -Wimplicit-fallthrough -Wno-missing-field-initializers -Werror)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # GCC 12 reports impossible overlaps inside std::string assignment at -O2 (GCC bug 105329).
    target_compile_options(${target} PRIVATE -Wno-restrict)
  endif()
endfunction()
