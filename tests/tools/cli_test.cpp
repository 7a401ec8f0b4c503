// The vload tool end to end: it is run as a separate process, and the PNGs it
// writes are read back with libpng.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <png.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/bmp_writer.h"
#include "tests/support/exif_writer.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/palette_writer.h"
#include "tests/support/temp_file.h"
#include "vload.h"

extern char** environ;

namespace {

using vtest::BmpBuilder;
using vtest::Bytes;
using vtest::TempFile;

struct CliRun {
  int exitCode = -1;
  std::string out, err;
};

// Runs the tool with these arguments, no shell involved.
CliRun vload(std::vector<std::string> args) {
  args.insert(args.begin(), VLOAD_CLI);
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  const TempFile out(Bytes{}, ".out"), err(Bytes{}, ".err");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out.path(), O_WRONLY | O_TRUNC, 0);
  posix_spawn_file_actions_addopen(&actions, 2, err.path(), O_WRONLY | O_TRUNC, 0);
  pid_t pid = 0;
  CliRun r;
  if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  posix_spawn_file_actions_destroy(&actions);
  const Bytes o = vtest::readFile(out.path()), e = vtest::readFile(err.path());
  r.out.assign(o.begin(), o.end());
  r.err.assign(e.begin(), e.end());
  return r;
}

struct Png {
  bool ok = false;
  uint32_t width = 0, height = 0;
  int colourType = -1, depth = 0;
  std::vector<png_color> palette;
  png_uint_32 xPpm = 0, yPpm = 0;
  std::vector<uint8_t> alphas;  // tRNS of a palette picture
  Bytes rows;  // as stored: packed bits, indexes, RGB or RGBA
};

// Plain C data only in this frame: libpng may jump back into it.
bool readPngInto(std::FILE* f, png_structp png, png_infop info, Png* p) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_init_io(png, f);
  png_read_png(png, info, PNG_TRANSFORM_IDENTITY, nullptr);
  p->width = png_get_image_width(png, info);
  p->height = png_get_image_height(png, info);
  p->colourType = png_get_color_type(png, info);
  p->depth = png_get_bit_depth(png, info);
  png_colorp palette = nullptr;
  int entries = 0;
  if (png_get_PLTE(png, info, &palette, &entries)) p->palette.assign(palette, palette + entries);
  png_bytep alpha = nullptr;
  int alphaCount = 0;
  if (png_get_tRNS(png, info, &alpha, &alphaCount, nullptr)) p->alphas.assign(alpha, alpha + alphaCount);
  int unit = 0;
  png_get_pHYs(png, info, &p->xPpm, &p->yPpm, &unit);
  const size_t rowBytes = png_get_rowbytes(png, info);
  png_bytepp all = png_get_rows(png, info);
  for (uint32_t y = 0; y < p->height; ++y) p->rows.insert(p->rows.end(), all[y], all[y] + rowBytes);
  return true;
}

Png readPng(const std::string& path) {
  Png p;
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return p;
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  p.ok = readPngInto(f, png, info, &p);
  png_destroy_read_struct(&png, &info, nullptr);
  std::fclose(f);
  return p;
}

std::string outPath(const char* name) { return vtest::tempDir() + "/" + name; }

