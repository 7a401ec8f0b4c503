// tests/framework/band_contract_test.cpp: every band loader refuses a band it
// cannot fill within the host's buffer, and a refused band leaves the load as
// it was.
#include <gtest/gtest.h>

#include "tests/support/bmp_writer.h"
#include "tests/support/gif_writer.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/pcx_writer.h"
#include "tests/support/png_writer.h"
#include "tests/support/pnm_writer.h"
#include "tests/support/psd_writer.h"
#include "tests/support/staubli_writer.h"
#include "tests/support/temp_file.h"
#include "tests/support/tiff_writer.h"
#include "tests/support/weave_writer.h"
#include "tests/support/webp_writer.h"
#include "tests/support/wif_writer.h"
#include "tools/drive.h"

namespace {

using vtest::Bytes;

TEST(BandContract, LoadersRefuseBandsTheyCannotFill) {
  struct Case { int32_t loader; Bytes bytes; const char* extension; };
  const vtest::BitPicture card = vtest::rampPicture(1344, 9);
  const Case cases[] = {
      {24, vtest::BmpBuilder{}.size(9, 7).bits(24).build(), ".bmp"},
      {1, vtest::GifBuilder{}.size(9, 7).build(), ".gif"},
      {3, vtest::PcxBuilder{}.size(9, 7).build(), ".pcx"},
      {2, vtest::PngBuilder{}.size(9, 7).build(), ".png"},
      {4, vtest::JpegBuilder{}.size(9, 7).build(), ".jpg"},
      {5, vtest::tiffFile({}), ".tif"},
      {6, vtest::webpFile({}), ".webp"},
      {12, vtest::PnmBuilder{}.build(), ".ppm"},
      {76, vtest::PsdBuilder{}.build(), ".psd"},
      {11, vtest::WeaveBuilder{}.key("DIM=9 7").end().build(), ".dat"},
      {22, vtest::wifText(vtest::randomDraft(1, 9, 7, 4, 4, false, false)), ".wif"},
      {13, vtest::jc4Card(card), ".jc4"},
      {14, vtest::jc3Card(card, "BANDS"), ".jc3"},
      {15, vtest::jc5Card(card, {{1000, "a"}, {344, "b"}}), ".jc5"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.loader);
    const vtest::TempFile f(c.bytes, c.extension);
    vload_tool::Description d;
    d.loader = vload_tool::install(c.loader, f.path());
    ASSERT_EQ(vload_tool::describe(f.path(), d, true), VLOAD_OK);
    const int32_t rows = int32_t(d.height), stride = d.stride;
    Bytes image(vload_tool::imageBytes(d) + size_t(stride));
    const LoadBandFn band = getLoadBand();
    EXPECT_EQ(band(nullptr, 1, stride, nullptr), VLOAD_BAD_REQUEST);
    EXPECT_EQ(band(image.data(), -1, stride, nullptr), VLOAD_BAD_REQUEST);
    EXPECT_EQ(band(image.data(), 1, stride - 1, nullptr), VLOAD_BAD_REQUEST);
    EXPECT_EQ(band(image.data(), rows + 1, stride, nullptr), VLOAD_BAD_REQUEST);
    EXPECT_EQ(band(image.data(), 0, stride, nullptr), VLOAD_OK);
    EXPECT_EQ(band(image.data(), rows, stride, nullptr), VLOAD_OK);
    EXPECT_EQ(band(image.data(), 1, stride, nullptr), VLOAD_BAD_REQUEST);  // nothing left
    vload_tool::endLoad();
  }
}

}  // namespace
