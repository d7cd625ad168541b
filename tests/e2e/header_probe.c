/* Compiled as C: the public header must be usable from C, and its exports must
 * be reachable through the shared library alone. */
#include <string.h>

#include "lx_api.h"

int lx_c_header_probe(void) {
    LxStatus s = lxNoError;
    const char* text = lxGetErrorString(lxConnectionLostErr);
    if (strcmp(text, "Connection lost") != 0) return 1;
    if (strcmp(lxGetAPIVersion(), "1.0.0") != 0) return 2;
    return (int)s;
}

/* Any 32-bit value, as a C caller may pass it. */
const char* lx_c_error_string(int32_t value) { return lxGetErrorString((LxStatus)value); }
