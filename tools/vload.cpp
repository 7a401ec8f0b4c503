// tools/vload.cpp: the vload command: inspect and convert the files libVload reads.
//
//   vload [--tmp-dir DIR] [--gzip COMMAND] info FILE... [--loader N] [--json] [--colors] [--exif]
//   vload [--tmp-dir DIR] [--gzip COMMAND] convert FILE OUT.png [--loader N] [--band ROWS]
//         [--mirror] [--quiet] [--colors N | --palette FILE] [--dither 0..16]
//         [--noise 0..100] [--size WxH]
//   vload formats [--markdown]
//
// --tmp-dir and --gzip set what compressed cards (ZC5) are unpacked with:
// by default $TMPDIR (or /tmp) and "gzip".
//
// Loaders may print notes on standard output; the tool sends those to
// standard error, so that its own output (JSON above all) stays clean.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "framework/catalogue.h"
#include "framework/file.h"
#include "tools/drive.h"
#include "tools/exif_fields.h"
#include "tools/png_out.h"
#include "tools/recolour.h"
#include "vload.h"

namespace vload_tool {
namespace {

constexpr uint64_t kProgressPixels = 4'000'000;  // show progress for pictures above this
constexpr size_t kColoursALine = 8;               // info --colors

std::FILE* g_out = stdout;  // the tool's own output; set up in main

// ---- Words for what went wrong

const char* layoutName(uint8_t layout) {
  switch (layout) {
    case VLOAD_LAYOUT_BILEVEL: return "bilevel (1 bit a pixel)";
    case VLOAD_LAYOUT_INDEXED: return "indexed (8 bits a pixel, colour map)";
    case VLOAD_LAYOUT_RGB: return "RGB (24 bits a pixel)";
    case VLOAD_LAYOUT_RGBA: return "RGBA (32 bits a pixel)";
    default: return "unknown";
  }
}

std::string formatName(uint32_t loader) {
  const ldr::LoaderInfo* l = ldr::loaderInfo(int32_t(loader));
  if (!l) return "unknown";
  return *l->maker ? std::string(l->maker) + " " + l->format : std::string(l->format);
}

// A file that is missing, unreadable or no regular file is said so before any
// loader gets the blame.
std::string fileProblem(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0)
    return errno == ENOENT ? "no such file" : std::string("cannot examine: ") + std::strerror(errno);
  if (S_ISDIR(st.st_mode)) return "is a directory";
  if (::access(path.c_str(), R_OK) != 0) return "permission denied";
  return {};
}

std::string installProblem(uint32_t answer, int32_t forced) {
  switch (answer) {
    case VLOAD_NOT_RECOGNISED: return "not a recognised picture";
    case VLOAD_NOT_A_PICTURE: return "not a picture (its extension marks another kind of file)";
    case VLOAD_NAME_TOO_SHORT: return "file name too short to tell its format";
    case VLOAD_NO_SUCH_LOADER:
      return "there is no loader number " + std::to_string(forced) + " (1 to 77)";
    default: return "unexpected answer " + std::to_string(answer) + " from the loader table";
  }
}

std::string statusProblem(uint32_t status, uint32_t loader, bool delivering) {
  const ldr::LoaderInfo* l = ldr::loaderInfo(int32_t(loader));
  const std::string format = formatName(loader);
  switch (status) {
    case VLOAD_NO_MEMORY: return "out of memory";
    case VLOAD_CANNOT_OPEN: return "cannot open, or the header is cut short";
    case VLOAD_BAD_REQUEST: return "the loader does not accept this way of reading";
    case VLOAD_UNSUPPORTED: return "a variant of " + format + " that is not supported";
    case VLOAD_NOT_THIS_FORMAT:
      if (l && !l->available) return format + " files cannot be read by this build (not available)";
      return "not a valid " + format + " file, or a variant the loader does not read";
    case VLOAD_BAD_DATA:
      return delivering ? "data ended early or is damaged" : "picture dimensions out of range";
    default: return "status " + std::to_string(status);
  }
}

void complain(const std::string& path, const std::string& problem) {
  std::fprintf(stderr, "vload: %s: %s\n", path.c_str(), problem.c_str());
}

// ---- Loading

// Installs and describes one file; on failure says why and returns false.
bool open(const std::string& path, int32_t forced, Description& d, bool readColourMap) {
  if (const std::string p = fileProblem(path); !p.empty()) {
    complain(path, p);
    return false;
  }
  const uint32_t loader = install(forced, path.c_str());
  if (!ldr::loaderInfo(int32_t(loader))) {
    complain(path, installProblem(loader, forced));
    return false;
  }
  d.loader = loader;
  const uint32_t status = describe(path.c_str(), d, readColourMap);
  if (status != VLOAD_OK) {
    complain(path, statusProblem(status, loader, false));
    return false;
  }
  return true;
}

std::string density(uint32_t thousandths) {
  if (!thousandths) return "unknown";
  char text[32];
  std::snprintf(text, sizeof text, "%u.%03u", thousandths / 1000, thousandths % 1000);
  return text;
}

// "x x y dpi", or "unknown" when neither is known.
std::string densities(uint32_t x, uint32_t y) {
  if (!x && !y) return "unknown";
  return density(x) + " x " + density(y) + " dpi";
}

std::string jsonString(const char* s) {
  std::string out = "\"";
  for (; *s; ++s) {
    const unsigned char c = static_cast<unsigned char>(*s);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += char(c);
    } else if (c < 0x20) {
      char esc[8];
      std::snprintf(esc, sizeof esc, "\\u%04x", c);
      out += esc;
    } else {
      out += char(c);
    }
  }
  return out + "\"";
}

