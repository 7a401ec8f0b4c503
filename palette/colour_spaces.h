// palette/colour_spaces.h: colours of other spaces as sRGB bytes, for the
// palette loaders and the Photoshop document loader.
//
// The formulas are the textbook ones, without colour management:
//  - CMYK, ink 0..1 each: R = 255 (1 - C)(1 - K), G from M and B from Y alike;
//  - CIE L*a*b* (L 0..100, D50 white, as palette and document files use it):
//    the CIE inverse to XYZ, the Bradford-adapted D50 matrix to linear sRGB,
//    then the sRGB transfer curve; colours outside sRGB are clipped;
//  - HSB (hue in degrees, saturation and brightness 0..1): the hexcone model;
//  - grey 0..1, 1 being white.
// Results are rounded to the nearest byte.
#pragma once

#include <cstdint>

namespace ldr {

struct Rgb {
  uint8_t r = 0, g = 0, b = 0;
  friend bool operator==(const Rgb&, const Rgb&) = default;
};

// 0..1 to 0..255, clamped and rounded; NaN gives 0.
uint8_t unitToByte(double v) noexcept;

Rgb rgbFromCmyk(double c, double m, double y, double k) noexcept;
Rgb rgbFromLab(double l, double a, double b) noexcept;
Rgb rgbFromHsb(double hueDegrees, double saturation, double brightness) noexcept;
Rgb rgbFromGrey(double v) noexcept;

}  // namespace ldr
