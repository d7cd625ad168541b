// Power, identity, diagnostics, reference, GPIO/UART, GPS and fan.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "api/registry.h"
#include "cal/cal_record.h"
#include "lx_api.h"
#include "lx_command/encoders.h"

using namespace lx;
using namespace lx::api;

namespace {

constexpr double kUartClockHz = 81.92e6;
constexpr uint8_t kRequestFanSetPoint = 0xC3;

uint32_t UartRateWord(uint16_t divisor) {
    return MakeWord(0x26, (0x20u << 16) | static_cast<uint16_t>(divisor - 1));
}

} // namespace

extern "C" {

LX_API LxStatus lxSetPowerState(int32_t handle, uint32_t state) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (state > 1) return lxInvalidParameterErr;
        return d.SetPowerState(state);
    });
}

LX_API LxStatus lxGetPowerState(int32_t handle, uint32_t* state) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!state) return lxNullPtrErr;
        *state = d.powerState;
        return lxNoError;
    });
}

LX_API LxStatus lxGetSerialNumber(int32_t handle, uint32_t* serial) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!serial) return lxNullPtrErr;
        *serial = static_cast<uint32_t>(d.Transport().Serial());
        return lxNoError;
    });
}

LX_API LxStatus lxGetFirmwareVersion(int32_t handle, uint32_t* major, uint32_t* minor, uint32_t* revision) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!major || !minor || !revision) return lxNullPtrErr;
        *major = d.firmware[0];
        *minor = d.firmware[1];
        *revision = d.firmware[2];
        return lxNoError;
    });
}

LX_API LxStatus lxGetCalDate(int32_t handle, uint32_t* date) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!date) return lxNullPtrErr;
        *date = CalRead<uint32_t>(d.Cal(), kCalDateOffset);
        return lxNoError;
    });
}

LX_API LxStatus lxGetDeviceDiagnostics(int32_t handle, float* voltage, float* current, float* temperature) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!d.InStreamingMode()) (void)d.RefreshHousekeepingIfStale();
        if (voltage) *voltage = d.supplyVoltage;
        if (current) *current = d.supplyCurrent;
        if (temperature) *temperature = d.temperature;
        return d.Transport().LinkStatus();
    });
}

LX_API LxStatus lxSetReference(int32_t handle, uint32_t reference) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (reference > 1) return lxInvalidParameterErr;
        if (d.InStreamingMode()) return lxInvalidConfigurationErr;
        if (reference == d.reference) return lxNoError;
        d.reference = reference;
        // The device's switch is the inverse of the setting.
        return d.SendWord(MakeWord(0x2D, reference == 0 ? 1 : 0));
    });
}

LX_API LxStatus lxGetReference(int32_t handle, uint32_t* reference) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!reference) return lxNullPtrErr;
        *reference = d.reference;
        return lxNoError;
    });
}

LX_API LxStatus lxSetGPIOPort(int32_t handle, uint32_t config) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (config > 6) return lxInvalidParameterErr;
        if (d.mode != 0) return lxInvalidConfigurationErr;
        d.gpioPort = config;
        switch (config) {
        case 1: return d.SendWord(0x26600000);
        case 2: return d.SendWord(0x26400000);
        case 3: return d.SendWord(0x26500000);
        case 4:
        case 5: return d.SendWord(UartRateWord(d.uartDivisor));
        default: return d.Transport().LinkStatus();
        }
    });
}

LX_API LxStatus lxGetGPIOPort(int32_t handle, uint32_t* config) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!config) return lxNullPtrErr;
        *config = d.gpioPort;
        return lxNoError;
    });
}

LX_API LxStatus lxSetUARTBaudRate(int32_t handle, float baud) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (d.mode != 0) return lxInvalidConfigurationErr;
        if (std::isnan(baud)) return lxInvalidParameterErr; // no rate to round: keep the divisor
        double div = std::floor(kUartClockHz / static_cast<double>(baud) + 0.5);
        if (!(div >= 1.0)) div = 1.0; // a negative or zero rate
        if (div > 32768.0) div = 32768.0;
        d.uartDivisor = static_cast<uint16_t>(static_cast<uint32_t>(div));
        if (d.gpioPort == 4 || d.gpioPort == 5) return d.SendWord(UartRateWord(d.uartDivisor));
        return d.Transport().LinkStatus();
    });
}

LX_API LxStatus lxGetUARTBaudRate(int32_t handle, float* baud) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!baud) return lxNullPtrErr;
        *baud = static_cast<float>(kUartClockHz / d.uartDivisor);
        return lxNoError;
    });
}

LX_API LxStatus lxWriteUARTDirect(int32_t handle, uint8_t byte) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (d.InStreamingMode() || d.gpioPort != 4) return lxInvalidConfigurationErr;
        return d.SendWord(MakeWord(0x27, byte));
    });
}

LX_API LxStatus lxSetGPSTimebaseUpdate(int32_t handle, uint32_t enable) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (enable > 1) return lxInvalidParameterErr;
        if (d.InStreamingMode()) return lxInvalidConfigurationErr;
        if (enable == d.gpsTimebaseUpdate) return lxNoError;
        d.gpsTimebaseUpdate = enable;
        return d.SendWord(MakeWord(0x2F, enable == 1 ? 1 : 0));
    });
}

