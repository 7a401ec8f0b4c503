/*
 * vload.h: the public interface of libVload.
 *
 * libVload reads the files of weaving and jacquard design work (loom and
 * jacquard card files, weave and drape files, WIF drafts, colour palettes)
 * and ordinary picture formats, and delivers them band by band as raster
 * pictures.
 *
 * Every format is served by a loader: three operations that describe a file
 * (tryLoad), deliver its rows (loadBand) and release it (endLoad). A host
 * installs a loader in the calling thread, fetches its operations and drives
 * them:
 *
 *     uint32_t loader = returnLoaderFunctions(0, name);
 *     if (loader < 1 || loader > VLOAD_LOADER_COUNT) { ...not a picture we know... }
 *     TryLoadFn tryLoad = getTryLoad();
 *     uint32_t status = tryLoad(name, &layout, &width, &height, &xDensity, &yDensity,
 *                               &xRepeat, &yRepeat, colorMap, infoText, &mirrorX,
 *                               &firstPart, 1);
 *     if (status == VLOAD_OK) {
 *         for (done = 0; done < height && status == VLOAD_OK; done += rows) {
 *             rows = min(band, height - done);
 *             status = getLoadBand()(bandStart, rows, stride, NULL);
 *         }
 *         getEndLoad()(NULL, 0, 0, NULL);
 *     }
 *
 * A tryLoad that fails has closed its file already; after one that succeeds
 * the host always calls endLoad, whether delivery succeeded or not.
 *
 * Where a band goes. Each loader states how it addresses the buffer that
 * loadBand receives:
 *   - band addressing: the call's first row goes to `buffer`, the next to
 *     `buffer + rowStride`; the host moves `buffer` on between calls;
 *   - whole-image addressing: `buffer` is the start of the whole picture and
 *     row r always goes to `buffer + r * rowStride`, whatever band is being
 *     delivered (BMP, whose files store rows bottom-up).
 * A host that asks for the whole picture in a single call, with `buffer` at
 * its first row, is served correctly by every loader.
 *
 * Threads. The current loader, every loader's state, the header probe cache
 * and the settings belong to the calling thread: threads load different files
 * at once without locks, and one thread loads one file at a time. The only
 * process-wide value is SuppressNonFatalErrors.
 *
 * The header is C99 and C++ compatible.
 */
#ifndef VLOAD_H
#define VLOAD_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#if defined(VLOAD_BUILDING) && defined(__GNUC__)
#define VLOAD_API __attribute__((visibility("default")))
#else
#define VLOAD_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Status codes returned by tryLoad and loadBand ---------------------- */
#define VLOAD_OK 0u
#define VLOAD_NO_MEMORY 2u       /* out of memory */
#define VLOAD_CANNOT_OPEN 3u     /* cannot be opened, or ended while the header was read */
#define VLOAD_BAD_REQUEST 4u     /* the call does not fit the loader (row count, stride, order) */
#define VLOAD_UNSUPPORTED 5u     /* this format, but a variant the loader does not read */
#define VLOAD_NOT_THIS_FORMAT 6u /* not this format, bad header, or parameters out of range */
#define VLOAD_BAD_DATA 7u        /* dimensions out of range, or the data ended early */

/* ---- Answers of returnLoaderFunctions besides a loader number ------------ */
#define VLOAD_LOADER_COUNT 77u
#define VLOAD_NOT_RECOGNISED 0u        /* detection found no loader; nothing installed */
#define VLOAD_NO_SUCH_LOADER 78u       /* the loader number is below 0 or above 77 */
#define VLOAD_NOT_A_PICTURE 254u       /* the name's extension marks a file that is no picture */
#define VLOAD_NAME_TOO_SHORT 0xFFFFFFFFu /* no name, or a name of fewer than 2 characters */

