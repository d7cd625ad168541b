/* The smallest lx_api application: prints the library version and the text
 * of a status. Build it against the installed library with either
 *   cc hello_lx.c $(pkg-config --cflags --libs lx_api) -o hello_lx
 * or the CMake project beside this file. */
#include <stdio.h>

#include <lx_api.h>

int main(void) {
    printf("lx_api %s\n", lxGetAPIVersion());
    LxStatus s = lxConnectionLostErr;
    printf("status %d: %s\n", (int)s, lxGetErrorString(s));
    return 0;
}
