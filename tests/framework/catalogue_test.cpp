// Registry and catalogue: per-thread slots, dispatch by number, and a
// catalogue that agrees with what each registration installs.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

#include "framework/catalogue.h"
#include "framework/loader.h"
#include "vload.h"

namespace {

TEST(Registry, ThreadStartsEmptyAndKeepsItsOwnSlots) {
  registerLoadBMP();
  std::thread([] {
    EXPECT_EQ(getTryLoad(), nullptr);
    EXPECT_EQ(getLoadBand(), nullptr);
    EXPECT_EQ(getEndLoad(), nullptr);
    registerLoadGIF();
  }).join();
  returnLoaderFunctions(24, "x.bmp");
  const TryLoadFn bmp = getTryLoad();
  registerLoadGIF();
  EXPECT_NE(getTryLoad(), bmp);  // replaced, not combined
  registerLoadBMP();
  EXPECT_EQ(getTryLoad(), bmp);
}

TEST(Registry, NumbersOutsideTheTableInstallNothing) {
  registerLoadBMP();
  const TryLoadFn before = getTryLoad();
  for (int32_t n : {78, -1, 1000, INT32_MIN}) {
    EXPECT_EQ(returnLoaderFunctions(n, "a.bmp"), VLOAD_NO_SUCH_LOADER) << n;
    EXPECT_EQ(getTryLoad(), before) << n;
  }
  for (int32_t n = 1; n <= 77; ++n) EXPECT_EQ(returnLoaderFunctions(n, "a.bmp"), uint32_t(n));
}

TEST(Catalogue, AvailabilityMatchesWhatRegistrationInstalls) {
  for (const ldr::LoaderInfo& l : ldr::loaders()) {
    SCOPED_TRACE(l.number);
    l.registration();
    const bool stub = getTryLoad() == &ldr::unavailableTryLoad;
    EXPECT_EQ(l.available, !stub);
    const std::string name = returnLoaderString(l.number);
    EXPECT_EQ(name.find("(not available)") != std::string::npos, !l.available);
    EXPECT_NE(std::string(returnLoaderStringNoLogo(l.number)).find(l.format), std::string::npos);
    EXPECT_STREQ(returnLoaderStringJustLogo(l.number), l.maker);
    // Extensions of up to four letters are matched through the packed name ending.
    for (const char* e = l.extensions; *e;) {
      const size_t len = std::strcspn(e, " ");
      EXPECT_TRUE(len >= 3) << e;
      e += len + (e[len] == ' ');
    }
  }
  EXPECT_EQ(uint32_t(ldr::loaders().size()), VLOAD_LOADER_COUNT);
}

TEST(Catalogue, NamesAndQuestions) {
  EXPECT_STREQ(returnLoaderString(24), "BMP");
  EXPECT_STREQ(returnLoaderString(13), "Staubli JC4");
  EXPECT_STREQ(returnLoaderStringNoLogo(13), "JC4");
  EXPECT_STREQ(returnLoaderString(52), "Nissan card (not available)");
  EXPECT_STREQ(returnLoaderStringNoLogo(52), "card (not available)");
  EXPECT_STREQ(returnLoaderStringJustLogo(13), "Staubli");
  for (int32_t n : {0, 78, -5}) {
    EXPECT_STREQ(returnLoaderString(n), "Unknown format");
    EXPECT_STREQ(returnLoaderStringNoLogo(n), "Unknown format");
    EXPECT_EQ(validForDobbyExtraction(n) + validForRepeatChecking(n), 0);
  }
  // A picture, a WIF draft, a jacquard card, a palette, a drape project.
  const struct { int32_t loader, dobby, repeat; } kinds[] = {{24, 0, 1}, {22, 1, 1}, {13, 1, 1}, {64, 0, 0}, {40, 0, 0}};
  for (const auto& k : kinds) {
    EXPECT_EQ(validForDobbyExtraction(k.loader), k.dobby) << k.loader;
    EXPECT_EQ(validForRepeatChecking(k.loader), k.repeat) << k.loader;
  }
}

}  // namespace
