/* read_picture: loads any file libVload reads and prints what it found.

     read_picture FILE [BAND_ROWS]

   Shows the calling order a host follows: install a loader (0 detects it),
   describe the file, allocate the picture, deliver it band by band, end. */
#include <stdio.h>
#include <stdlib.h>

#include "vload.h"

static size_t rowBytes(uint8_t layout, uint32_t width) {
    switch (layout) {
    case VLOAD_LAYOUT_BILEVEL: return (width + 7) / 8;
    case VLOAD_LAYOUT_INDEXED: return width;
    case VLOAD_LAYOUT_RGB: return (size_t)width * 3;
    default: return (size_t)width * 4;
    }
}

int main(int argc, char **argv) {
    uint8_t layout, mirror, firstPart, colourMap[768];
    uint32_t width, height, xDensity, yDensity, xRepeat, yRepeat, status, loader, done = 0;
    uint32_t band = argc > 2 ? (uint32_t)atoi(argv[2]) : 64;
    char info[VLOAD_INFO_TEXT_SIZE];
    uint8_t *picture;
    size_t stride;
    unsigned long sum = 0, i;

    if (argc < 2) {
        fprintf(stderr, "usage: read_picture FILE [BAND_ROWS]\n");
        return 2;
    }
    loader = returnLoaderFunctions(0, argv[1]);
    if (loader < 1 || loader > VLOAD_LOADER_COUNT) {
        fprintf(stderr, "%s: not a file libVload recognises\n", argv[1]);
        return 1;
    }
    status = getTryLoad()(argv[1], &layout, &width, &height, &xDensity, &yDensity, &xRepeat,
                          &yRepeat, colourMap, info, &mirror, &firstPart, 1);
    if (status != VLOAD_OK) {
        fprintf(stderr, "%s: %s refused it with status %u\n", argv[1], returnLoaderString((int32_t)loader), status);
        return 1;
    }
    stride = rowBytes(layout, width);
    picture = calloc(height, stride);
    if (!picture) {
        getEndLoad()(NULL, 0, 0, NULL);
        return 1;
    }
    if (band < 1) band = height;
    while (done < height && status == VLOAD_OK) {
        uint32_t rows = height - done < band ? height - done : band;
        /* The BMP loader (24) wants the picture's first row every time; the
           others want the band's first row. */
        uint8_t *at = loader == 24 ? picture : picture + (size_t)done * stride;
        status = getLoadBand()(at, (int32_t)rows, (int32_t)stride, NULL);
        done += rows;
    }
    getEndLoad()(NULL, 0, 0, NULL);
    for (i = 0; i < (unsigned long)height * stride; ++i) sum = (sum * 31 + picture[i]) % 1000000007ul;
    free(picture);
    if (status != VLOAD_OK) {
        fprintf(stderr, "%s: delivery stopped with status %u\n", argv[1], status);
        return 1;
    }
    printf("%s: %s, %u x %u, layout %u, checksum %lu\n", argv[1], returnLoaderString((int32_t)loader),
           width, height, layout, sum);
    return 0;
}
