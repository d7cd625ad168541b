// The simulated instrument's data plane: how fast it delivers I/Q through the
// backend, as a multiple of the real device's 61.44 MS/s.
//
//   ./build/release/bench/bench_sim
//
// "x_realtime" is samples per second / 61.44e6 on one core; the host's
// engines need at least 1, and the goal for the simulator is 4.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "lx_sim.h"
#include "sim/sim_backend.h"
#include "sim/synthesis.h"

namespace {

constexpr double kRealtime = 61.44e6;

std::unique_ptr<lx::usb::UsbDevice> OpenSim(const std::string& serial) {
    auto& bus = lx::sim::Backend();
    const int n = bus.DeviceCount();
    for (int i = 0; i < n; ++i)
        if (auto d = bus.Open(i); d && d->Identity().serial == serial) return d;
    return nullptr;
}

std::vector<uint8_t> Block(std::initializer_list<uint32_t> words) {
    std::vector<uint8_t> b(2048);
    std::vector<uint32_t> all(words);
    all.resize(512, 0x00000001);
    for (size_t i = 0; i < 512; ++i)
        for (int k = 0; k < 4; ++k) b[4 * i + k] = static_cast<uint8_t>(all[i] >> (8 * k));
    return b;
}

// What an I/Q streaming engine does: a block with a request for 127 I/Q
// packets and one status packet per 1 MiB read. The device is tuned to
// 1.052 GHz (band 7) with noise and 0, 1 or 4 emitters in view: a tone; a
// tone, a burst train, an AM and an FM carrier (sine programmes); or an
// AM, FM and SSB carrier on a sound file and a tone with a duty cycle.
void BM_StreamEmitters(benchmark::State& state) {
    lxSimDetachAll();
    static const char* kEmitters[] = {
        "",
        R"({"kind": "tone", "frequency_hz": 1.0592e9, "power_dbm": -30})",
        R"({"kind": "tone", "frequency_hz": 1.0592e9, "power_dbm": -30},
           {"kind": "burst", "frequency_hz": 1.0602e9, "power_dbm": -30, "width_s": 1e-4, "period_s": 3e-4},
           {"kind": "am", "frequency_hz": 1.0612e9, "power_dbm": -30, "depth": 0.8, "audio_hz": 1000},
           {"kind": "fm", "frequency_hz": 1.0622e9, "power_dbm": -30, "deviation_hz": 75000, "audio_hz": 1000})",
        R"({"kind": "tone", "frequency_hz": 1.0592e9, "power_dbm": -30, "on_s": 1e-3, "off_s": 1e-3},
           {"kind": "am", "frequency_hz": 1.0612e9, "power_dbm": -30, "depth": 0.8, "audio_file": "AUDIO"},
           {"kind": "fm", "frequency_hz": 1.0622e9, "power_dbm": -30, "deviation_hz": 75000, "audio_file": "AUDIO"},
           {"kind": "ssb", "frequency_hz": 1.0632e9, "power_dbm": -30, "sideband": "upper", "audio_file": "AUDIO"})",
    };
    std::string emitters = kEmitters[state.range(0)];
    for (size_t at; (at = emitters.find("AUDIO")) != std::string::npos;)
        emitters.replace(at, 5, LX_BENCH_SOURCE_DIR "/tests/data/audio/melody_8k.wav");
    const std::string scene = R"({"noise_floor_dbm_hz": -150, "emitters": [)" + emitters + "]}";
    auto d = lxSimAttach(90000001, scene.c_str()) == lxNoError ? OpenSim("90000001") : nullptr;
    if (!d) {
        state.SkipWithError("no simulated device");
        return;
    }
    // Band 7, LO 1075.2 MHz: synthesizer 2150.4 MHz = VCO 8601.6 MHz / 4.
    const auto tune = Block({0x24000004, 0x2CA838A0, 0x20240046, 0x202B0000, 0x204B0840, 0x20000000, 0x2E008040,
                             0x30000001});
    const auto request = Block({0x3100017F, 0x14000001, 0x01000000, 0x01000000, 0x01000000});
    std::vector<uint8_t> in(1 << 20);
    auto send = [&](const std::vector<uint8_t>& b) {
        auto t = d->BeginBulk(lx::usb::Endpoint::BulkOut, const_cast<uint8_t*>(b.data()), 2048);
        d->WaitBulk(*t, 2000);
        d->FinishBulk(*t);
    };
    send(tune);
    for (auto _ : state) {
        send(request);
        auto t = d->BeginBulk(lx::usb::Endpoint::BulkIn, in.data(), static_cast<uint32_t>(in.size()));
        if (d->WaitBulk(*t, 2000) != lx::usb::WaitResult::Completed || d->FinishBulk(*t) != in.size()) {
            state.SkipWithError("transfer failed");
            break;
        }
        benchmark::DoNotOptimize(in.data());
    }
    const double samples = static_cast<double>(state.iterations()) * 127 * 2048;
    state.counters["samples_per_s"] = benchmark::Counter(samples, benchmark::Counter::kIsRate);
    state.counters["x_realtime"] = benchmark::Counter(samples / kRealtime, benchmark::Counter::kIsRate);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * (1 << 20));
    lxSimDetachAll();
}
BENCHMARK(BM_StreamEmitters)->DenseRange(0, 3)->Unit(benchmark::kMillisecond)->MinTime(1.0);

// The synthesis kernel alone: one packet of 2048 samples, noise and n tones.
void BM_RenderPacket(benchmark::State& state) {
    lx::sim::RenderPlan plan;
    plan.noiseShape = lx::sim::NoiseShape([](double) { return 1e-6; });
    for (int i = 0; i < state.range(0); ++i) plan.tones.push_back({0.0123 + 0.01 * i, 0.25, 0.7f});
    std::vector<int16_t> out(4096);
    uint64_t first = 0;
    for (auto _ : state) {
        lx::sim::RenderIqPacket(plan, first, first, out.data());
        first += 2048;
        benchmark::DoNotOptimize(out.data());
    }
    const double samples = static_cast<double>(state.iterations()) * 2048;
    state.counters["x_realtime"] = benchmark::Counter(samples / kRealtime, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_RenderPacket)->Arg(0)->Arg(1)->Arg(4);

} // namespace

BENCHMARK_MAIN();
