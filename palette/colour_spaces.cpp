// palette/colour_spaces.cpp
#include "palette/colour_spaces.h"

#include <cmath>

namespace ldr {
namespace {

constexpr double kEpsilon = 6.0 / 29.0;  // where the CIE curve turns from cube to line
constexpr double kWhiteX = 0.96422, kWhiteZ = 0.82521;  // D50, Y = 1

double cieInverse(double t) {
  return t > kEpsilon ? t * t * t : 3 * kEpsilon * kEpsilon * (t - 4.0 / 29.0);
}

double srgbCurve(double linear) {
  return linear <= 0.0031308 ? 12.92 * linear : 1.055 * std::pow(linear, 1 / 2.4) - 0.055;
}

}  // namespace

uint8_t unitToByte(double v) noexcept {
  if (!(v > 0)) return 0;  // NaN included
  if (v >= 1) return 255;
  return uint8_t(v * 255 + 0.5);
}

Rgb rgbFromCmyk(double c, double m, double y, double k) noexcept {
  const auto ink = [](double v) { return v < 0 ? 0 : v > 1 ? 1 : v; };
  const double white = 1 - ink(k);
  return {unitToByte((1 - ink(c)) * white), unitToByte((1 - ink(m)) * white),
          unitToByte((1 - ink(y)) * white)};
}

Rgb rgbFromLab(double l, double a, double b) noexcept {
  const double fy = (l + 16) / 116;
  const double x = kWhiteX * cieInverse(fy + a / 500);
  const double y = cieInverse(fy);
  const double z = kWhiteZ * cieInverse(fy - b / 200);
  const double r = 3.1338561 * x - 1.6168667 * y - 0.4906146 * z;
  const double g = -0.9787684 * x + 1.9161415 * y + 0.0334540 * z;
  const double bl = 0.0719453 * x - 0.2289914 * y + 1.4052427 * z;
  return {unitToByte(srgbCurve(r)), unitToByte(srgbCurve(g)), unitToByte(srgbCurve(bl))};
}

Rgb rgbFromHsb(double hueDegrees, double saturation, double brightness) noexcept {
  const double s = saturation < 0 ? 0 : saturation > 1 ? 1 : saturation;
  const double v = brightness < 0 ? 0 : brightness > 1 ? 1 : brightness;
  double h = std::fmod(hueDegrees, 360.0);
  if (!(h >= 0)) h = h < 0 ? h + 360 : 0;  // negative hues wrap; NaN is red
  const double sector = h / 60;
  const int i = int(sector) % 6;
  const double f = sector - int(sector);
  const double p = v * (1 - s), q = v * (1 - s * f), t = v * (1 - s * (1 - f));
  double r = v, g = t, b = p;
  switch (i) {
    case 1: r = q, g = v, b = p; break;
    case 2: r = p, g = v, b = t; break;
    case 3: r = p, g = q, b = v; break;
    case 4: r = t, g = p, b = v; break;
    case 5: r = v, g = p, b = q; break;
    default: break;
  }
  return {unitToByte(r), unitToByte(g), unitToByte(b)};
}

Rgb rgbFromGrey(double v) noexcept {
  const uint8_t g = unitToByte(v);
  return {g, g, g};
}

}  // namespace ldr
