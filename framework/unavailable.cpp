// framework/unavailable.cpp: registrations of the loaders this build cannot
// read yet. Each installs operations that refuse every file, so that a host
// calling any registration of the loader table gets a well-defined answer.
#include "framework/loader.h"
#include "vload.h"

namespace ldr {

uint32_t unavailableTryLoad(const char*, uint8_t*, uint32_t*, uint32_t*, uint32_t*, uint32_t*,
                            uint32_t*, uint32_t*, uint8_t*, char*, uint8_t*, uint8_t*,
                            uint8_t) noexcept {
  return code(Status::NotThisFormat);
}

namespace {
uint32_t unavailableLoadBand(uint8_t*, int32_t, int32_t, void*) noexcept {
  return code(Status::BadRequest);
}
uint32_t unavailableEndLoad(uint8_t*, int32_t, int32_t, void*) noexcept { return 0; }
}  // namespace

void registerUnavailable() noexcept {
  registerLoader(unavailableTryLoad, unavailableLoadBand, unavailableEndLoad);
}

}  // namespace ldr

#define VLOAD_UNAVAILABLE(name) \
  extern "C" void registerLoad##name(void) { ldr::registerUnavailable(); }

VLOAD_UNAVAILABLE(SophisC)
VLOAD_UNAVAILABLE(SophisI)
VLOAD_UNAVAILABLE(Bonas)
VLOAD_UNAVAILABLE(Schleicher)
VLOAD_UNAVAILABLE(Tis)
VLOAD_UNAVAILABLE(Grosse)
VLOAD_UNAVAILABLE(EAT)
VLOAD_UNAVAILABLE(AVLJ1P)
VLOAD_UNAVAILABLE(PUN)
VLOAD_UNAVAILABLE(QTE)
VLOAD_UNAVAILABLE(VaritexPAT)
VLOAD_UNAVAILABLE(IAMPAT)
VLOAD_UNAVAILABLE(IAMBBI)
VLOAD_UNAVAILABLE(TakemuraDAT)
VLOAD_UNAVAILABLE(SometDOP)
VLOAD_UNAVAILABLE(SometCOP)
VLOAD_UNAVAILABLE(SophisW)
VLOAD_UNAVAILABLE(VamatexPID)
VLOAD_UNAVAILABLE(VamatexPIW)
VLOAD_UNAVAILABLE(QTEMOT)
VLOAD_UNAVAILABLE(TongYuanDY)
VLOAD_UNAVAILABLE(PignoneARM)
VLOAD_UNAVAILABLE(UWF)
VLOAD_UNAVAILABLE(Fabric)
VLOAD_UNAVAILABLE(UPT)
VLOAD_UNAVAILABLE(QTZ)
VLOAD_UNAVAILABLE(DoStyle)
VLOAD_UNAVAILABLE(SMIT)
VLOAD_UNAVAILABLE(APF)
VLOAD_UNAVAILABLE(Colorado)
VLOAD_UNAVAILABLE(NedgraphicsPAT)
VLOAD_UNAVAILABLE(DoWeaveDES)
VLOAD_UNAVAILABLE(TakemuraCGS)
VLOAD_UNAVAILABLE(Nissan)
VLOAD_UNAVAILABLE(SometARM)
VLOAD_UNAVAILABLE(MotongPAT)
VLOAD_UNAVAILABLE(MotongSTI)
VLOAD_UNAVAILABLE(Panter)
VLOAD_UNAVAILABLE(DoTech)
VLOAD_UNAVAILABLE(Mus)
VLOAD_UNAVAILABLE(NedgraphicsDES)
VLOAD_UNAVAILABLE(VectorPreview)
VLOAD_UNAVAILABLE(WBF)
VLOAD_UNAVAILABLE(WB)
VLOAD_UNAVAILABLE(DIS)
VLOAD_UNAVAILABLE(ORG)
VLOAD_UNAVAILABLE(BonasCompressed)
VLOAD_UNAVAILABLE(TsudakomaDP5)
VLOAD_UNAVAILABLE(ActWJL)
VLOAD_UNAVAILABLE(PicanolDES)
VLOAD_UNAVAILABLE(CPMLD)
VLOAD_UNAVAILABLE(EltexEJP)
VLOAD_UNAVAILABLE(BonasHarnessXML)
