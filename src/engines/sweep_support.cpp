#include "engines/sweep_support.h"

#include <algorithm>
#include <cmath>

#include "engines/sweep_plan.h"
#include "lx_command/status_packet.h"
#include "lx_lib/device.h"

namespace lx::engines {

int32_t SweepAttenuation(int32_t attenuatorSetting, double refLevelDbm) {
    return attenuatorSetting >= 0 ? std::min(attenuatorSetting, 6) : AutoAttenuation(refLevelDbm);
}

LxStatus SweepStatus(const SweepWarnings& w) {
    if (w.link != lxNoError) return w.link;
    if (w.framingError) return lxFramingErr;
    if (w.dataLost) return lxUncalData;
    if (w.adcOverflow) return lxADCOverflow;
    if (w.cpuOverrun) return lxCPULimited;
    if (std::fabs(w.temperature - w.temperatureAtConfigure) > kTempDriftLimitC) return lxTempDrift;
    return lxNoError;
}

uint64_t TakeEndOfSweepStatus(Device& dev, const uint8_t* record, bool recordValid, SweepWarnings& w) {
    usb::UsbTransport& link = dev.Transport();
    uint64_t stamp = 0;
    if (recordValid) {
        if (dev.TakeStatusPacket(record)) {
            w.adcOverflow = (dev.statusWord & kAuxStatusAdcOverflow) != 0;
            w.dataLost = (dev.statusWord & kAuxStatusDataLoss) != 0;
            stamp = static_cast<uint64_t>(dev.gps.deviceTimeNs);
        } else {
            link.SetFramingError(true);
        }
    }
    w.link = link.LinkStatus();
    w.framingError = link.FramingError();
    w.temperature = dev.temperature;
    w.temperatureAtConfigure = dev.temperatureAtConfigure;
    return stamp;
}

} // namespace lx::engines
