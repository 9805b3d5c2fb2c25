# Warnings for the project's own code; third-party headers come in as system headers.
# They are errors only where the project is developed (scripts/test, CI, or a developer who
# asks for it): a newer or older compiler than ours may warn where nothing is wrong, and
# that must not stop someone who only builds the library.
option(KP_WARNINGS_AS_ERRORS "Treat compiler warnings in the project's code as errors" OFF)
# Clang's thread-safety analysis (the annotations of src/platform/thread_annotations.h): its
# findings are errors. scripts/test builds the library's layers once this way when clang is
# installed.
option(KP_THREAD_SAFETY_ANALYSIS "Check the lock annotations with clang's -Wthread-safety" OFF)
if(KP_THREAD_SAFETY_ANALYSIS AND NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  message(FATAL_ERROR "KP_THREAD_SAFETY_ANALYSIS needs clang (configure with CXX=clang++)")
endif()

function(kp_set_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
    -Wimplicit-fallthrough -Wno-missing-field-initializers)
  if(KP_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(KP_THREAD_SAFETY_ANALYSIS)
    target_compile_options(${target} PRIVATE -Wthread-safety -Werror=thread-safety)
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # GCC 12 reports impossible overlaps inside std::string assignment at -O2 (GCC bug 105329).
    target_compile_options(${target} PRIVATE -Wno-restrict)
  endif()
endfunction()