/* ---- Pixel layouts (the pixelFormat output of tryLoad) ------------------- */
#define VLOAD_LAYOUT_BILEVEL 0 /* 1 bit a pixel, leftmost pixel in the most significant bit,
                                  1 = set (dark); rows padded to whole bytes */
#define VLOAD_LAYOUT_INDEXED 1 /* 1 byte a pixel, an index into the colour map */
#define VLOAD_LAYOUT_RGB 2     /* 3 bytes a pixel: R, G, B */
#define VLOAD_LAYOUT_RGBA 7    /* 4 bytes a pixel: R, G, B, A */

/* The infoText buffer a host hands to tryLoad holds at least this many bytes;
   loaders never write more, terminator included. */
#define VLOAD_INFO_TEXT_SIZE 256

/* ---- Loader operations ---------------------------------------------------- */
/*
 * tryLoad describes `fileName`. Outputs: pixel layout, width and height in
 * pixels (ends and picks for loom formats), densities in thousandths of a dot
 * per inch (0 = unknown; a format that knows only an aspect ratio reports two
 * numbers in that ratio), repeat counts (1 from most loaders), the colour map
 * (256 entries of R, G, B; written only for indexed layouts and only when
 * readColorMap is non-zero), a short information text (" " when there is
 * nothing to say), the horizontal-mirror flag, and firstPart (0 for a later
 * volume of a numbered multi-file set). readColorMap non-zero also prepares
 * delivery; a host that only wants the description passes 0.
 */
typedef uint32_t (*TryLoadFn)(const char *fileName, uint8_t *pixelFormat, uint32_t *width,
                              uint32_t *height, uint32_t *xDensity, uint32_t *yDensity,
                              uint32_t *xRepeat, uint32_t *yRepeat, uint8_t *colorMap,
                              char *infoText, uint8_t *mirrorX, uint8_t *firstPart,
                              uint8_t readColorMap);
/* Delivers the next rowCount rows, rowStride bytes apart (at least one row of
   the announced layout). bandContext is passed through. */
typedef uint32_t (*LoadBandFn)(uint8_t *buffer, int32_t rowCount, int32_t rowStride,
                               void *bandContext);
/* Closes the file and frees what the loader held; its arguments are ignored.
   Always returns 0 and may be called more than once. */
typedef uint32_t (*EndLoadFn)(uint8_t *buffer, int32_t rowCount, int32_t rowStride,
                              void *bandContext);

/* ---- Registry -------------------------------------------------------------- */
/* Stores three operations as the calling thread's current loader. */
VLOAD_API void registerLoader(TryLoadFn tryLoad, LoadBandFn loadBand, EndLoadFn endLoad);
/* The calling thread's current operations; NULL before anything was registered. */
VLOAD_API TryLoadFn getTryLoad(void);
VLOAD_API LoadBandFn getLoadBand(void);
VLOAD_API EndLoadFn getEndLoad(void);

/*
 * Installs loader `loaderNumber` (1..77) in the calling thread and returns the
 * number. With 0 the loader is detected from the file's name and first bytes:
 * the detected number is installed and returned, or one of
 * VLOAD_NOT_RECOGNISED, VLOAD_NOT_A_PICTURE or VLOAD_NAME_TOO_SHORT is
 * returned and nothing is installed. Numbers below 0 or above 77 give
 * VLOAD_NO_SUCH_LOADER.
 */
VLOAD_API uint32_t returnLoaderFunctions(int32_t loaderNumber, const char *fileName);

/*
 * One registration per loader number. A loader this build cannot read yet
 * installs operations whose tryLoad answers VLOAD_NOT_THIS_FORMAT; the
 * catalogue marks it "(not available)".
 */
