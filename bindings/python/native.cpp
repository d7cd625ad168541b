// lx_api._native: the C API of liblx_api.so for the Python package.
//
// Thin on purpose: every function here makes one or a few C calls with the
// GIL released and turns their status into a Python exception or warning;
// the Python layer (lx_api/__init__.py) gives them their shape. Statuses map
// to exception classes that lx_api/__init__.py hands over at import
// (_set_status_classes), so the hierarchy is written in Python once.
//
// Threads: a Python thread calling in holds no lock of ours; the library
// serialises calls on one handle itself. get_sweep runs lxGetSweep on a
// helper thread (see WaitInterruptibly); nothing else starts threads.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <limits>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>

#include "lx_api.h"
#include "lx_sim.h"

namespace py = pybind11;

namespace {

// Status code -> Python class; filled by _set_status_classes. Plain handles
// holding a reference that is never given back: a py::object here would be
// released by a static destructor after the interpreter has finalised.
py::handle g_errors, g_warnings, g_errorBase, g_warningBase;

py::object Lookup(py::handle table, py::handle fallback, LxStatus s) {
    if (table && table.cast<py::dict>().contains(py::int_(static_cast<int>(s))))
        return table.cast<py::dict>()[py::int_(static_cast<int>(s))];
    return fallback ? py::reinterpret_borrow<py::object>(fallback) : py::object(py::none());
}

// Raises the exception of an error status; emits the warning of a warning
// status (which may itself raise when warnings are filters set to "error").
void Check(LxStatus s, const char* call) {
    if (s == lxNoError) return;
    if (s < 0) {
        py::object cls = Lookup(g_errors, g_errorBase, s);
        if (cls.is_none()) throw std::runtime_error(std::string(call) + ": " + lxGetErrorString(s));
        PyErr_SetObject(cls.ptr(), cls(static_cast<int>(s), lxGetErrorString(s), call).ptr());
        throw py::error_already_set();
    }
    py::object cls = Lookup(g_warnings, g_warningBase, s);
    if (cls.is_none()) cls = py::reinterpret_borrow<py::object>(PyExc_UserWarning);
    const std::string text = std::string(call) + ": " + lxGetErrorString(s) + " (" + std::to_string(int(s)) + ")";
    // Stack level 2: the caller of the lx_api method that called in here.
    if (PyErr_WarnEx(cls.ptr(), text.c_str(), 2) != 0) throw py::error_already_set();
}

// Runs f (returning LxStatus) with the GIL released, then checks its status.
template <class F>
LxStatus Call(const char* name, F&& f) {
    LxStatus s;
    {
        py::gil_scoped_release nogil;
        s = f();
    }
    Check(s, name);
    return s;
}

// Waits for call() on a helper thread, in slices of 50 ms with the GIL
// released, looking at pending signals between slices: a blocking C call
// cannot see a Ctrl-C, so without this a KeyboardInterrupt would wait for
// the whole read. On a signal cancel() is made to end the call (it must),
// the helper is joined and the Python exception (KeyboardInterrupt) raised.
template <class F, class C>
LxStatus WaitInterruptibly(F&& call, C&& cancel) {
    struct Shared {
        std::mutex m;
        std::condition_variable cv;
        bool done = false;
        LxStatus status = lxNoError;
    } shared;
    std::thread helper;
    {
        py::gil_scoped_release nogil;
        helper = std::thread([&] {
            const LxStatus s = call();
            std::lock_guard<std::mutex> l(shared.m);
            shared.status = s;
            shared.done = true;
            shared.cv.notify_all();
        });
    }
    for (;;) {
        bool done;
        {
            py::gil_scoped_release nogil;
            std::unique_lock<std::mutex> l(shared.m);
            done = shared.cv.wait_for(l, std::chrono::milliseconds(50), [&] { return shared.done; });
        }
        if (done) break;
        if (PyErr_CheckSignals() != 0) {
            {
                py::gil_scoped_release nogil;
                cancel();
                helper.join();
            }
            throw py::error_already_set();
        }
    }
    {
        py::gil_scoped_release nogil;
        helper.join();
    }
    return shared.status;
}

constexpr py::ssize_t kAudioBlock = 1000; // samples per lxGetAudio block

template <class T>
py::array_t<T> Empty(py::ssize_t n) {
    return py::array_t<T>(n);
}

py::dict Diagnostics(int32_t h) {
    float v = 0, a = 0, t = 0;
    Call("lxGetDeviceDiagnostics", [&] { return lxGetDeviceDiagnostics(h, &v, &a, &t); });
    py::dict d;
    d["voltage"] = v;
    d["current"] = a;
    d["temperature"] = t;
    return d;
}

py::tuple GetSweep(int32_t h) {
    int32_t n = 0;
    double start = 0, bin = 0;
    Call("lxGetSweep", [&] { return lxGetSweepParameters(h, nullptr, nullptr, &start, &bin, &n); });
    py::array_t<float> mn = Empty<float>(n), mx = Empty<float>(n);
    float* pmn = mn.mutable_data();
    float* pmx = mx.mutable_data();
    uint64_t ts = 0;
    // An abort ends a pending sweep (lxGetSweep returns at once); the
    // analyzer is idle afterwards, its settings kept.
    const LxStatus s = WaitInterruptibly([&] { return lxGetSweep(h, pmn, pmx, &ts); }, [&] { lxAbort(h); });
    Check(s, "lxGetSweep");
    return py::make_tuple(mn, mx, ts, static_cast<int>(s), start, bin);
}

py::tuple GetRealTimeFrame(int32_t h, bool alpha) {
    int32_t n = 0, w = 0, ht = 0;
    double start = 0, bin = 0;
    Call("lxGetRealTimeFrame",
         [&] { return lxGetRealTimeParameters(h, nullptr, &n, &start, &bin, &w, &ht, nullptr); });
    py::array_t<float> frame({ht, w});
    py::array_t<float> alphaFrame = alpha ? py::array_t<float>({ht, w}) : py::array_t<float>();
    py::array_t<float> mn = Empty<float>(n), mx = Empty<float>(n);
    float* pf = frame.mutable_data();
    float* pa = alpha ? alphaFrame.mutable_data() : nullptr;
    float* pmn = mn.mutable_data();
    float* pmx = mx.mutable_data();
    int32_t number = 0;
    uint64_t ts = 0;
    // A frame closes every 1/30 s, so the wait is short; signals are looked
    // at after it (Python does so on return).
    const LxStatus s = Call("lxGetRealTimeFrame",
                            [&] { return lxGetRealTimeFrame(h, pf, pa, pmn, pmx, &number, &ts); });
    return py::make_tuple(frame, alpha ? py::object(alphaFrame) : py::none(), mn, mx, number, ts,
                          static_cast<int>(s), start, bin);
}

// Reads count samples in slices of at most `slice` samples, each with the
// GIL released, with the signals looked at between slices: the stream goes
// on without a gap from one slice to the next, so the result is the same as
// one read, but a Ctrl-C lands within a slice's time. Returns the samples,
// the time stamp of the first, the loss flag, trigger positions (samples
// from the first, fractional) and the status.
py::tuple ReadIq(int32_t h, int64_t count, bool int16, int64_t slice, bool purge, int32_t maxTriggers,
                 py::object out) {
    if (count < 1) Check(lxInvalidParameterErr, "lxGetIQ");
    slice = std::clamp<int64_t>(slice, 1, std::numeric_limits<int32_t>::max());
    py::array buffer;
    if (!out.is_none()) {
        buffer = py::reinterpret_borrow<py::array>(out);
        const bool shape = int16 ? (buffer.ndim() == 2 && buffer.shape(1) == 2 && buffer.shape(0) >= count)
                                 : (buffer.ndim() == 1 && buffer.shape(0) >= count);
        const bool type = int16 ? buffer.dtype().is(py::dtype::of<int16_t>())
                                : buffer.dtype().is(py::dtype::of<std::complex<float>>());
        if (!shape || !type || !buffer.writeable() || !(buffer.flags() & py::array::c_style))
            throw py::value_error(int16 ? "out: a writeable C-contiguous int16 array of shape (>= count, 2)"
                                        : "out: a writeable C-contiguous complex64 array of >= count samples");
    } else if (int16) {
        buffer = py::array_t<int16_t>({static_cast<py::ssize_t>(count), py::ssize_t(2)});
    } else {
        buffer = py::array_t<std::complex<float>>(static_cast<py::ssize_t>(count));
    }
    auto* base = static_cast<uint8_t*>(buffer.mutable_data());
    const size_t bytesPerSample = int16 ? 4 : 8;
    std::vector<double> trig(static_cast<size_t>(std::max(maxTriggers, 0)));
    py::list triggers;
    uint64_t firstStamp = 0;
    int32_t loss = 0;
    LxStatus worst = lxNoError;
    for (int64_t done = 0; done < count;) {
        const int32_t n = static_cast<int32_t>(std::min(slice, count - done));
        uint64_t ts = 0;
        int32_t sliceLoss = 0;
        LxStatus s;
        {
            py::gil_scoped_release nogil;
            s = lxGetIQ(h, base + done * bytesPerSample, n, trig.empty() ? nullptr : trig.data(),
                        static_cast<int32_t>(trig.size()), &ts, purge && done == 0 ? 1 : 0, &sliceLoss, nullptr);
        }
        if (s < 0) Check(s, "lxGetIQ");
        if (s > 0) worst = s; // a later warning replaces an earlier one, as in one read
        if (done == 0) firstStamp = ts;
        loss |= sliceLoss;
        for (double t : trig)
            if (t >= 0.0) triggers.append(t + static_cast<double>(done));
        done += n;
        if (done < count && PyErr_CheckSignals() != 0) throw py::error_already_set();
    }
    Check(worst, "lxGetIQ");
    return py::make_tuple(buffer, firstStamp, loss != 0, triggers, static_cast<int>(worst));
}

py::tuple GpsInfo(int32_t h, bool refresh) {
    uint32_t updated = 0, state = 0;
    int64_t time = 0;
    double lat = 0, lon = 0, alt = 0;
    char nmea[4096] = {};
    int32_t len = sizeof nmea;
    Call("lxGetGPSInfo", [&] { return lxGetGPSInfo(h, refresh ? 1 : 0, &updated, &time, &lat, &lon, &alt, nmea, &len); });
    Call("lxGetGPSState", [&] { return lxGetGPSState(h, &state); });
    return py::make_tuple(state, updated != 0, time, lat, lon, alt, std::string(nmea, len > 0 ? size_t(len - 1) : 0));
}

// Setter with one argument of type A: f(handle, a).
template <class A>
void Def1(py::module_& m, const char* py, const char* c, LxStatus (*f)(int32_t, A)) {
    m.def(py, [c, f](int32_t h, A a) { return static_cast<int>(Call(c, [&] { return f(h, a); })); });
}
// Getter of one output of type T: f(handle, &t).
template <class T>
void Get1(py::module_& m, const char* py, const char* c, LxStatus (*f)(int32_t, T*)) {
    m.def(py, [c, f](int32_t h) {
        T t{};
        Call(c, [&] { return f(h, &t); });
        return t;
    });
}

} // namespace