// ---- info

// An information text of several lines shows one quoted line under another;
// the blank lines between them are dropped.
std::string infoLines(const char* s) {
  if (!std::strpbrk(s, "\r\n")) return jsonString(s);
  std::string out, line;
  for (const char* p = s;; ++p) {
    if (*p && *p != '\r' && *p != '\n') {
      line += *p;
      continue;
    }
    if (!line.empty()) out += (out.empty() ? "" : "\n              ") + jsonString(line.c_str());
    line.clear();
    if (!*p) break;
  }
  return out.empty() ? jsonString(s) : out;
}

// ---- EXIF

// The EXIF fields of a file: a JSON object (or null), or lines under "exif:".
std::string exifReport(const std::string& path, bool json) {
  const std::optional<std::vector<ExifField>> fields = exifFieldsOf(path);
  if (!fields) return json ? "null" : "       none\n";
  std::string out = json ? "{" : "\n";  // a JSON object, or the lines under "exif:"
  for (const ExifField& f : *fields) {
    const std::string value = f.text ? jsonString(f.value.c_str()) : f.value;
    if (json) {
      out += (out.size() > 1 ? ", \"" : "\"") + std::string(f.key) + "\": " + value;
    } else {
      char line[64];
      std::snprintf(line, sizeof line, "    %-22s ", f.key);
      out += line + value + "\n";
    }
  }
  return json ? out + "}" : out;
}

// ---- info

std::vector<std::string> pictureColours(const Description& d);

std::string joined(const std::vector<std::string>& items, const char* separator) {
  std::string out;
  for (const std::string& item : items) out += (out.empty() ? "" : separator) + item;
  return out;
}

int runInfo(const std::vector<std::string>& files, int32_t forced, bool json, bool colours,
            bool exif) {
  int failures = 0;
  if (json) std::fputs("[", g_out);
  for (size_t i = 0; i < files.size(); ++i) {
    const std::string& path = files[i];
    Description d;
    const bool ok = open(path, forced, d, colours);
    std::vector<std::string> hex;
    if (ok && colours) hex = pictureColours(d);
    if (ok) endLoad();
    failures += !ok;
    if (json) {
      std::fprintf(g_out, "%s\n  {\"file\": %s", i ? "," : "", jsonString(path.c_str()).c_str());
      if (!ok) {
        std::fputs(", \"ok\": false}", g_out);
        continue;
      }
      std::fprintf(g_out,
                   ", \"ok\": true, \"loader\": %u, \"format\": %s, \"width\": %u, \"height\": %u, "
                   "\"layout\": %u, \"xDensity\": %u, \"yDensity\": %u, \"xRepeat\": %u, "
                   "\"yRepeat\": %u, \"mirrorX\": %s, \"firstPart\": %s, \"info\": %s",
                   d.loader, jsonString(formatName(d.loader).c_str()).c_str(), d.width, d.height,
                   d.layout, d.xDensity, d.yDensity, d.xRepeat, d.yRepeat,
                   d.mirrorX ? "true" : "false", d.firstPart ? "true" : "false",
                   jsonString(d.info).c_str());
      if (colours) {
        std::vector<std::string> quoted;
        for (const std::string& h : hex) quoted.push_back(jsonString(h.c_str()));
        std::fprintf(g_out, ", \"colors\": [%s]", joined(quoted, ", ").c_str());
      }
      if (exif) std::fprintf(g_out, ", \"exif\": %s", exifReport(path, true).c_str());
      std::fputs("}", g_out);
      continue;
    }
    if (!ok) continue;
    std::fprintf(g_out,
                 "%s\n"
                 "  loader:     %u (%s)\n"
                 "  size:       %u x %u\n"
                 "  layout:     %u, %s\n"
                 "  density:    %s\n"
                 "  repeat:     %u x %u\n"
                 "  mirror:     %s\n"
                 "  first part: %s\n"
                 "  info:       %s\n",
                 path.c_str(), d.loader, formatName(d.loader).c_str(), d.width, d.height, d.layout,
                 layoutName(d.layout), densities(d.xDensity, d.yDensity).c_str(),
                 d.xRepeat, d.yRepeat, d.mirrorX ? "yes" : "no", d.firstPart ? "yes" : "no",
                 infoLines(d.info).c_str());
    if (colours) {
      std::string lines;
      for (size_t k = 0; k < hex.size(); ++k)
        lines += (k == 0 ? "" : k % kColoursALine ? " " : "\n              ") + hex[k];
      std::fprintf(g_out, "  colours:    %s\n", hex.empty() ? "none (no colour map)" : lines.c_str());
    }
    if (exif) std::fprintf(g_out, "  exif:%s", exifReport(path, false).c_str());
  }
  if (json) std::fputs("\n]\n", g_out);
  return failures ? 1 : 0;
}