VLOAD_API void registerLoadGIF(void);                 /*  1 */
VLOAD_API void registerLoadPNG(void);                 /*  2 */
VLOAD_API void registerLoadPCX(void);                 /*  3 */
VLOAD_API void registerLoadJPEG(void);                /*  4 */
VLOAD_API void registerLoadTIFF(void);                /*  5 */
VLOAD_API void registerLoadWebP(void);                /*  6 */
VLOAD_API void registerLoadSophisC(void);             /*  7 */
VLOAD_API void registerLoadSophisI(void);             /*  8 */
VLOAD_API void registerLoadBonas(void);               /*  9 */
VLOAD_API void registerLoadSchleicher(void);          /* 10 */
VLOAD_API void registerLoadWeave(void);               /* 11 */
VLOAD_API void registerLoadPBM(void);                 /* 12 */
VLOAD_API void registerLoadStaubli(void);             /* 13 */
VLOAD_API void registerLoadStaubliJC3(void);          /* 14 */
VLOAD_API void registerLoadStaubliJC5(void);          /* 15 */
VLOAD_API void registerLoadStaubliJC4network(void);   /* 16 */
VLOAD_API void registerLoadStaubliJC4email(void);     /* 17 */
VLOAD_API void registerLoadTis(void);                 /* 18 */
VLOAD_API void registerLoadGrosse(void);              /* 19 */
VLOAD_API void registerLoadEAT(void);                 /* 20 */
VLOAD_API void registerLoad1858III(void);             /* 21 */
VLOAD_API void registerLoadWIF(void);                 /* 22 */
VLOAD_API void registerLoadAVLJ1P(void);              /* 23 */
VLOAD_API void registerLoadBMP(void);                 /* 24 */
VLOAD_API void registerLoadPUN(void);                 /* 25 */
VLOAD_API void registerLoadQTE(void);                 /* 26 */
VLOAD_API void registerLoadVaritexPAT(void);          /* 27 */
VLOAD_API void registerLoadIAMPAT(void);              /* 28 */
VLOAD_API void registerLoadIAMBBI(void);              /* 29 */
VLOAD_API void registerLoadTakemuraDAT(void);         /* 30 */
VLOAD_API void registerLoadSometDOP(void);            /* 31 */
VLOAD_API void registerLoadSometCOP(void);            /* 32 */
VLOAD_API void registerLoadSophisW(void);             /* 33 */
VLOAD_API void registerLoadVamatexPID(void);          /* 34 */
VLOAD_API void registerLoadVamatexPIW(void);          /* 35 */
VLOAD_API void registerLoadQTEMOT(void);              /* 36 */
VLOAD_API void registerLoadTongYuanDY(void);          /* 37 */
VLOAD_API void registerLoadPignoneARM(void);          /* 38 */
VLOAD_API void registerLoadUWF(void);                 /* 39 */
VLOAD_API void registerLoadDrape(void);               /* 40 */
VLOAD_API void registerLoadFabric(void);              /* 41 */
VLOAD_API void registerLoadUPT(void);                 /* 42 */
VLOAD_API void registerLoadStaubliZC5(void);          /* 43 */
VLOAD_API void registerLoadQTZ(void);                 /* 44 */
VLOAD_API void registerLoadDoStyle(void);             /* 45 */
VLOAD_API void registerLoadSMIT(void);                /* 46 */
VLOAD_API void registerLoadAPF(void);                 /* 47 */
VLOAD_API void registerLoadColorado(void);            /* 48 */
VLOAD_API void registerLoadNedgraphicsPAT(void);      /* 49 */
VLOAD_API void registerLoadDoWeaveDES(void);          /* 50 */
VLOAD_API void registerLoadTakemuraCGS(void);         /* 51 */
VLOAD_API void registerLoadNissan(void);              /* 52 */
VLOAD_API void registerLoadSometARM(void);            /* 53 */
VLOAD_API void registerLoadMotongPAT(void);           /* 54 */
VLOAD_API void registerLoadMotongSTI(void);           /* 55 */
VLOAD_API void registerLoadPanter(void);              /* 56 */
VLOAD_API void registerLoadDoTech(void);              /* 57 */
VLOAD_API void registerLoadMus(void);                 /* 58 */
VLOAD_API void registerLoadNedgraphicsDES(void);      /* 59 */
VLOAD_API void registerLoadVectorPreview(void);       /* 60 */
VLOAD_API void registerLoadStaubliJC4loom(void);      /* 61 */
VLOAD_API void registerLoadWBF(void);                 /* 62 */
VLOAD_API void registerLoadWB(void);                  /* 63 */
VLOAD_API void registerLoadPAL(void);                 /* 64 */
VLOAD_API void registerLoadDIS(void);                 /* 65 */
VLOAD_API void registerLoadORG(void);                 /* 66 */
VLOAD_API void registerLoadBonasCompressed(void);     /* 67 */
VLOAD_API void registerLoadPhotoshopACO(void);        /* 68 */
VLOAD_API void registerLoadPhotoshopACB(void);        /* 69 */
VLOAD_API void registerLoadTsudakomaDP5(void);        /* 70 */
VLOAD_API void registerLoadActWJL(void);              /* 71 */
VLOAD_API void registerLoadPicanolDES(void);          /* 72 */
VLOAD_API void registerLoadCPMLD(void);               /* 73 */
VLOAD_API void registerLoadPhotoshopASE(void);        /* 74 */
VLOAD_API void registerLoadEltexEJP(void);            /* 75 */
VLOAD_API void registerLoadPSD(void);                 /* 76 */
VLOAD_API void registerLoadBonasHarnessXML(void);     /* 77 */