PYBIND11_MODULE(_native, m) {
    m.doc() = "The C API of liblx_api.so; use the lx_api package instead.";
    m.def("_set_status_classes", [](py::dict errors, py::dict warnings, py::object errorBase, py::object warningBase) {
        g_errors = errors.release();
        g_warnings = warnings.release();
        g_errorBase = errorBase.release();
        g_warningBase = warningBase.release();
    });
    m.def("error_string", [](int s) { return std::string(lxGetErrorString(static_cast<LxStatus>(s))); });
    m.def("api_version", [] { return std::string(lxGetAPIVersion()); });
    m.def("check", [](int s, const char* call) { Check(static_cast<LxStatus>(s), call); });

    // Devices.
    m.def("device_list", [] {
        int32_t serials[64];
        int32_t count = 64;
        Call("lxGetDeviceList", [&] { return lxGetDeviceList(serials, &count); });
        return std::vector<int32_t>(serials, serials + count);
    });
    m.def("device_personality", [](int32_t serial) {
        int32_t p = -1;
        Call("lxGetDevicePersonality", [&] { return lxGetDevicePersonality(serial, &p); });
        return p;
    });
    m.def("open_first", [] {
        int32_t h = -1;
        Call("lxOpenDevice", [&] { return lxOpenDevice(&h); });
        return h;
    });
    m.def("open_serial", [](int32_t serial) {
        int32_t h = -1;
        Call("lxOpenDeviceBySerial", [&] { return lxOpenDeviceBySerial(&h, serial); });
        return h;
    });
    m.def("close", [](int32_t h) { Call("lxCloseDevice", [&] { return lxCloseDevice(h); }); });
    m.def("preset", [](int32_t h) { Call("lxPresetDevice", [&] { return lxPresetDevice(h); }); });
    Def1<int32_t>(m, "configure", "lxConfigure", lxConfigure);
    m.def("abort", [](int32_t h) { Call("lxAbort", [&] { return lxAbort(h); }); });
    Get1<int32_t>(m, "current_mode", "lxGetCurrentMode", lxGetCurrentMode);

    // Settings.
    Def1<double>(m, "set_ref_level", "lxSetRefLevel", lxSetRefLevel);
    Get1<double>(m, "ref_level", "lxGetRefLevel", lxGetRefLevel);
    Def1<int32_t>(m, "set_attenuator", "lxSetAttenuator", lxSetAttenuator);
    Get1<int32_t>(m, "attenuator", "lxGetAttenuator", lxGetAttenuator);
    m.def("set_sweep_start_stop", [](int32_t h, double a, double b) {
        return int(Call("lxSetSweepStartStop", [&] { return lxSetSweepStartStop(h, a, b); }));
    });
    m.def("set_sweep_center_span", [](int32_t h, double c, double s) {
        return int(Call("lxSetSweepCenterSpan", [&] { return lxSetSweepCenterSpan(h, c, s); }));
    });
    m.def("set_sweep_coupling", [](int32_t h, double rbw, double vbw, double t) {
        return int(Call("lxSetSweepCoupling", [&] { return lxSetSweepCoupling(h, rbw, vbw, t); }));
    });
    m.def("set_sweep_detector", [](int32_t h, int32_t d, int32_t u) {
        return int(Call("lxSetSweepDetector", [&] { return lxSetSweepDetector(h, d, u); }));
    });
    Def1<int32_t>(m, "set_sweep_scale", "lxSetSweepScale", lxSetSweepScale);
    Def1<int32_t>(m, "set_sweep_window", "lxSetSweepWindow", lxSetSweepWindow);
    m.def("sweep_parameters", [](int32_t h) {
        double rbw = 0, vbw = 0, start = 0, bin = 0;
        int32_t n = 0;
        Call("lxGetSweepParameters", [&] { return lxGetSweepParameters(h, &rbw, &vbw, &start, &bin, &n); });
        return std::make_tuple(rbw, vbw, start, bin, n);
    });
    m.def("get_sweep", &GetSweep);

    m.def("set_realtime_center_span", [](int32_t h, double c, double s) {
        return int(Call("lxSetRealTimeCenterSpan", [&] { return lxSetRealTimeCenterSpan(h, c, s); }));
    });
    Def1<double>(m, "set_realtime_rbw", "lxSetRealTimeRBW", lxSetRealTimeRBW);
    Def1<int32_t>(m, "set_realtime_detector", "lxSetRealTimeDetector", lxSetRealTimeDetector);
    Def1<int32_t>(m, "set_realtime_window", "lxSetRealTimeWindow", lxSetRealTimeWindow);
    m.def("set_realtime_scale", [](int32_t h, int32_t scale, double ref, double range) {
        return int(Call("lxSetRealTimeScale", [&] { return lxSetRealTimeScale(h, scale, ref, range); }));
    });
    m.def("realtime_parameters", [](int32_t h) {
        double rbw = 0, start = 0, bin = 0, poi = 0;
        int32_t n = 0, w = 0, ht = 0;
        Call("lxGetRealTimeParameters",
             [&] { return lxGetRealTimeParameters(h, &rbw, &n, &start, &bin, &w, &ht, &poi); });
        return std::make_tuple(rbw, n, start, bin, w, ht, poi);
    });
    m.def("get_realtime_frame", &GetRealTimeFrame);

    Def1<int32_t>(m, "set_iq_data_type", "lxSetIQDataType", lxSetIQDataType);
    Def1<double>(m, "set_iq_center", "lxSetIQCenterFreq", lxSetIQCenterFreq);
    Def1<int32_t>(m, "set_iq_decimation", "lxSetIQSampleRate", lxSetIQSampleRate);
    Def1<int32_t>(m, "set_iq_software_filter", "lxSetIQSoftwareFilter", lxSetIQSoftwareFilter);
    Def1<double>(m, "set_iq_bandwidth", "lxSetIQBandwidth", lxSetIQBandwidth);
    Def1<int32_t>(m, "set_iq_trigger_edge", "lxSetIQExtTriggerEdge", lxSetIQExtTriggerEdge);
    Def1<int32_t>(m, "set_iq_queue_size", "lxSetIQQueueSize", lxSetIQQueueSize);
    m.def("iq_parameters", [](int32_t h) {
        double rate = 0, bw = 0;
        float corr = 0;
        Call("lxGetIQParameters", [&] { return lxGetIQParameters(h, &rate, &bw); });
        Call("lxGetIQCorrection", [&] { return lxGetIQCorrection(h, &corr); });
        return std::make_tuple(rate, bw, corr);
    });
    m.def("read_iq", &ReadIq, py::arg("handle"), py::arg("count"), py::arg("int16"), py::arg("slice"),
          py::arg("purge"), py::arg("max_triggers"), py::arg("out"));
    Def1<double>(m, "set_audio_center", "lxSetAudioCenterFreq", lxSetAudioCenterFreq);
    Def1<int32_t>(m, "set_audio_type", "lxSetAudioType", lxSetAudioType);
    Def1<double>(m, "set_audio_deemphasis", "lxSetAudioFMDeemphasis", lxSetAudioFMDeemphasis);
    m.def("set_audio_filters", [](int32_t h, double ifBandwidth, double lowPass, double highPass) {
        return int(Call("lxSetAudioFilters", [&] { return lxSetAudioFilters(h, ifBandwidth, lowPass, highPass); }));
    });
    m.def("audio_settings", [](int32_t h) {
        double centre = 0, ifBw = 0, lp = 0, hp = 0, de = 0;
        int32_t type = 0;
        Call("lxGetAudioSettings", [&] { return lxGetAudioSettings(h, &centre, &type, &ifBw, &lp, &hp, &de); });
        return std::make_tuple(centre, type, ifBw, lp, hp, de);
    });
    // One block is 1/30 s of audio, so the wait is short; signals are looked
    // at on return.
    m.def("get_audio", [](int32_t h) {
        py::array_t<float> block = Empty<float>(kAudioBlock);
        float* p = block.mutable_data();
        const LxStatus s = Call("lxGetAudio", [&] { return lxGetAudio(h, p); });
        return py::make_tuple(block, static_cast<int>(s));
    });
    m.def("stream_health", [](int32_t h) {
        LxStreamHealth s{};
        Call("lxGetStreamHealth", [&] { return lxGetStreamHealth(h, &s); });
        py::dict d;
        d["samples_delivered"] = s.samplesDelivered;
        d["samples_dropped"] = s.samplesDropped;
        d["data_loss_events"] = s.dataLossEvents;
        d["adc_overflow_events"] = s.adcOverflowEvents;
        d["transport_errors"] = s.transportErrors;
        d["spectra_lost"] = s.spectraLost;
        d["stream_held_ms"] = s.streamHeldMs;
        return d;
    });

    // Identity, diagnostics, peripherals.
    Def1<uint32_t>(m, "set_power_state", "lxSetPowerState", lxSetPowerState);
    Get1<uint32_t>(m, "power_state", "lxGetPowerState", lxGetPowerState);
    Get1<uint32_t>(m, "serial_number", "lxGetSerialNumber", lxGetSerialNumber);
    Get1<uint32_t>(m, "cal_date", "lxGetCalDate", lxGetCalDate);
    m.def("firmware_version", [](int32_t h) {
        uint32_t a = 0, b = 0, c = 0;
        Call("lxGetFirmwareVersion", [&] { return lxGetFirmwareVersion(h, &a, &b, &c); });
        return std::make_tuple(a, b, c);
    });
    m.def("diagnostics", &Diagnostics);
    Def1<uint32_t>(m, "set_reference", "lxSetReference", lxSetReference);
    Get1<uint32_t>(m, "reference", "lxGetReference", lxGetReference);
    Def1<uint32_t>(m, "set_gpio_port", "lxSetGPIOPort", lxSetGPIOPort);
    Get1<uint32_t>(m, "gpio_port", "lxGetGPIOPort", lxGetGPIOPort);
    Def1<float>(m, "set_uart_baud_rate", "lxSetUARTBaudRate", lxSetUARTBaudRate);
    Get1<float>(m, "uart_baud_rate", "lxGetUARTBaudRate", lxGetUARTBaudRate);
    Def1<uint8_t>(m, "write_uart", "lxWriteUARTDirect", lxWriteUARTDirect);
    Def1<float>(m, "set_fan_set_point", "lxSetFanSetPoint", lxSetFanSetPoint);
    m.def("fan_settings", [](int32_t h) {
        float sp = 0, fan = 0;
        Call("lxGetFanSettings", [&] { return lxGetFanSettings(h, &sp, &fan); });
        return std::make_tuple(sp, fan);
    });
    Def1<uint32_t>(m, "set_gps_timebase_update", "lxSetGPSTimebaseUpdate", lxSetGPSTimebaseUpdate);
    Get1<uint32_t>(m, "gps_timebase_update", "lxGetGPSTimebaseUpdate", lxGetGPSTimebaseUpdate);
    m.def("gps_holdover", [](int32_t h) {
        uint32_t holdover = 0, time = 0;
        Call("lxGetGPSHoldoverInfo", [&] { return lxGetGPSHoldoverInfo(h, &holdover, &time); });
        return std::make_tuple(holdover != 0, time);
    });
    m.def("gps_info", &GpsInfo);
    m.def("write_gps", [](int32_t h, py::bytes data) {
        const std::string s = data;
        Call("lxWriteToGPS", [&] {
            return lxWriteToGPS(h, reinterpret_cast<const uint8_t*>(s.data()), static_cast<int32_t>(s.size()));
        });
    });

    // Simulated analyzers.
    m.def("sim_attach", [](int32_t serial, const std::string& scene) {
        LxStatus s;
        char why[512] = {};
        {
            py::gil_scoped_release nogil;
            s = lxSimAttach(serial, scene.c_str());
            // The reason is kept per thread: ask on the thread that attached.
            if (s != lxNoError) lxSimGetSceneError(why, sizeof why);
        }
        return std::make_tuple(static_cast<int>(s), std::string(why));
    });
    m.def("sim_set_scene", [](int32_t serial, const std::string& scene) {
        LxStatus s;
        char why[512] = {};
        {
            py::gil_scoped_release nogil;
            s = lxSimSetScene(serial, scene.c_str());
            if (s != lxNoError) lxSimGetSceneError(why, sizeof why);
        }
        return std::make_tuple(static_cast<int>(s), std::string(why));
    });
    m.def("sim_detach", [](int32_t serial) { Call("lxSimDetach", [&] { return lxSimDetach(serial); }); });
    m.def("sim_detach_all", [] { Call("lxSimDetachAll", [] { return lxSimDetachAll(); }); });
    m.def("sim_advance_time_ms", [](uint64_t ms) { Call("lxSimAdvanceTimeMs", [&] { return lxSimAdvanceTimeMs(ms); }); });
    m.def("sim_counters", [](int32_t serial) {
        LxSimCounters c{};
        Call("lxSimGetCounters", [&] { return lxSimGetCounters(serial, &c); });
        py::dict d;
        d["command_blocks"] = c.commandBlocks;
        d["in_transfers"] = c.inTransfers;
        d["out_transfers"] = c.outTransfers;
        d["opens"] = c.opens;
        d["iq_packets"] = c.iqPackets;
        d["aux_packets"] = c.auxPackets;
        return d;
    });

    // Unfilled trigger entries read as NaN, so that a trigger on sample 0 is
    // told apart from none (the sentinel is process-wide; 0 by default).
    lxSetIQTriggerSentinel(std::numeric_limits<double>::quiet_NaN());
}
