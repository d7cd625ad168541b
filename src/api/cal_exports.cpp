// Service exports on calibration records (C++ linkage, see lx_api.h).
#include <cstdio>
#include <cstring>
#include <memory>

#include "api/export_guard.h"
#include "cal/cal_record.h"
#include "lx_api.h"

static_assert(sizeof(LX530CalData) == lx::calSizeBytes);

LX_API bool lxCalCorrectionLoadFromFile(const char* path, LX530CalData* cal) {
    return lx::api::Guarded<bool>(false, false, [&] {
        if (!path || !cal) return false;
        std::FILE* f = std::fopen(path, "rbe");
        if (!f) return false;
        // Staged so that a short or unreadable file leaves the caller's record as it was.
        auto staging = std::make_unique_for_overwrite<uint8_t[]>(lx::calSizeBytes);
        const size_t got = std::fread(staging.get(), 1, lx::calSizeBytes, f);
        std::fclose(f);
        if (got != lx::calSizeBytes) return false;
        std::memcpy(cal->raw, staging.get(), lx::calSizeBytes);
        return true;
    });
}

LX_API void lxCalBuildDummyCorrections(LX530CalData* cal) {
    lx::api::Guarded<int>(0, 0, [&] {
        if (cal) lx::BuildDummyCal(cal->raw);
        return 0;
    });
}

LX_API uint64_t lxCalGetCorrectionCalDate(const LX530CalData* cal) {
    return lx::api::Guarded<uint64_t>(0, 0, [&]() -> uint64_t {
        return cal ? lx::CalNewestDate(cal->raw) : 0;
    });
}

LX_API double lxCalGetTempFromIndex(int index) {
    return lx::api::Guarded<double>(0.0, 0.0, [&] { return lx::CalTempFromIndex(index); });
}

LX_API void lxCalPropagateSingleTempCal(LX530CalData* cal, int fromSlot, int toSlot) {
    lx::api::Guarded<int>(0, 0, [&] {
        if (cal) lx::PropagateSingleTempCal(cal->raw, fromSlot, toSlot);
        return 0;
    });
}

LX_API bool kdCalDoesCorrectionsExist(const LX530CalData* cal) {
    return lx::api::Guarded<bool>(false, false, [&] { return cal && lx::CalIsProgrammed(cal->raw); });
}