/* ---- Catalogue ------------------------------------------------------------- */
/* Display name of a loader ("maker format"), with " (not available)" appended
   when this build cannot read the format; "Unknown format" outside 1..77. */
VLOAD_API const char *returnLoaderString(int32_t loaderNumber);
/* The same without the maker's name. */
VLOAD_API const char *returnLoaderStringNoLogo(int32_t loaderNumber);
/* The maker's name alone; "" for formats that belong to no maker. */
VLOAD_API const char *returnLoaderStringJustLogo(int32_t loaderNumber);
/* 1 when the loader's pictures are loom or jacquard data (cards, weaves,
   drafts) from which a dobby weave can be extracted; 0 for pictures,
   palettes, drape renderings and numbers outside 1..77. */
VLOAD_API int32_t validForDobbyExtraction(int32_t loaderNumber);
/* 1 when the loader delivers a design whose repeat can be analysed (pictures,
   card and weave files); 0 for palettes, drape projects, fabric descriptions
   and numbers outside 1..77. */
VLOAD_API int32_t validForRepeatChecking(int32_t loaderNumber);
/* 1 when the file is a drape project: its name ends in ".drape", or it starts
   with a "#NEW_REGION" line. 0 otherwise, and for NULL. */
VLOAD_API int32_t isDrapeProject(const char *fileName);

/* ---- Header probe and warnings --------------------------------------------- */
/*
 * The first 256 bytes of `fileName` from the calling thread's cache, or NULL
 * when the file cannot be read. The cache is refreshed when the name differs
 * from the cached one, or when the name is the same and the file's size has
 * changed; an unchanged size keeps the cached bytes. For a file shorter than
 * 256 bytes only its own bytes are refreshed: compare loadImgLastFilesize()
 * with the length you rely on.
 */
VLOAD_API const uint8_t *loadImgCheckHeader(const char *fileName);
/* The size recorded with the cache: the size of the last file probed. */
VLOAD_API int64_t loadImgLastFilesize(void);
/* Prints "\nNonfatal Error : ", the formatted message and "\n" to standard
   output, unless SuppressNonFatalErrors is non-zero. */
