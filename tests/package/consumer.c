/* Links the installed libVload and asks it something. */
#include <stdio.h>
#include <string.h>

#include "vload.h"

int main(void) {
    if (strcmp(returnLoaderString(24), "BMP") != 0) return 1;
    if (returnLoaderFunctions(78, "x.bmp") != VLOAD_NO_SUCH_LOADER) return 1;
    puts("consumer: ok");
    return 0;
}