// ---- convert

void mirrorRows(const Description& d, uint8_t* image) {
  const uint32_t pixelBytes = d.layout == VLOAD_LAYOUT_RGB ? 3 : d.layout == VLOAD_LAYOUT_RGBA ? 4 : 1;
  for (uint32_t y = 0; y < d.height; ++y) {
    uint8_t* row = image + uint64_t{y} * uint32_t(d.stride);
    if (d.layout == VLOAD_LAYOUT_BILEVEL) {
      for (uint32_t a = 0, b = d.width - 1; a < b; ++a, --b) {
        const int pa = row[a / 8] >> (7 - a % 8) & 1, pb = row[b / 8] >> (7 - b % 8) & 1;
        if (pa == pb) continue;
        row[a / 8] ^= uint8_t(0x80 >> (a % 8));
        row[b / 8] ^= uint8_t(0x80 >> (b % 8));
      }
      continue;
    }
    for (uint32_t a = 0, b = d.width - 1; a < b; ++a, --b)
      for (uint32_t k = 0; k < pixelBytes; ++k) std::swap(row[a * pixelBytes + k], row[b * pixelBytes + k]);
  }
}

// Palette entries a PNG needs: up to the highest index the picture uses.
int coloursUsed(const Description& d, const uint8_t* image) {
  uint8_t highest = 0;
  for (uint32_t y = 0; y < d.height; ++y) {
    const uint8_t* row = image + uint64_t{y} * uint32_t(d.stride);
    for (uint32_t x = 0; x < d.width; ++x) highest = row[x] > highest ? row[x] : highest;
  }
  return highest + 1;
}

// The colours of a palette file (its row of swatches) or of an indexed
// picture (its colour map up to the highest index used), as "#rrggbb"; none
// for other pictures. Delivers the picture to find them.
std::vector<std::string> pictureColours(const Description& d) {
  const ldr::LoaderInfo* l = ldr::loaderInfo(int32_t(d.loader));
  const bool palette = l && l->kind == ldr::Kind::Palette;
  std::vector<std::string> out;
  if (d.layout != VLOAD_LAYOUT_INDEXED && !(palette && d.layout == VLOAD_LAYOUT_RGB)) return out;
  const uint64_t bytes = imageBytes(d);
  ldr::Block image = bytes ? ldr::allocBlock(size_t(bytes)) : nullptr;
  if (!image || deliverAll(d, image.get(), 0) != VLOAD_OK) return out;
  const auto hex = [](const uint8_t* rgb) {
    char text[8];
    std::snprintf(text, sizeof text, "#%02x%02x%02x", rgb[0], rgb[1], rgb[2]);
    return std::string(text);
  };
  if (d.layout == VLOAD_LAYOUT_RGB) {
    for (uint32_t x = 0; x < d.width; ++x) out.push_back(hex(image.get() + 3 * x));
    return out;
  }
  for (int i = 0, n = coloursUsed(d, image.get()); i < n; ++i) out.push_back(hex(d.colourMap + 3 * i));
  return out;
}

uint64_t physicalMemory() {
  const long pages = ::sysconf(_SC_PHYS_PAGES), pageSize = ::sysconf(_SC_PAGESIZE);
  return pages > 0 && pageSize > 0 ? uint64_t(pages) * uint64_t(pageSize) : UINT64_MAX;
}

