# Warnings are errors in the project's own code; third-party headers come in as system headers.
function(kp_set_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
    -Wimplicit-fallthrough -Wno-missing-field-initializers -Werror)
endfunction()