TEST(Cli, ConvertsEveryDepthToPng) {
  struct Case { const char* name; BmpBuilder b; int colourType, depth; };
  const Case cases[] = {
      {"1 bit", BmpBuilder{}.size(13, 5).bits(1).palette(vtest::whiteBlack()), PNG_COLOR_TYPE_PALETTE, 1},
      {"4 bits", BmpBuilder{}.size(13, 5).bits(4).palette(vtest::greyRamp(16)), PNG_COLOR_TYPE_PALETTE, 8},
      {"8 bits", BmpBuilder{}.size(13, 5).bits(8).palette(vtest::greyRamp(256)), PNG_COLOR_TYPE_PALETTE, 8},
      {"24 bits", BmpBuilder{}.size(13, 5).bits(24).pixelsPerMetre(3780, 3780), PNG_COLOR_TYPE_RGB, 8},
      {"32 bits", BmpBuilder{}.size(13, 5).bits(32), PNG_COLOR_TYPE_RGB_ALPHA, 8},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile in(c.b.build(), ".bmp");
    const std::string out = outPath("converted.png");
    const CliRun r = vload({"convert", in.path(), out, "--band", "2"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const Png png = readPng(out);
    ASSERT_TRUE(png.ok);
    EXPECT_EQ(png.width, 13u);
    EXPECT_EQ(png.height, 5u);
    EXPECT_EQ(png.colourType, c.colourType);
    EXPECT_EQ(png.depth, c.depth);
    Bytes want = c.b.expectedRows(), got = png.rows;
    if (c.depth == 1) {
      ASSERT_EQ(png.palette.size(), 2u);
      EXPECT_EQ(png.palette[1].red, 0);  // a set bit is dark
      // libpng leaves the padding bits of its own row buffer as they were.
      for (size_t i = 1; i < got.size() && i < want.size(); i += 2) got[i] &= 0xF8, want[i] &= 0xF8;
    }
    EXPECT_EQ(got, want);
    if (c.colourType == PNG_COLOR_TYPE_RGB) {
      EXPECT_EQ(png.xPpm, 3780u);
      EXPECT_EQ(png.yPpm, 3780u);
    }
  }
}

TEST(Cli, PaletteHoldsTheColoursUsed) {
  const BmpBuilder b = BmpBuilder{}.size(4, 4).bits(8).palette(vtest::greyRamp(256)).pixels(
      [](uint32_t x, uint32_t, int) { return uint8_t(x * 2); });
  const TempFile in(b.build(), ".bmp");
  const std::string out = outPath("palette.png");
  ASSERT_EQ(vload({"convert", in.path(), out}).exitCode, 0);
  const Png png = readPng(out);
  ASSERT_EQ(png.palette.size(), 7u);  // indexes up to 6
  EXPECT_EQ(png.palette[6].red, 6);
}

TEST(Cli, ReducesColoursToAPalettePng) {
  const auto gradient = [](uint32_t x, uint32_t y, int c) { return uint8_t(x * 8 + y * 5 + c * 60); };
  const TempFile rgb(BmpBuilder{}.size(32, 16).bits(24).pixels(gradient).build(), ".bmp");
  const std::string out = outPath("reduced.png");
  ASSERT_EQ(vload({"convert", rgb.path(), out, "--colors", "5"}).exitCode, 0);
  Png png = readPng(out);
  ASSERT_TRUE(png.ok);
  EXPECT_EQ(png.colourType, PNG_COLOR_TYPE_PALETTE);
  EXPECT_EQ(png.width, 32u);
  EXPECT_LE(png.palette.size(), 5u);
  for (uint8_t i : png.rows) ASSERT_LT(i, png.palette.size());

  // Onto a palette picture's colours, dithered and scaled.
  const std::vector<vtest::Rgb> yarns = {{200, 30, 30}, {20, 20, 160}, {240, 230, 200}};
  const TempFile pal(BmpBuilder{}.size(3, 1).bits(8).palette(yarns).pixels(
                         [](uint32_t x, uint32_t, int) { return uint8_t(x); }).build(), ".bmp");
  ASSERT_EQ(vload({"convert", rgb.path(), out, "--palette", pal.path(), "--dither", "16", "--size", "16x8"}).exitCode, 0);
  png = readPng(out);
  ASSERT_EQ(png.palette.size(), 3u);
  EXPECT_EQ(png.width, 16u);
  EXPECT_EQ(png.height, 8u);
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(png.palette[i].blue, yarns[i].b);

  // Transparent pixels get a fully transparent entry.
  const TempFile rgba(BmpBuilder{}.size(8, 8).bits(32).pixels([](uint32_t x, uint32_t y, int c) {
                        return uint8_t(c == 3 ? (x < 2 ? 0 : 255) : x * 30 + y * 7);
                      }).build(), ".bmp");
  ASSERT_EQ(vload({"convert", rgba.path(), out, "--colors", "4", "--noise", "10"}).exitCode, 0);
  png = readPng(out);
  ASSERT_FALSE(png.alphas.empty());
  EXPECT_EQ(png.alphas.back(), 0);
  EXPECT_EQ(png.rows[0], png.alphas.size() - 1);

  struct Case { std::vector<std::string> args; std::string words; };
  const TempFile many(BmpBuilder{}.size(300, 1).bits(24).pixels([](uint32_t x, uint32_t, int c) {
                        return uint8_t(c ? x / 2 : x);
                      }).build(), ".bmp");
  const std::vector<Case> refused = {
      {{"--dither", "8"}, "need --colors or --palette"},
      {{"--colors", "3", "--size", "10"}, "is not WxH"},
      {{"--colors", "3", "--palette", pal.path()}, "excludes"},
      {{"--palette", many.path()}, "more than 256 colours"},
      {{"--colors", "0"}, "not in range"},
  };
  for (const Case& c : refused) {
    SCOPED_TRACE(c.words);
    std::vector<std::string> args = {"convert", rgb.path(), out};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const CliRun r = vload(args);
    EXPECT_NE(r.exitCode, 0);
    EXPECT_NE(r.err.find(c.words), std::string::npos) << r.err;
  }
}

TEST(Cli, InfoAsTextAndJson) {
  const TempFile in(BmpBuilder{}.size(640, 3).bits(24).pixelsPerMetre(3780, 3780).build(), ".bmp");
  CliRun r = vload({"info", in.path()});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_NE(r.out.find("loader:     24 (BMP)"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("size:       640 x 3"), std::string::npos);
  EXPECT_NE(r.out.find("density:    96.012 x 96.012 dpi"), std::string::npos);
  EXPECT_NE(r.out.find("info:       \" \""), std::string::npos);

  r = vload({"info", "--json", in.path(), "/no/such/file.bmp"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(r.out.find("\"loader\": 24"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\"width\": 640"), std::string::npos);
  EXPECT_NE(r.out.find("\"ok\": false"), std::string::npos);
  EXPECT_EQ(r.out.front(), '[');
  EXPECT_NE(r.err.find("/no/such/file.bmp: no such file"), std::string::npos) << r.err;

  r = vload({"info", "--loader", "24", in.path()});
  EXPECT_EQ(r.exitCode, 0);
}

TEST(Cli, InfoPrintsExifFields) {
  const Bytes exif = vtest::ExifBuilder(true).ascii(0x010F, "Weaver").rational(0x011A, 300, 1).block();
  const TempFile jpeg(vtest::JpegBuilder{}.app1(Bytes(exif.begin() + 2, exif.end())).build(), ".jpg");
  const TempFile bmp(BmpBuilder{}.build(), ".bmp");
  CliRun r = vload({"info", "--exif", jpeg.path(), bmp.path()});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_NE(r.out.find("    cameraMake             \"Weaver\"\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("    yResolution            300\n"), std::string::npos);
  EXPECT_NE(r.out.find("  exif:       none\n"), std::string::npos);
  r = vload({"info", "--exif", "--json", jpeg.path(), bmp.path()});
  EXPECT_NE(r.out.find("\"info\": \" \", \"exif\": {\"cameraMake\": \"Weaver\", "), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\"exif\": null}"), std::string::npos);
}

TEST(Cli, SaysWhatWentWrongInWords) {
  const BmpBuilder b = BmpBuilder{}.size(8, 8).bits(24);
  const Bytes full = b.build();
  const TempFile cut(vtest::truncated(full, full.size() - 40), ".bmp");
  const TempFile v5(BmpBuilder{}.headerSize(124).build(), ".bmp");
  const TempFile text(Bytes{'h', 'e', 'l', 'l', 'o'}, ".xyz");
  const TempFile unread(Bytes{'C', 'G', 'S', 'I', 'I', '1', 0, 0}, ".bin");
  const TempFile locked(full, ".bmp");
  ::chmod(locked.path(), 0);
  struct Case { std::vector<std::string> args; std::string words; };
  const std::vector<Case> cases = {
      {{"convert", cut.path(), outPath("x.png")}, "data ended early"},
      {{"info", v5.path()}, "not a valid BMP file"},
      {{"info", text.path()}, "not a recognised picture"},
      {{"info", unread.path()}, "Takemura CGS files cannot be read by this build"},
      {{"info", vtest::tempDir()}, "is a directory"},
      {{"info", "/no/such/file"}, "no such file"},
      {{"info", "--loader", "24", text.path()}, "not a valid BMP file"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.words);
    const CliRun r = vload(c.args);
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.err.find(c.words), std::string::npos) << r.err;
  }
  if (::geteuid() != 0) {  // root reads anything
    const CliRun r = vload({"info", locked.path()});
    EXPECT_NE(r.err.find("permission denied"), std::string::npos) << r.err;
  }
  const TempFile good(full, ".bmp");
  const CliRun r = vload({"convert", good.path(), "/no/such/dir/out.png"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(r.err.find("cannot create the output file"), std::string::npos) << r.err;
  EXPECT_NE(vload({"info", "--loader", "78", text.path()}).exitCode, 0);
  EXPECT_NE(vload({}).exitCode, 0);
}

TEST(Cli, InfoListsColours) {
  std::vector<vtest::Rgb> many;
  for (int i = 0; i < 300; ++i) many.push_back({uint8_t(i), 0x10, 0xAB});
  const TempFile small(vtest::jascPalette({{255, 0, 16}, {1, 2, 3}}), ".pal");
  const TempFile large(vtest::jascPalette(many), ".pal");
  const TempFile indexed(BmpBuilder{}.size(4, 2).bits(8).palette(vtest::greyRamp(256)).pixels(
                             [](uint32_t x, uint32_t, int) { return uint8_t(x); }).build(), ".bmp");
  const TempFile rgb(BmpBuilder{}.build(), ".bmp");

  CliRun r = vload({"info", "--colors", small.path(), rgb.path()});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_NE(r.out.find("colours:    #ff0010 #010203\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("colours:    none"), std::string::npos) << r.out;

  r = vload({"info", "--json", "--colors", large.path(), indexed.path()});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_NE(r.out.find("\"colors\": [\"#0010ab\", \"#0110ab\""), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\"#2a10ab\", \"#2b10ab\"]}"), std::string::npos) << r.out;  // all 300
  EXPECT_NE(r.out.find("\"colors\": [\"#000000\", \"#010101\", \"#020202\", \"#030303\"]}"),
            std::string::npos);  // the map up to the highest index used
}

TEST(Cli, FormatsListsEveryLoader) {
  const CliRun r = vload({"formats"});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_NE(r.out.find("24   BMP"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("bmp dib"), std::string::npos);
  EXPECT_NE(r.out.find("77   Bonas harness XML"), std::string::npos);
  size_t lines = 0;
  for (char c : r.out) lines += c == '\n';
  EXPECT_EQ(lines, 78u);  // heading and 77 loaders
}

}  // namespace
