// The vload tool end to end: it is run as a separate process, and the PNGs it
// writes are read back with libpng.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <png.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/bmp_writer.h"
#include "tests/support/exif_writer.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/palette_writer.h"
#include "tests/support/png_writer.h"
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

// A PNG as libpng reads it, and the pixels per metre of its pHYs chunk.
struct Png : vtest::PngSamples {
  uint32_t xPpm = 0, yPpm = 0;
  size_t entries() const { return palette.size() / 3; }
  Bytes rows() const { return Bytes(samples.begin(), samples.end()); }
};

Png readPng(const std::string& path) {
  const Bytes file = vtest::readFile(path);
  Png png{vtest::decodePngSamples(path.c_str())};
  const auto be32 = [](auto p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; };
  const std::string_view phys = "pHYs";
  const auto at = std::search(file.begin(), file.end(), phys.begin(), phys.end());
  if (file.end() - at >= 12) png.xPpm = be32(at + 4), png.yPpm = be32(at + 8);
  return png;
}

std::string outPath(const char* name) { return vtest::tempDir() + "/" + name; }

// Every one of `parts` appears in `text`.
void expectAll(const std::string& text, std::initializer_list<std::string_view> parts) {
  for (std::string_view p : parts) EXPECT_NE(text.find(p), std::string::npos) << p << " in:\n" << text;
}

TEST(Cli, ConvertsEveryDepthToPng) {
  struct Case { uint16_t bits; std::vector<vtest::Rgb> palette; int colourType, depth; };
  const Case cases[] = {
      {1, vtest::whiteBlack(), PNG_COLOR_TYPE_PALETTE, 1},  // a set bit is dark
      {4, vtest::greyRamp(16), PNG_COLOR_TYPE_PALETTE, 8},
      {8, vtest::greyRamp(256), PNG_COLOR_TYPE_PALETTE, 8},
      {24, {}, PNG_COLOR_TYPE_RGB, 8},
      {32, {}, PNG_COLOR_TYPE_RGB_ALPHA, 8},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bits);
    const BmpBuilder b = BmpBuilder{}.size(13, 5).bits(c.bits).palette(c.palette).pixelsPerMetre(3780, 3780);
    const TempFile in(b.build(), ".bmp");
    const std::string out = outPath("converted.png");
    const CliRun r = vload({"convert", in.path(), out, "--band", "2"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const Png png = readPng(out);
    EXPECT_EQ(png.width, 13u);
    EXPECT_EQ(png.height, 5u);
    EXPECT_EQ(png.type, c.colourType);
    EXPECT_EQ(png.depth, c.depth);
    EXPECT_EQ(png.xPpm, 3780u);
    EXPECT_EQ(png.yPpm, 3780u);
    const Bytes want = b.expectedRows(true);
    EXPECT_EQ(png.rows(), want);
    if (c.palette.empty()) continue;
    // The palette holds the colours the picture uses, no more.
    const size_t used = c.bits == 1 ? 2 : size_t(*std::max_element(want.begin(), want.end())) + 1;
    ASSERT_EQ(png.entries(), used);
    for (size_t i = 0; i < used; ++i) EXPECT_EQ(png.palette[3 * i], c.palette[i].r) << i;
  }
}

TEST(Cli, ReducesColoursToAPalettePng) {
  const auto gradient = [](uint32_t x, uint32_t y, int c) { return uint8_t(x * 8 + y * 5 + c * 60); };
  const TempFile rgb(BmpBuilder{}.size(32, 16).bits(24).pixels(gradient).build(), ".bmp");
  const std::string out = outPath("reduced.png");
  ASSERT_EQ(vload({"convert", rgb.path(), out, "--colors", "5"}).exitCode, 0);
  Png png = readPng(out);
  EXPECT_EQ(png.type, PNG_COLOR_TYPE_PALETTE);
  EXPECT_EQ(png.samples.size(), 32u * 16);
  EXPECT_LE(png.entries(), 5u);
  for (uint16_t i : png.samples) ASSERT_LT(i, png.entries());

  // Onto a palette picture's colours, dithered and scaled.
  const std::vector<vtest::Rgb> yarns = {{200, 30, 30}, {20, 20, 160}, {240, 230, 200}};
  const TempFile pal(BmpBuilder{}.size(3, 1).bits(8).palette(yarns).pixels(
                         [](uint32_t x, uint32_t, int) { return uint8_t(x); }).build(), ".bmp");
  ASSERT_EQ(vload({"convert", rgb.path(), out, "--palette", pal.path(), "--dither", "16", "--size", "16x8"}).exitCode, 0);
  png = readPng(out);
  ASSERT_EQ(png.entries(), 3u);
  EXPECT_EQ(png.width, 16u);
  EXPECT_EQ(png.height, 8u);
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(png.palette[3 * i + 2], yarns[i].b);

  // Transparent pixels get a fully transparent entry.
  const TempFile rgba(BmpBuilder{}.size(8, 8).bits(32).pixels([](uint32_t x, uint32_t y, int c) {
                        return uint8_t(c == 3 ? (x < 2 ? 0 : 255) : x * 30 + y * 7);
                      }).build(), ".bmp");
  ASSERT_EQ(vload({"convert", rgba.path(), out, "--colors", "4", "--noise", "10"}).exitCode, 0);
  png = readPng(out);
  ASSERT_FALSE(png.trnsAlpha.empty());
  EXPECT_EQ(png.trnsAlpha.back(), 0);
  EXPECT_EQ(png.samples.at(0), png.trnsAlpha.size() - 1);

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
    expectAll(r.err, {c.words});
  }
}