// Loads a palette file through the library and takes its colours.
bool loadPalette(const std::string& path, uint8_t* map, int& count) {
  Description d;
  if (!open(path, 0, d, true)) return false;
  const uint64_t bytes = imageBytes(d);
  ldr::Block image = bytes && bytes <= physicalMemory() ? ldr::allocBlock(size_t(bytes)) : nullptr;
  const uint32_t status = image ? deliverAll(d, image.get(), 0) : VLOAD_NO_MEMORY;
  endLoad();
  std::string problem = status == VLOAD_OK ? paletteOf(d, image.get(), map, count)
                                           : statusProblem(status, d.loader, true);
  if (!problem.empty()) complain(path, problem);
  return problem.empty();
}

// Writes the PNG; on failure says why and leaves no partial file.
int writeOutput(const std::string& output, const PngPicture& png) {
  if (const char* problem = writePng(output.c_str(), png)) {
    complain(output, problem);
    std::remove(output.c_str());
    return 1;
  }
  return 0;
}

// Reduces the picture per --colors/--palette/--dither/--noise/--size and
// writes it as a palette PNG.
int writeRecoloured(const Description& d, const uint8_t* image, const RecolourOptions& o,
                    const std::string& palette, const std::string& path, const std::string& output) {
  uint8_t map[256 * 3];
  int count = 0;
  if (o.palette && !loadPalette(palette, map, count)) return 1;
  Indexed ix;
  if (const std::string problem = recolour(d, image, o, map, count, ix); !problem.empty()) {
    complain(path, problem);
    return 1;
  }
  PngPicture png;
  png.pixels = ix.pixels.data();
  png.width = ix.width;
  png.height = ix.height;
  png.stride = int32_t(ix.width);
  png.layout = VLOAD_LAYOUT_INDEXED;
  png.colourMap = ix.map;
  png.colours = ix.colours;
  png.transparent = ix.transparent;
  if (ix.width == d.width && ix.height == d.height) {  // densities hold only unscaled
    png.xDensity = d.xDensity;
    png.yDensity = d.yDensity;
  }
  return writeOutput(output, png);
}

int runConvert(const std::string& path, const std::string& output, int32_t forced, uint32_t band,
               bool mirror, bool quiet, const RecolourOptions& colours, const std::string& palette) {
  Description d;
  if (!open(path, forced, d, true)) return 1;
  const uint64_t bytes = imageBytes(d);
  ldr::Block image = bytes && bytes <= physicalMemory() ? ldr::allocBlock(size_t(bytes)) : nullptr;
  if (!image) {
    endLoad();
    complain(path, "out of memory: the picture needs " + std::to_string(bytes >> 20) + " MiB");
    return 1;
  }
  const bool showProgress = !quiet && ::isatty(STDERR_FILENO) &&
                            uint64_t{d.width} * d.height > kProgressPixels;
  const auto progress = [&](uint32_t done) {
    std::fprintf(stderr, "\rconverting %s: %3u%%", path.c_str(),
                 unsigned(uint64_t{done} * 100 / d.height));
  };
  const uint32_t status = deliverAll(
      d, image.get(), band, showProgress ? std::function<void(uint32_t)>(progress) : nullptr);
  endLoad();
  if (showProgress) std::fputs("\r\033[K", stderr);
  if (status != VLOAD_OK) {
    complain(path, statusProblem(status, d.loader, true));
    return 1;
  }
  if (mirror && d.mirrorX) mirrorRows(d, image.get());
  if (colours.asked()) return writeRecoloured(d, image.get(), colours, palette, path, output);
  PngPicture png;
  png.pixels = image.get();
  png.width = d.width;
  png.height = d.height;
  png.stride = d.stride;
  png.layout = d.layout;
  png.colourMap = d.colourMap;
  png.colours = d.layout == VLOAD_LAYOUT_INDEXED ? coloursUsed(d, image.get()) : 0;
  png.xDensity = d.xDensity;
  png.yDensity = d.yDensity;
  return writeOutput(output, png);
}

// ---- formats

int runFormats(bool markdown) {
  const char* row = markdown ? "| %d | %s | %s | %s |\n" : "%-4d %-36s %-22s %s\n";
  if (markdown)
    std::fputs("| no. | format | extensions | available |\n|---:|---|---|---|\n", g_out);
  else
    std::fprintf(g_out, "%-4s %-36s %-22s %s\n", "no.", "format", "extensions", "available");
  for (const ldr::LoaderInfo& l : ldr::loaders())
    std::fprintf(g_out, row, l.number, formatName(uint32_t(l.number)).c_str(),
                 *l.extensions ? l.extensions : "-", l.available ? "yes" : "no");
  return 0;
}

}  // namespace
}  // namespace vload_tool

