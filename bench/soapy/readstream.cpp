// SoapySDR readStream through the LX530 module against the C API's lxGetIQ,
// on two simulated analyzers with the same scene, 61.44 MS/s complex float,
// 65536 samples per call (the module's MTU). Each iteration streams a quarter
// second of samples through each path in turn, so both see the same load.
//
//   soapy_MSps, capi_MSps  samples delivered per wall-clock second
//   x_capi                 soapy_MSps / capi_MSps (goal >= 0.95)
//
// Wall time: the work runs on the library's engine threads, not the reader's.
#include <benchmark/benchmark.h>

#include <SoapySDR/Device.hpp>
#include <SoapySDR/Formats.hpp>
#include <SoapySDR/Modules.hpp>

#include <chrono>
#include <complex>
#include <cstdio>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "lx_api.h"
#include "lx_sim.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr const char* kScene =
    R"({"emitters": [{"kind": "tone", "frequency_hz": 1.0002e9, "power_dbm": -30}], "noise_floor_dbm_hz": -160})";
constexpr int kChunk = 65536;
constexpr int64_t kPerRound = 15360000;  // a quarter second at 61.44 MS/s

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

void BM_ReadStreamVsGetIQ(benchmark::State& state) {
    SoapySDR::loadModule(LX_SOAPY_MODULE);
    const std::string scene = "/tmp/lx_bench_scene_" + std::to_string(getpid()) + ".json";
    std::ofstream(scene) << kScene;
    SoapySDR::Device* dev = SoapySDR::Device::make("driver=lx530,serial=10000081,scene=" + scene);
    dev->setSampleRate(SOAPY_SDR_RX, 0, 61.44e6);
    dev->setFrequency(SOAPY_SDR_RX, 0, 1e9);
    SoapySDR::Stream* stream = dev->setupStream(SOAPY_SDR_RX, SOAPY_SDR_CF32);
    int32_t h = -1;
    if (lxSimAttach(10000082, kScene) < 0 || lxOpenDeviceBySerial(&h, 10000082) < 0) {
        state.SkipWithError("cannot open the simulated analyzer");
        return;
    }
    lxSetIQSampleRate(h, 1);
    lxSetIQCenterFreq(h, 1e9);
    std::vector<std::complex<float>> buf(kChunk);
    void* buffs[] = {buf.data()};
    double tSoapy = 0, tC = 0;
    int64_t nSoapy = 0, nC = 0;
    for (auto _ : state) {
        dev->activateStream(stream);
        int flags = 0;
        long long timeNs = 0;
        for (int k = 0; k < 4; ++k) dev->readStream(stream, buffs, kChunk, flags, timeNs, 1000000);
        int64_t n = 0;
        auto t0 = Clock::now();
        while (n < kPerRound) {
            const int r = dev->readStream(stream, buffs, kChunk, flags, timeNs, 1000000);
            if (r > 0) n += r;
            else if (r != SOAPY_SDR_OVERFLOW) break;
        }
        tSoapy += Seconds(Clock::now() - t0);
        nSoapy += n;
        dev->deactivateStream(stream);

        lxConfigure(h, lxModeIQ);
        uint64_t ts = 0;
        int32_t loss = 0, remaining = 0;
        for (int k = 0; k < 4; ++k) lxGetIQ(h, buf.data(), kChunk, nullptr, 0, &ts, 0, &loss, &remaining);
        n = 0;
        t0 = Clock::now();
        while (n < kPerRound && lxGetIQ(h, buf.data(), kChunk, nullptr, 0, &ts, 0, &loss, &remaining) >= 0)
            n += kChunk;
        tC += Seconds(Clock::now() - t0);
        nC += n;
        lxAbort(h);
    }
    const double soapy = nSoapy / tSoapy / 1e6, capi = nC / tC / 1e6;
    state.counters["soapy_MSps"] = soapy;
    state.counters["capi_MSps"] = capi;
    state.counters["x_capi"] = soapy / capi;
    dev->closeStream(stream);
    SoapySDR::Device::unmake(dev);
    lxCloseDevice(h);
    lxSimDetach(10000082);
    std::remove(scene.c_str());
}
BENCHMARK(BM_ReadStreamVsGetIQ)->Iterations(8)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
