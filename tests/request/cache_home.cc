// Every request test process keeps the shared cache in a folder of its own.
#include "support/cache_home.h"
