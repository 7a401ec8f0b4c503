// framework/catalogue.h: one row per loader number, the single source for
// registration, display names, extensions, availability and band addressing.
#pragma once

#include <cstdint>
#include <span>

namespace ldr {

// What kind of file a loader reads; the catalogue questions are answered from it.
enum class Kind : uint8_t {
  Picture,  // ordinary pictures and previews
  Card,     // loom and jacquard machine files
  Draft,    // weave bindings and WIF drafts
  Project,  // drape projects and fabric descriptions
  Palette,  // colour palettes
};

// How a loader addresses the buffer handed to loadBand.
enum class Addressing : uint8_t {
  Band,        // the call's first row goes to the buffer; the host advances it
  WholeImage,  // the buffer is the whole picture; row r at buffer + r * stride
  WholeImageForPackedRgb,  // whole image when the layout is RGB and the stride is exactly
                           // three bytes a pixel; band addressing otherwise
  SingleBand,              // only a single call delivering every row is correct
};

struct LoaderInfo {
  int32_t number;
  void (*registration)();
  const char* maker;       // "" for formats that belong to no maker
  const char* format;
  const char* extensions;  // lower case, without dots, separated by blanks
  Kind kind;
  bool available;          // false: the registration installs the unavailable operations
  Addressing addressing;
};

// Every loader, in number order (entry i has number i + 1).
std::span<const LoaderInfo> loaders() noexcept;
// The row of one loader; nullptr outside 1..77.
const LoaderInfo* loaderInfo(int32_t number) noexcept;

// Row `delivered` of the picture: where the next loadBand call's buffer
// argument has to point for a loader, given the picture's first row.
uint8_t* bandBuffer(const LoaderInfo& loader, uint8_t layout, uint32_t width, uint8_t* image,
                    uint32_t delivered, int32_t stride) noexcept;
// Rows a host should ask for in one call, given the band size it would like.
uint32_t bandRows(const LoaderInfo& loader, uint32_t wanted, uint32_t height) noexcept;

}  // namespace ldr