int main(int argc, char** argv) {
  using namespace vload_tool;
  CLI::App app{"vload: inspect and convert weaving, jacquard and picture files"};
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string("vload 0.1.0"));

  std::vector<std::string> files;
  std::string input, output;
  int32_t loader = 0;
  uint32_t band = 64;
  bool json = false, mirror = false, quiet = false, exif = false;
  const char* tmp = std::getenv("TMPDIR");
  std::string tmpDir = tmp && *tmp ? tmp : "/tmp", gzip = "gzip";
  app.add_option("--tmp-dir", tmpDir, "folder for unpacked compressed cards")->capture_default_str();
  app.add_option("--gzip", gzip, "command that unpacks gzip-compressed cards")->capture_default_str();

  CLI::App* info = app.add_subcommand("info", "describe files: loader, size, layout, densities, info text");
  info->add_option("files", files, "files to describe")->required();
  info->add_option("--loader", loader, "use this loader number instead of detecting it")
      ->check(CLI::Range(1, 77));
  info->add_flag("--json", json, "print a JSON array, one object a file");
  bool listColours = false;
  info->add_flag("--colors", listColours,
                 "also the colours: a palette's swatches, an indexed picture's colour map");
  info->add_flag("--exif", exif, "print the fields of a JPEG file's EXIF block");

  CLI::App* convert = app.add_subcommand("convert", "load a file band by band and write it as PNG");
  convert->add_option("file", input, "file to read")->required();
  convert->add_option("output", output, "PNG file to write")->required();
  convert->add_option("--loader", loader, "use this loader number instead of detecting it")
      ->check(CLI::Range(1, 77));
  convert->add_option("--band", band, "rows a loadBand call delivers (0: all at once)")
      ->capture_default_str()
      ->check(CLI::Range(0, 1 << 30));
  convert->add_flag("--mirror", mirror, "apply the file's horizontal mirror flag");
  convert->add_flag("--quiet", quiet, "no progress line");
  RecolourOptions colours;
  std::string palette, size;
  CLI::Option* colorsOption =
      convert->add_option("--colors", colours.colours, "reduce to at most N colours (median cut)")
          ->check(CLI::Range(1, 256));
  convert->add_option("--palette", palette, "map onto the colours of this palette file (any format read)")
      ->excludes(colorsOption);
  convert->add_option("--dither", colours.dither, "Floyd-Steinberg dithering, strength 0..16 (16: full)")
      ->check(CLI::Range(0, 16));
  convert->add_option("--noise", colours.noise, "random noise 0..100 added before mapping")
      ->check(CLI::Range(0, 100));
  convert->add_option("--size", size, "output size WxH, scaled by nearest neighbour");

  bool markdown = false;
  CLI::App* formats =
      app.add_subcommand("formats", "list the loaders: number, format, extensions, availability");
  formats->add_flag("--markdown", markdown, "print a Markdown table");

  CLI11_PARSE(app, argc, argv);
  llibSetTmpDir(tmpDir.c_str());
  llibSetGzipCommand(gzip.c_str());
  colours.palette = !palette.empty();
  if (!size.empty() && !parseSize(size, colours.width, colours.height)) {
    std::fprintf(stderr, "vload: --size: \"%s\" is not WxH with sides 1..1048576\n", size.c_str());
    return 2;
  }
  if (colours.asked() && !colours.colours && !colours.palette) {
    std::fputs("vload: --dither, --noise and --size need --colors or --palette\n", stderr);
    return 2;
  }

  // The tool's own output keeps the real standard output; whatever a loader
  // prints there goes to standard error instead.
  std::fflush(stdout);
  const int outFd = ::dup(STDOUT_FILENO);
  if (outFd >= 0 && ::dup2(STDERR_FILENO, STDOUT_FILENO) >= 0) {
    ::fcntl(outFd, F_SETFD, FD_CLOEXEC);
    if (std::FILE* out = ::fdopen(outFd, "w")) g_out = out;
  }
  int rc = 0;
  if (*info) rc = runInfo(files, loader, json, listColours, exif);
  else if (*convert) rc = runConvert(input, output, loader, band, mirror, quiet, colours, palette);
  else rc = runFormats(markdown);
  std::fflush(g_out);
  return rc;
}