LX_API LxStatus lxGetGPSTimebaseUpdate(int32_t handle, uint32_t* enable) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!enable) return lxNullPtrErr;
        *enable = d.gpsTimebaseUpdate;
        return lxNoError;
    });
}

LX_API LxStatus lxGetGPSHoldoverInfo(int32_t handle, uint32_t* holdover, uint32_t* time) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        uint32_t flag = 0, t = 0;
        if (d.timebase.valid) {
            uint64_t tuneTime = 0;
            for (int i = 0; i < kCalTuneEntries; ++i) {
                if (CalTuneValue(d.Cal(), i) == kCalTuneListEnd) break;
                tuneTime = CalTuneTime(d.Cal(), i);
            }
            flag = static_cast<uint64_t>(d.timebase.timeSeconds) > tuneTime ? 1 : 0;
            t = static_cast<uint32_t>(d.timebase.timeSeconds);
        }
        if (holdover) *holdover = flag;
        if (time) *time = t;
        return lxNoError;
    });
}

LX_API LxStatus lxGetGPSState(int32_t handle, uint32_t* state) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!state) return lxNullPtrErr;
        LxStatus s = lxNoError;
        if (!d.InStreamingMode()) s = d.RefreshHousekeepingIfStale();
        std::lock_guard<std::mutex> lock(d.gps.mutex);
        uint32_t v = 0;
        if (d.gps.nmea.fixValid) v = d.gps.statusBit ? 2 : 1;
        *state = v;
        return s;
    });
}

LX_API LxStatus lxGetGPSInfo(int32_t handle, int32_t refresh, uint32_t* updated, int64_t* gpsTime,
                             double* latitude, double* longitude, double* altitude, char* nmea,
                             int32_t* nmeaLength) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!d.InStreamingMode() && refresh == 1) (void)d.RefreshHousekeeping();
        uint32_t upd;
        int64_t t;
        double lat, lon, alt;
        {
            std::lock_guard<std::mutex> lock(d.gps.mutex);
            upd = d.gps.messageCounter != d.gps.counterAtLastRead ? 1 : 0;
            t = d.gps.nmea.gpsSeconds;
            lat = d.gps.nmea.latitude;
            lon = d.gps.nmea.longitude;
            alt = d.gps.nmea.altitude;
            if (nmea && nmeaLength && *nmeaLength > 0) {
                const size_t n = std::min<size_t>(static_cast<size_t>(*nmeaLength - 1), d.gps.textLength);
                std::memcpy(nmea, d.gps.text.data(), n);
                nmea[n] = '\0';
                *nmeaLength = static_cast<int32_t>(n + 1);
            }
            d.gps.counterAtLastRead = d.gps.messageCounter;
        }
        if (updated) *updated = upd;
        if (gpsTime) *gpsTime = t;
        if (latitude) *latitude = lat;
        if (longitude) *longitude = lon;
        if (altitude) *altitude = alt;
        return d.Transport().LinkStatus();
    });
}

LX_API LxStatus lxWriteToGPS(int32_t handle, const uint8_t* data, int32_t length) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!data) return lxNullPtrErr;
        if (length <= 0) return lxInvalidParameterErr;
        if (d.InStreamingMode()) return lxInvalidConfigurationErr;
        const size_t groups = (static_cast<size_t>(length) + 3) / 4;
        std::vector<uint8_t> buf(groups * 4, 0);
        std::memcpy(buf.data(), data, static_cast<size_t>(length));
        std::vector<uint32_t> words;
        words.reserve(groups * 2);
        for (size_t g = 0; g < groups; ++g) {
            const uint8_t* p = buf.data() + 4 * g;
            words.push_back(MakeWord(0x28, static_cast<uint32_t>(p[0] | p[1] << 8)));
            words.push_back(MakeWord(0x29, static_cast<uint32_t>(p[2] | p[3] << 8)));
        }
        return d.SendWords(words);
    });
}

LX_API LxStatus lxSetFanSetPoint(int32_t handle, float celsius) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (d.InStreamingMode()) return lxInvalidConfigurationErr;
        if (std::isnan(celsius)) return lxInvalidParameterErr; // nothing sent
        float c = celsius;
        if (!(c > 0.0f)) c = 0.0f;
        if (c > 60.0f) c = 60.0f;
        const uint16_t raw = static_cast<uint16_t>(static_cast<int>(c * 16.0f));
        d.WaitForTransport(); // a control request, but not in the middle of an acquisition
        if (usb::UsbDevice* dev = d.Transport().Device()) {
            uint8_t payload[2] = {static_cast<uint8_t>(raw & 0xFF), static_cast<uint8_t>(raw >> 8)};
            if (dev->ControlOut(kRequestFanSetPoint, 0, 0, payload, 2, 1000) != 2)
                d.Transport().SetLinkStatus(lxConnectionLostErr);
        }
        return d.Transport().LinkStatus();
    });
}

LX_API LxStatus lxGetFanSettings(int32_t handle, float* setPoint, float* fan) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!d.InStreamingMode()) {
            const LxStatus s = d.RefreshHousekeeping();
            if (s != lxNoError) return s;
        }
        if (setPoint) *setPoint = d.fanSetPoint;
        if (fan) *fan = d.fan;
        return lxNoError;
    });
}

} // extern "C"
