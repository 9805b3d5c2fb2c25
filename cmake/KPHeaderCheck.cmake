# A test for one installed header (see tests/CMakeLists.txt): it must compile on its own, and
# it must show hosts only the library's contract, so it includes no third-party header but
# Boost's header-only libraries (Boost.Describe above all) and names no platform handle.
#   -DHEADER=<path> -DINCLUDE_ROOT=<folder the header's include path starts from>
#   -DCOMPILER=<C++ compiler> -DFLAGS=<compile flags, ;-separated> -DWORK=<scratch folder>
cmake_minimum_required(VERSION 3.25)
file(RELATIVE_PATH name ${INCLUDE_ROOT} ${HEADER})
file(READ ${HEADER} text)

# What the header says, without its comments (they may mention anything).
string(REGEX REPLACE "//[^\n]*" "" code "${text}")

set(problems "")
# Third-party headers a host would need only because of the library's insides.
foreach(banned
    "curl/" "sqlite3" "openssl/" "asio" "boost/asio" "boost/json" "boost/locale" "boost/url" "systemd/"
    "sd-journal" "sd-bus" "glib" "gio/" "libsecret/" "unicode/" "plist/" "libpsl" "idn2" "webp/" "stb_"
    "fmt/" "sys/" "unistd.h" "fcntl.h" "linux/" "netinet/" "arpa/" "pthread.h")
  string(REGEX MATCH "#[ \t]*include[ \t]*[<\"]${banned}[^>\"]*[>\"]" found "${code}")
  if(found)
    string(APPEND problems "  includes ${found}\n")
  endif()
endforeach()
# Handles of the platform and of third-party libraries, and descriptors held as numbers.
foreach(handle
    "sqlite3[_a-z]*[ \t]*\\*" "CURL[A-Z]*[ \t]*\\*" "SSL[_A-Z]*[ \t]*\\*" "EVP_[A-Z_]+" "X509[_A-Z]*[ \t]*\\*"
    "sd_(journal|bus)[_a-z]*" "G[A-Z][A-Za-z]+[ \t]*\\*" "Secret[A-Z][A-Za-z]+[ \t]*\\*" "icu(_[0-9]+)?::"
    "boost::(asio|json|locale|urls?)::" "pthread_[a-z_]+_t" "FILE[ \t]*\\*" "DIR[ \t]*\\*"
    "(int|ssize_t)[ \t]+[A-Za-z_]*([Ff]d|[Dd]escriptor|[Ss]ocket)_?[ \t]*[;=,){]")
  string(REGEX MATCH "[^A-Za-z0-9_]${handle}" found "${code}")
  if(found)
    string(STRIP "${found}" found)
    string(APPEND problems "  names ${found}\n")
  endif()
endforeach()
if(problems)
  message(FATAL_ERROR "${name} shows hosts more than the library's contract:\n${problems}")
endif()

# Compiled alone, twice in one unit (a second inclusion must add nothing).
string(MAKE_C_IDENTIFIER "${name}" unit)
set(source ${WORK}/${unit}.cc)
file(WRITE ${source} "#include \"${name}\"\n#include \"${name}\"\n")
execute_process(COMMAND ${COMPILER} ${FLAGS} -fsyntax-only ${source}
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(rc)
  message(FATAL_ERROR "${name} does not compile on its own:\n${out}")
endif()
