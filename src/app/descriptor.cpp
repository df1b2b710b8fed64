// The process-wide pointer to the service's application descriptor.
#include "kelo/app.h"

#include <cstddef>

#if defined(__arm__)
static_assert(sizeof(app_desc) == 32, "descriptor layout on the device");
static_assert(offsetof(app_desc, name) == 12 && offsetof(app_desc, methods) == 28, "descriptor layout");
#endif

extern "C" {
KELO_EXPORT app_desc *app_current = nullptr;
}
