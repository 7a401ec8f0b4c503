// framework/catalogue.cpp: the loader table and the catalogue functions.
#include "framework/catalogue.h"

#include <array>
#include <string>

#include "framework/checked.h"
#include "vload.h"

namespace ldr {
namespace {

using enum Kind;
using enum Addressing;

// Extensions are listed only where they name one format without doubt, so
// that a loader never captures another maker's files by name alone.
constexpr LoaderInfo kLoaders[] = {
    {1, registerLoadGIF, "", "GIF", "gif", Picture, true, Band},
    {2, registerLoadPNG, "", "PNG", "png", Picture, true, Band},
    {3, registerLoadPCX, "", "PCX", "pcx", Picture, true, WholeImageForPackedRgb},
    {4, registerLoadJPEG, "", "JPEG", "jpg jpeg jpe jfif", Picture, true, Band},
    {5, registerLoadTIFF, "", "TIFF", "tif tiff", Picture, true, Band},
    {6, registerLoadWebP, "", "WebP", "webp", Picture, true, Band},
    {7, registerLoadSophisC, "Sophis", "C card", "", Card, false, Band},
    {8, registerLoadSophisI, "Sophis", "I card", "", Card, false, Band},
    {9, registerLoadBonas, "Bonas", "card", "", Card, false, Band},
    {10, registerLoadSchleicher, "Schleicher", "card", "", Card, false, Band},
    {11, registerLoadWeave, "", "weave", "", Draft, true, Band},
    {12, registerLoadPBM, "", "portable bitmap", "pbm pgm ppm pnm pam", Picture, true, Band},
    {13, registerLoadStaubli, "Staubli", "JC4", "jc4", Card, true, Band},
    {14, registerLoadStaubliJC3, "Staubli", "JC3", "jc3", Card, true, Band},
    {15, registerLoadStaubliJC5, "Staubli", "JC5", "jc5", Card, true, Band},
    {16, registerLoadStaubliJC4network, "Staubli", "JC4 network", "", Card, true, Band},
    {17, registerLoadStaubliJC4email, "Staubli", "JC4 e-mail", "", Card, true, Band},
    {18, registerLoadTis, "", "TIS", "", Card, false, Band},
    {19, registerLoadGrosse, "Grosse", "card", "", Card, false, Band},
    {20, registerLoadEAT, "EAT", "design", "", Card, false, Band},
    {21, registerLoad1858III, "", "1858III dobby", "db1", Card, true, Band},
    {22, registerLoadWIF, "", "WIF draft", "wif", Draft, true, Band},
    {23, registerLoadAVLJ1P, "AVL", "J1P", "", Card, false, Band},
    {24, registerLoadBMP, "", "BMP", "bmp dib", Picture, true, WholeImage},
    {25, registerLoadPUN, "", "PUN", "", Card, false, Band},
    {26, registerLoadQTE, "", "QTE", "", Card, false, Band},
    {27, registerLoadVaritexPAT, "Varitex", "PAT", "", Card, false, Band},
    {28, registerLoadIAMPAT, "IAM", "PAT", "", Card, false, Band},
    {29, registerLoadIAMBBI, "IAM", "BBI", "", Card, false, Band},
    {30, registerLoadTakemuraDAT, "Takemura", "DAT", "", Card, false, Band},
    {31, registerLoadSometDOP, "Somet", "DOP", "", Card, false, Band},
    {32, registerLoadSometCOP, "Somet", "COP", "", Card, false, Band},
    {33, registerLoadSophisW, "Sophis", "W card", "", Card, false, Band},
    {34, registerLoadVamatexPID, "Vamatex", "PID", "", Card, false, Band},
    {35, registerLoadVamatexPIW, "Vamatex", "PIW", "", Card, false, Band},
    {36, registerLoadQTEMOT, "", "QTE MOT", "", Card, false, Band},
    {37, registerLoadTongYuanDY, "TongYuan", "DY", "", Card, false, Band},
    {38, registerLoadPignoneARM, "Pignone", "ARM", "", Card, false, Band},
    {39, registerLoadUWF, "", "UWF", "", Card, false, Band},
    {40, registerLoadDrape, "", "drape project", "drape drp", Project, true, SingleBand},
    {41, registerLoadFabric, "", "fabric", "", Project, false, Band},
    {42, registerLoadUPT, "", "UPT", "", Card, false, Band},
    {43, registerLoadStaubliZC5, "Staubli", "ZC5", "zc5", Card, true, Band},
    {44, registerLoadQTZ, "", "QTZ", "", Card, false, Band},
    {45, registerLoadDoStyle, "", "DoStyle", "", Card, false, Band},
    {46, registerLoadSMIT, "SMIT", "card", "", Card, false, Band},
    {47, registerLoadAPF, "", "APF", "", Card, false, Band},
    {48, registerLoadColorado, "Colorado", "design", "", Card, false, Band},
    {49, registerLoadNedgraphicsPAT, "Nedgraphics", "PAT", "", Card, false, Band},
    {50, registerLoadDoWeaveDES, "", "DoWeave DES", "", Card, false, Band},
    {51, registerLoadTakemuraCGS, "Takemura", "CGS", "", Card, false, Band},
    {52, registerLoadNissan, "Nissan", "card", "", Card, false, Band},
    {53, registerLoadSometARM, "Somet", "ARM", "", Card, false, Band},
    {54, registerLoadMotongPAT, "Motong", "PAT", "", Card, false, Band},
    {55, registerLoadMotongSTI, "Motong", "STI", "", Card, false, Band},
    {56, registerLoadPanter, "Panter", "card", "", Card, false, Band},
    {57, registerLoadDoTech, "", "DoTech", "", Card, false, Band},
    {58, registerLoadMus, "", "MUS", "", Card, false, Band},
    {59, registerLoadNedgraphicsDES, "Nedgraphics", "DES", "", Card, false, Band},
    {60, registerLoadVectorPreview, "", "vector preview", "", Picture, false, Band},
    {61, registerLoadStaubliJC4loom, "Staubli", "JC4 loom", "", Card, true, Band},
    {62, registerLoadWBF, "", "WBF", "", Card, false, Band},
    {63, registerLoadWB, "", "WB", "", Card, false, Band},
    {64, registerLoadPAL, "", "palette (JASC-PAL, GIMP)", "pal gpl", Palette, true, Band},
    {65, registerLoadDIS, "", "DIS", "", Card, false, Band},
    {66, registerLoadORG, "", "ORG", "", Card, false, Band},
    {67, registerLoadBonasCompressed, "Bonas", "compressed card", "", Card, false, Band},
    {68, registerLoadPhotoshopACO, "Photoshop", "ACO swatches", "aco", Palette, true, Band},
    {69, registerLoadPhotoshopACB, "Photoshop", "ACB colour book", "acb", Palette, true, Band},
    {70, registerLoadTsudakomaDP5, "Tsudakoma", "DP5", "", Card, false, Band},
    {71, registerLoadActWJL, "Act", "WJL", "", Card, false, Band},
    {72, registerLoadPicanolDES, "Picanol", "DES", "", Card, false, Band},
    {73, registerLoadCPMLD, "", "CPMLD", "cpmld", Card, false, Band},
    {74, registerLoadPhotoshopASE, "Photoshop", "ASE swatch exchange", "ase", Palette, true, Band},
    {75, registerLoadEltexEJP, "Eltex", "EJP", "", Card, false, Band},
    {76, registerLoadPSD, "", "Photoshop document", "psd psb", Picture, true, Band},
    {77, registerLoadBonasHarnessXML, "Bonas", "harness XML", "", Card, false, Band},
};
static_assert(std::size(kLoaders) == VLOAD_LOADER_COUNT);

constexpr const char* kUnknown = "Unknown format";

struct Names {
  std::array<std::string, VLOAD_LOADER_COUNT> full, noLogo;
};

// Built once, immutable afterwards.
const Names& names() {
  static const Names built = [] {
    Names n;
    for (const LoaderInfo& l : kLoaders) {
      const std::string tail = l.available ? "" : " (not available)";
      n.noLogo[l.number - 1] = l.format + tail;
      n.full[l.number - 1] = (*l.maker ? std::string(l.maker) + " " : std::string()) + l.format + tail;
    }
    return n;
  }();
  return built;
}

}  // namespace

std::span<const LoaderInfo> loaders() noexcept { return kLoaders; }

const LoaderInfo* loaderInfo(int32_t number) noexcept {
  if (number < 1 || number > int32_t{VLOAD_LOADER_COUNT}) return nullptr;
  return &kLoaders[number - 1];
}

uint8_t* bandBuffer(const LoaderInfo& loader, uint8_t layout, uint32_t width, uint8_t* image,
                    uint32_t delivered, int32_t stride) noexcept {
  switch (loader.addressing) {
    case WholeImage: return image;
    case WholeImageForPackedRgb:
      if (layout == VLOAD_LAYOUT_RGB && uint64_t{width} * 3 == uint64_t(stride)) return image;
      break;
    case Band:
    case SingleBand: break;
  }
  return rowAt(image, delivered, stride);
}

uint32_t bandRows(const LoaderInfo& loader, uint32_t wanted, uint32_t height) noexcept {
  if (loader.addressing == SingleBand || wanted == 0 || wanted > height) return height;
  return wanted;
}

}  // namespace ldr