VLOAD_API void ErrNonfatal(const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;
/* Process-wide: non-zero silences ErrNonfatal. */
VLOAD_API extern uint8_t SuppressNonFatalErrors;

/* ---- Helpers ---------------------------------------------------------------- */
/* Integers from bytes in the calling thread's current byte order (little-endian
   unless a reader of big-endian data, such as the EXIF reader, set it). */
VLOAD_API uint16_t Get16u(const void *p);
VLOAD_API int32_t Get32s(const void *p);
VLOAD_API uint32_t Get32u(const void *p);
/* Folds 'A'..'Z' to 'a'..'z'; every other value, bytes above 127 included,
   comes back unchanged. */
VLOAD_API int tolowerAZ(int c);
/* tolowerAZ on every byte of s, in place. */
VLOAD_API void stringToLower(char *s);
/* The text after the first '=' of line. Only for lines known to hold one:
   without '=' the result points one past the line's terminator. */
VLOAD_API char *removeHead(char *line);
/* Removes the line's last byte, and a carriage return before it; returns line. */
VLOAD_API char *removeLast(char *line);
/* Reads one line ending in CR, LF or both into buffer (at most size - 1
   bytes and a terminator); returns buffer, or NULL when no byte was stored.
   A longer line is split and its rest comes with the next call. */
VLOAD_API char *fgetsDosMac(char *buffer, int size, FILE *stream);
/* Reads the zlib block whose compressed size is the decimal number leading
   sizeText (3..999999999 bytes) from stream and inflates it into destination.
   Returns the inflated length (1 for an empty result), or 0 on any failure. */
VLOAD_API size_t readCompressedData(const char *sizeText, void *destination,
                                    size_t destinationCapacity, FILE *stream);
/* Moves stream forward by the number leading sizeText; 1 on success, 0 when
   sizeText holds no number. */
VLOAD_API int skipCompressedData(const char *sizeText, FILE *stream);

/* ---- EXIF reader --------------------------------------------------------------- */
/*
 * What process_EXIF found in an EXIF block. The caller owns the record and
 * should zero it before the first call: text fields are filled only when
 * empty (comment) or when not yet holding a date, and the largest offset seen
 * only ever grows. Texts are zero-terminated, except `comments` when it
 * holds the UTF-16 bytes of the wide-character tag: then commentWidecharCount
 * says how many units it holds.
 */
typedef struct ExifInfo {
    char cameraMake[32]; char cameraModel[40]; char dateTime[20];
    int32_t orientation; int32_t flash;
    float focalLength, exposureTime, apertureFNumber, distance, ccdWidth, exposureBias, digitalZoomRatio;
    int32_t focalLength35mmEquiv, whitebalance, meteringMode, exposureProgram, exposureMode,
            isoEquivalent, lightSource, distanceRange;
    float xResolution, yResolution; int32_t resolutionUnit;
    char comments[16000]; int32_t commentWidecharCount;
    int32_t thumbnailOffset, thumbnailSize, largestExifOffset; uint8_t thumbnailAtEnd;
    int32_t thumbnailSizeOffset; int32_t dateTimeOffsets[10]; int32_t numDateTimeTags; int32_t reserved;
} ExifInfo;
/*
 * Parses an EXIF block into `record`. `data` points two bytes before the
 * "Exif" identifier (where a JPEG APP1 length stands) and `length` counts the
 * bytes from there; offsets in the record count from the TIFF header at
 * data + 8. Nothing is read outside those `length` bytes and `data` is not
 * written. Problems are reported through ErrNonfatal and parsing goes on or
 * stops quietly. `suppress` is stored in SuppressNonFatalErrors, for the
 * whole process. A NULL record does nothing. Sets the calling thread's byte
 * order of Get16u/Get32s/Get32u to the block's.
 */
VLOAD_API void process_EXIF(uint8_t *data, uint32_t length, ExifInfo *record, uint8_t suppress);
/* Resets the calling thread's EXIF parser state (byte order: little-endian). */
VLOAD_API void Clear_EXIF(void);
/*
 * The first component at valuePtr of an EXIF value of format code `format`,
 * in the calling thread's byte order (floats and doubles in the machine's):
 * 1 unsigned byte, 3 unsigned short, 4 unsigned long, 5 unsigned rational,
 * 6 signed byte, 8 signed short, 9 signed long, 10 signed rational, 11 float,
 * 12 double. A rational with a zero denominator is 0; any other code is
 * reported as illegal and gives 0. Reads up to 8 bytes at valuePtr.
 */
VLOAD_API double ConvertAnyFormat(const void *valuePtr, int32_t format);
/* Bytes of one component of each format code 0..12. */
VLOAD_API extern const int32_t BytesPerFormat[13];

/* ---- Weave and fabric files ------------------------------------------------------ */
/* Set up the calling thread's key tables of the weave and fabric readers.
   returnLoaderFunctions calls both on its first call in a thread; the weave
   loader refuses every file in a thread where initLoadWeave was never called. */
VLOAD_API void initLoadWeave(void);
VLOAD_API void initLoadFabric(void);
/*
 * Reads a weave header from `stream`, positioned after its first line, which
 * `line` (a buffer of at least 100000 bytes, used for the following lines)
 * already holds. A first line other than "#BINDING" and a line feed returns 1
 * and reads nothing. Otherwise the header is read up to its END line: the
 * outputs give the layout (*rowsPacked 1: *bits holds the weave row by row,
 * (width + 7) / 8 bytes a row, leftmost end in the top bit; 0: *bits holds a
 * lift plan, bit s * height + p, least significant bit first, set when shaft s
 * rises on pick p), the size, the mirror flag, the shaft of each end (*map)
 * and the picture (*bits). *map and *bits are overwritten, never freed, and
 * come from malloc: free them whatever the result (either may be NULL).
 * Returns 1 when the header was read, 0 when it is broken (or the thread's key
 * table was never set up), 2 when there was no memory for a picture block.
 */
VLOAD_API uint64_t readVelmorWeave(FILE *stream, char *line, uint8_t *rowsPacked,
                                   uint32_t *width, uint32_t *height, uint8_t *mirrorX,
                                   uint32_t **map, uint8_t **bits);

/* ---- Jacquard hook mapping -------------------------------------------------------- */
/*
 * Staubli harnesses are built of modules of 1344, 1536 or 3072 hooks, wired in
 * groups of 12; card files store the hooks in that wiring order.
 *
 * makeStaubliMapping fills map[0 .. S-1] with the hook order of one module of
 * S = moduleSize hooks (1344 or 1536; any other value builds a 3072-hook
 * module, so map must then hold 3072 entries).
 *
 * invertStaubliMapping extends such an order to moduleSize x modules entries
 * (map must hold that many): modules follow one another when blockwise is
 * non-zero, otherwise they take turns group by group (12 hooks of each module
 * in turn), as JC4 cards store them. With invert non-zero the result is
 * inverted, so that after
 *     makeStaubliMapping(map, S); invertStaubliMapping(map, S, modules, 1, 0);
 * picture column x shows file hook position map[x]. Nothing happens for a
 * NULL map or a size or count below 1, or when there is no memory for the
 * temporary copy.
 */
VLOAD_API void makeStaubliMapping(uint32_t *map, int32_t moduleSize);
VLOAD_API void invertStaubliMapping(uint32_t *map, int32_t moduleSize, int32_t modules,
                                    int32_t invert, int32_t blockwise);
/* The calling thread's module size for JC4 cards whose hook count several
   sizes divide: 0 (the default) lets each band's data decide, 1 (or any
   negative value) 1344, 2 1536, 3 or more 3072. Kept until set again. */
VLOAD_API void setDefaultMappingJC4(int32_t value);

/* ---- Settings of the calling thread ------------------------------------------ */
/* Each setter stores a copy for the calling thread; NULL clears it. A getter
   returns NULL in a thread that never set the value; its pointer stays valid
   until the next call of that setter in the same thread. Loaders that need an
   unset value refuse the file with VLOAD_NOT_THIS_FORMAT. */
VLOAD_API void llibSetTmpDir(const char *directory);
VLOAD_API const char *llibGetTmpDir(void);
VLOAD_API void llibSetGzipCommand(const char *command);
VLOAD_API const char *llibGetGzipCommand(void);
VLOAD_API void llibSetUnzipCommand(const char *command);
VLOAD_API const char *llibGetUnzipCommand(void);
VLOAD_API void llibSetMsExpandCommand(const char *command);
VLOAD_API const char *llibGetMsExpandCommand(void);
VLOAD_API void llibSetVectorPreviewCommand(const char *command);
VLOAD_API const char *llibGetVectorPreviewCommand(void);
/* 0 (default): 1-bit BMPs come as VLOAD_LAYOUT_BILEVEL; 1: as
   VLOAD_LAYOUT_INDEXED, one byte 0 or 1 a pixel. Read at every BMP tryLoad. */
VLOAD_API void llibUpscale1BitToCmapBMP(int flag);
/* Switches kept for loaders of this family; per thread. */
VLOAD_API void llibSetBonasLinePadding(int value);
VLOAD_API void setVerboseXML(int value);

/* ---- Colour tools --------------------------------------------------------------
 * Turn a true-colour picture into an indexed one. They work on the caller's
 * buffers only and keep nothing between calls; every stride is in bytes and
 * at least one row. A true-colour picture has 3 bytes a pixel (R, G, B) or,
 * in the RGBA variants, 4 (R, G, B, A); an index picture one byte a pixel (two
 * in colorQuantizeDitherFS16); a colour map is entries of 3 bytes R, G, B.
 *
 * Transparent flags (RGBA variants): one byte per colour-map entry, non-zero
 * for the transparent entry. A pixel of alpha 0 takes the first flagged entry;
 * flagged entries are never chosen for other pixels. Other alpha values count
 * as opaque (except in checkRGBAPalette).
 *
 * Nearest colour: the entry at the smallest squared RGB distance, the first of
 * equals; but the first colour met in each cube cell (the top 6 bits of each
 * channel) decides for the whole cell, so a later colour of the same cell may
 * get an entry that is not quite its own nearest. This is what makes the
 * tools fast. Noise (0..100, clamped) adds random offsets in -noise..noise to
 * each channel first; the random numbers are the library's own, per thread.
 *
 * Bad arguments (null pointers, sizes below 1, short strides, colour counts
 * outside 1..256, or 1..65536 for the 16-bit ditherer) write nothing.
 */
/* Reduces a picture to at most *colourCount colours (1..256 on entry; on return
   the number made), writing indices to dst and the colours to colourMap. A
   picture with no more colours than wanted keeps them exactly, in order of
   first appearance; otherwise a median cut of the colour cube picks them.
   With src NULL, dst holds an index picture over the 256 entries of colourMap,
   which is reduced in place. Returns 0; on bad arguments or when memory runs
   out *colourCount is left unchanged. */
VLOAD_API int32_t colorQuantize(const uint8_t *src, int32_t srcStride, uint8_t *dst,
                                int32_t dstStride, int32_t width, int32_t height,
                                uint8_t *colourMap, int32_t *colourCount);
/* The same for RGBA pixels. When some pixel has alpha 0 and transparentFlags
   (256 bytes, written) is given, one entry is kept for those pixels: entry 0
   when the colours are kept exactly, else the entry after the cut colours; it
   reads 0, 0, 0 and is the only flagged one. With src NULL the flags mark the
   old map's transparent entries on entry. */
VLOAD_API int32_t colorQuantizeRGBA(const uint8_t *src, int32_t srcStride, uint8_t *dst,
                                    int32_t dstStride, int32_t width, int32_t height,
                                    uint8_t *colourMap, int32_t *colourCount,
                                    uint8_t *transparentFlags);
/* Maps every pixel to the nearest of colourCount entries. Return 1, or 0 for
   bad arguments or when memory runs out. */
VLOAD_API int32_t trueColorRemapToCmap(const uint8_t *src, int32_t srcStride, uint8_t *dst,
                                       int32_t dstStride, int32_t width, int32_t height,
                                       const uint8_t *colourMap, int32_t colourCount,
                                       int32_t noise);
VLOAD_API int32_t RGBARemapToCmap(const uint8_t *src, int32_t srcStride, uint8_t *dst,
                                  int32_t dstStride, int32_t width, int32_t height,
                                  const uint8_t *colourMap, int32_t colourCount,
                                  const uint8_t *transparentFlags, int32_t noise);
/* Floyd-Steinberg dithering onto a colour map while scaling srcWidth x
   srcHeight to dstWidth x dstHeight by nearest neighbour (output column x takes
   source column x * srcWidth / dstWidth, rows likewise). Rows run left to
   right; the error goes 7/16 right, 3/16 below left, 5/16 below, 1/16 below
   right, times strength/16 (0..16, clamped; 0 maps to the nearest colour).
   colorQuantizeDitherFS_Internal takes bytesPerPixel 3 or 4 (transparent
   flags only with 4); the 16-bit variant writes 16-bit indices (dstStride in
   bytes, even) and takes up to 65536 entries. */
VLOAD_API void colorQuantizeDitherFS(const uint8_t *src, int32_t srcStride, uint8_t *dst,
                                     int32_t dstStride, int32_t srcWidth, int32_t srcHeight,
                                     int32_t dstWidth, int32_t dstHeight,
                                     const uint8_t *colourMap, int32_t colourCount,
                                     int32_t strength, int32_t noise);
VLOAD_API void RGBAcolorQuantizeDitherFS(const uint8_t *src, int32_t srcStride, uint8_t *dst,
                                         int32_t dstStride, int32_t srcWidth, int32_t srcHeight,
                                         int32_t dstWidth, int32_t dstHeight,
                                         const uint8_t *colourMap, int32_t colourCount,
                                         const uint8_t *transparentFlags, int32_t strength,
                                         int32_t noise);
VLOAD_API void colorQuantizeDitherFS_Internal(const uint8_t *src, int32_t srcStride, uint8_t *dst,
                                              int32_t dstStride, int32_t srcWidth,
                                              int32_t srcHeight, int32_t dstWidth,
                                              int32_t dstHeight, const uint8_t *colourMap,
                                              int32_t colourCount, const uint8_t *transparentFlags,
                                              int32_t strength, int32_t noise,
                                              int32_t bytesPerPixel);
VLOAD_API void colorQuantizeDitherFS16(const uint8_t *src, int32_t srcStride, uint16_t *dst,
                                       int32_t dstStride, int32_t srcWidth, int32_t srcHeight,
                                       int32_t dstWidth, int32_t dstHeight,
                                       const uint8_t *colourMap, int32_t colourCount,
                                       int32_t strength, int32_t noise);
/* The picture's distinct colours in order of first appearance: returns their
   number (1..256) with the colours in colourMap (768 bytes), or 0 when there
   are more than 256. checkRGBAPalette counts opaque pixels (alpha 255), skips
   alpha 0, and returns 0 for any other alpha; its entry 0 is the first pixel's
   colour whatever that pixel's alpha. */
VLOAD_API int32_t checkTrueColorPalette(const uint8_t *src, int32_t srcStride, int32_t width,
                                        int32_t height, uint8_t *colourMap);
VLOAD_API int32_t checkRGBAPalette(const uint8_t *src, int32_t srcStride, int32_t width,
                                   int32_t height, uint8_t *colourMap);

#ifdef __cplusplus
}
#endif

#endif /* VLOAD_H */
