/* c_host: a C99 host of libVload.so. The public header compiles as plain C,
   and a bundled example loads through the shared library the same way in one
   band and in bands of 7 rows. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "vload.h"

static uint8_t *load(const char *path, uint32_t band, uint32_t *size) {
    uint8_t layout, mirror, first, map[768], *image;
    uint32_t w, h, xd, yd, xr, yr, done, status;
    char info[VLOAD_INFO_TEXT_SIZE];
    if (returnLoaderFunctions(0, path) != 24) return NULL;
    if (getTryLoad()(path, &layout, &w, &h, &xd, &yd, &xr, &yr, map, info, &mirror, &first, 1) ||
        layout != VLOAD_LAYOUT_RGB)
        return NULL;
    *size = w * 3 * h;
    image = malloc(*size);
    status = image ? VLOAD_OK : VLOAD_NO_MEMORY;
    for (done = 0; done < h && status == VLOAD_OK; done += band) /* whole-image addressing */
        status = getLoadBand()(image, (int32_t)(h - done < band ? h - done : band), (int32_t)w * 3, NULL);
    getEndLoad()(NULL, 0, 0, NULL);
    if (status == VLOAD_OK) return image;
    free(image);
    return NULL;
}

int main(int argc, char **argv) {
    uint32_t a = 0, b = 0;
    uint8_t *whole, *bands;
    if (argc != 2 || getTryLoad() != NULL || returnLoaderFunctions(78, argv[1]) != VLOAD_NO_SUCH_LOADER)
        return 1;
    whole = load(argv[1], 1u << 30, &a);
    bands = load(argv[1], 7, &b);
    if (!whole || !bands || a != b || memcmp(whole, bands, a) != 0) return 1;
    free(whole);
    free(bands);
    puts("c_host: ok");
    return 0;
}