using ldr::loaderInfo;

extern "C" {

const char* returnLoaderString(int32_t loaderNumber) {
  const ldr::LoaderInfo* l = loaderInfo(loaderNumber);
  return l ? ldr::names().full[l->number - 1].c_str() : ldr::kUnknown;
}

const char* returnLoaderStringNoLogo(int32_t loaderNumber) {
  const ldr::LoaderInfo* l = loaderInfo(loaderNumber);
  return l ? ldr::names().noLogo[l->number - 1].c_str() : ldr::kUnknown;
}

const char* returnLoaderStringJustLogo(int32_t loaderNumber) {
  const ldr::LoaderInfo* l = loaderInfo(loaderNumber);
  return l ? l->maker : ldr::kUnknown;
}

int32_t validForDobbyExtraction(int32_t loaderNumber) {
  const ldr::LoaderInfo* l = loaderInfo(loaderNumber);
  return l && (l->kind == ldr::Kind::Card || l->kind == ldr::Kind::Draft);
}

int32_t validForRepeatChecking(int32_t loaderNumber) {
  const ldr::LoaderInfo* l = loaderInfo(loaderNumber);
  return l && (l->kind == ldr::Kind::Picture || l->kind == ldr::Kind::Card ||
               l->kind == ldr::Kind::Draft);
}

}  // extern "C"
