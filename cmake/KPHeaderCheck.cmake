# A test over the installed headers (see tests/CMakeLists.txt): each must show hosts only the
# library's contract, so it includes no third-party header but Boost.Describe (the way a host
# describes its records) and names no platform handle. Every header is checked; the test
# fails naming each one that does not hold. (That each compiles on its own is checked by the
# build: kp_header_units compiles one unit per installed header.)
#   -DINCLUDE_ROOT=<the folder that holds kp/>
cmake_minimum_required(VERSION 3.25)
file(GLOB_RECURSE headers ${INCLUDE_ROOT}/kp/*.h)
set(failures "")
foreach(HEADER ${headers})
file(RELATIVE_PATH name ${INCLUDE_ROOT} ${HEADER})
file(READ ${HEADER} text)

# What the header says, without its comments (they may mention anything).
string(REGEX REPLACE "//[^\n]*" "" code "${text}")

set(problems "")
# Third-party headers a host would need only because of the library's insides.
foreach(banned
    "curl/" "sqlite3" "openssl/" "asio" "systemd/"
    "sd-journal" "sd-bus" "glib" "gio/" "libsecret/" "unicode/" "plist/" "libpsl" "idn2" "webp/" "turbojpeg" "stb_"
    "fmt/" "sys/" "unistd.h" "fcntl.h" "linux/" "netinet/" "arpa/" "pthread.h")
  string(REGEX MATCH "#[ \t]*include[ \t]*[<\"]${banned}[^>\"]*[>\"]" found "${code}")
  if(found)
    string(APPEND problems "  includes ${found}\n")
  endif()
endforeach()
# Of Boost, only Describe: hosts describe their records with it; any other Boost library in a
# public header is one more dependency that the contract does not need.
string(REGEX MATCHALL "#[ \t]*include[ \t]*[<\"]boost/[^>\"]*[>\"]" boostIncludes "${code}")
foreach(found ${boostIncludes})
  if(NOT found MATCHES "[<\"]boost/describe[/.]")
    string(APPEND problems "  includes ${found}\n")
  endif()
endforeach()
string(REGEX MATCHALL "boost::[a-z_0-9]+::" boostNames "${code}")
foreach(found ${boostNames})
  if(NOT found STREQUAL "boost::describe::")
    string(APPEND problems "  names ${found}\n")
  endif()
endforeach()
# Handles of the platform and of third-party libraries, and descriptors held as numbers.
foreach(handle
    "sqlite3[_a-z]*[ \t]*\\*" "CURL[A-Z]*[ \t]*\\*" "SSL[_A-Z]*[ \t]*\\*" "EVP_[A-Z_]+" "X509[_A-Z]*[ \t]*\\*"
    "sd_(journal|bus)[_a-z]*" "G[A-Z][A-Za-z]+[ \t]*\\*" "Secret[A-Z][A-Za-z]+[ \t]*\\*" "icu(_[0-9]+)?::"
    "pthread_[a-z_]+_t" "DIR[ \t]*\\*"
    "(int|ssize_t)[ \t]+[A-Za-z_]*([Ff]d|[Dd]escriptor|[Ss]ocket)_?[ \t]*[;=,){]")
  string(REGEX MATCH "[^A-Za-z0-9_]${handle}" found "${code}")
  if(found)
    string(STRIP "${found}" found)
    string(APPEND problems "  names ${found}\n")
  endif()
endforeach()
if(problems)
  string(APPEND failures "${name} shows hosts more than the library's contract:\n${problems}")
endif()

endforeach()
if(failures)
  message(FATAL_ERROR "${failures}")
endif()
list(LENGTH headers count)
message(STATUS "${count} headers hold")
