// Compiled by CTest with -DCASE=n: case 0 must compile, every other case must fail with the
// error named in tests/CMakeLists.txt.
#include "kp/logging/log.h"

#include <string>

void check() {
#if CASE == 0
  kp::logInfo("%d %s %5.2f %@ %p %% %*d", 1, std::string("x"), 2.0, 3, nullptr, 4, 5);
#elif CASE == 1
  kp::logInfo("%s", 42);
#elif CASE == 2
  kp::logInfo("%d and %d", 1);
#elif CASE == 3
  kp::logInfo("%d", 1, 2);
#elif CASE == 4
  kp::logInfo("%n", 1);
#elif CASE == 5
  kp::logInfo("100%");
#endif
}