TEST(Cli, InfoAsTextAndJson) {
  const TempFile in(BmpBuilder{}.size(640, 3).bits(24).pixelsPerMetre(3780, 3780).build(), ".bmp");
  CliRun r = vload({"info", in.path()});
  EXPECT_EQ(r.exitCode, 0);
  expectAll(r.out, {"loader:     24 (BMP)", "size:       640 x 3", "density:    96.012 x 96.012 dpi",
                    "info:       \" \""});

  r = vload({"info", "--json", in.path(), "/no/such/file.bmp"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.out.front(), '[');
  expectAll(r.out, {"\"loader\": 24", "\"width\": 640", "\"ok\": false"});
  expectAll(r.err, {"/no/such/file.bmp: no such file"});

  r = vload({"info", "--loader", "24", in.path()});
  EXPECT_EQ(r.exitCode, 0);
}

TEST(Cli, InfoPrintsExifFields) {
  const Bytes exif = vtest::ExifBuilder(true).ascii(0x010F, "Weaver").rational(0x011A, 300, 1).block();
  const TempFile jpeg(vtest::JpegBuilder{}.app1(Bytes(exif.begin() + 2, exif.end())).build(), ".jpg");
  const TempFile bmp(BmpBuilder{}.build(), ".bmp");
  CliRun r = vload({"info", "--exif", jpeg.path(), bmp.path()});
  EXPECT_EQ(r.exitCode, 0);
  expectAll(r.out, {"    cameraMake             \"Weaver\"\n", "    yResolution            300\n",
                    "  exif:       none\n"});
  r = vload({"info", "--exif", "--json", jpeg.path(), bmp.path()});
  expectAll(r.out, {"\"info\": \" \", \"exif\": {\"cameraMake\": \"Weaver\", ", "\"exif\": null}"});
}

TEST(Cli, SaysWhatWentWrongInWords) {
  const BmpBuilder b = BmpBuilder{}.size(8, 8).bits(24);
  const Bytes full = b.build();
  const TempFile cut(vtest::truncated(full, full.size() - 40), ".bmp");
  const TempFile v5(BmpBuilder{}.headerSize(124).build(), ".bmp");
  const TempFile text(Bytes{'h', 'e', 'l', 'l', 'o'}, ".xyz");
  const TempFile unread(Bytes{'C', 'G', 'S', 'I', 'I', '1', 0, 0}, ".bin");
  const TempFile good(full, ".bmp"), locked(full, ".bmp");
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
      {{"convert", good.path(), "/no/such/dir/out.png"}, "cannot create the output file"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.words);
    const CliRun r = vload(c.args);
    EXPECT_EQ(r.exitCode, 1);
    expectAll(r.err, {c.words});
  }
  if (::geteuid() != 0) expectAll(vload({"info", locked.path()}).err, {"permission denied"});  // root reads anything
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
  expectAll(r.out, {"colours:    #ff0010 #010203\n", "colours:    none"});

  r = vload({"info", "--json", "--colors", large.path(), indexed.path()});
  EXPECT_EQ(r.exitCode, 0);
  expectAll(r.out, {"\"colors\": [\"#0010ab\", \"#0110ab\"", "\"#2a10ab\", \"#2b10ab\"]}",  // all 300
                    // the map up to the highest index used
                    "\"colors\": [\"#000000\", \"#010101\", \"#020202\", \"#030303\"]}"});
}

TEST(Cli, FormatsListsEveryLoader) {
  const CliRun r = vload({"formats"});
  EXPECT_EQ(r.exitCode, 0);
  expectAll(r.out, {"24   BMP", "bmp dib", "77   Bonas harness XML"});
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 78);  // heading and 77 loaders
}

}  // namespace
