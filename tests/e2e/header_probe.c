/* Compiled as C: the public header must be usable from C, and its exports must
 * be reachable through the shared library alone. */
#include "lx_api.h"

/* Any 32-bit value, as a C caller may pass it. */
const char* lx_c_error_string(int32_t value) { return lxGetErrorString((LxStatus)value); }
