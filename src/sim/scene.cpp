#include "sim/scene.h"

#include <climits>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>
#include <set>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "sim/audio_track.h"
#include "sim/gps_receiver.h"

namespace lx::sim {

namespace {

using nlohmann::json;

constexpr double kAdcRateHz = 61.44e6; // scene times fall on ADC samples

// Every rejection is a SceneError carrying the reason; nothing else escapes.
struct SceneError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

double Number(const json& v, const std::string& key, double lo, double hi) {
    if (!v.is_number()) throw SceneError("\"" + key + "\" must be a number");
    const double d = v.get<double>();
    if (!std::isfinite(d) || d < lo || d > hi)
        throw SceneError("\"" + key + "\" out of range [" + std::to_string(lo) + ", " + std::to_string(hi) + "]");
    return d;
}

uint32_t Integer(const json& v, const std::string& key, uint32_t hi) {
    if (!v.is_number_integer() || v.get<int64_t>() < 0 || v.get<int64_t>() > hi)
        throw SceneError("\"" + key + "\" must be an integer in [0, " + std::to_string(hi) + "]");
    return static_cast<uint32_t>(v.get<int64_t>());
}

bool Bool(const json& v, const std::string& key) {
    if (!v.is_boolean()) throw SceneError("\"" + key + "\" must be true or false");
    return v.get<bool>();
}

template <typename E>
E Choice(const json& v, const std::string& key, const std::map<std::string, E>& choices) {
    if (v.is_string()) {
        const auto it = choices.find(v.get<std::string>());
        if (it != choices.end()) return it->second;
    }
    std::string names;
    for (const auto& [name, value] : choices) names += (names.empty() ? "" : ", ") + ("\"" + name + "\"");
    throw SceneError("\"" + key + "\" must be one of " + names);
}

// A table of key handlers; unknown keys are errors, so a typo never silently
// yields a default. New keys are one line here.
using Handler = std::function<void(const json&, Scene&)>;

int64_t Samples(double seconds) { return std::llround(seconds * kAdcRateHz); }

std::optional<int64_t> Utc(const json& v) {
    return v.is_string() ? ParseUtc(v.get<std::string>()) : std::nullopt;
}

// Keys each kind takes besides kind, frequency_hz, power_dbm and phase_deg.
const std::map<std::string, std::pair<Emitter::Kind, std::set<std::string>>>& EmitterKinds() {
    static const std::map<std::string, std::pair<Emitter::Kind, std::set<std::string>>> kKinds{
        {"tone", {Emitter::Kind::Tone, {"on_s", "off_s"}}},
        {"burst", {Emitter::Kind::Burst, {"start_s", "start_utc", "width_s", "period_s", "count"}}},
        {"am", {Emitter::Kind::Am, {"depth", "audio_hz", "audio_file"}}},
        {"fm", {Emitter::Kind::Fm, {"deviation_hz", "preemphasis_s", "audio_hz", "audio_file"}}},
        {"ssb", {Emitter::Kind::Ssb, {"sideband", "audio_hz", "audio_file"}}},
    };
    return kKinds;
}

Emitter ParseEmitter(const json& e) {
    const auto kind = e.find("kind");
    if (kind == e.end() || !kind->is_string()) throw SceneError("an emitter needs a \"kind\"");
    const std::string name = kind->get<std::string>();
    const auto it = EmitterKinds().find(name);
    if (it == EmitterKinds().end()) throw SceneError("unknown emitter kind \"" + name + "\"");
    Emitter m;
    m.kind = it->second.first;
    const auto has = [&](const char* key) { return e.contains(key); };
    for (const auto& [key, value] : e.items()) {
        if (key == "kind" || key == "frequency_hz" || key == "power_dbm" || key == "phase_deg") continue;
        if (!it->second.second.count(key)) throw SceneError("unknown " + name + " key \"" + key + "\"");
    }
    if (!has("frequency_hz") || !has("power_dbm"))
        throw SceneError("a " + name + " needs \"frequency_hz\" and \"power_dbm\"");
    m.frequencyHz = Number(e["frequency_hz"], "frequency_hz", 0.0, 20e9);
    m.powerDbm = Number(e["power_dbm"], "power_dbm", -200.0, 30.0);
    if (has("phase_deg")) m.phaseDeg = Number(e["phase_deg"], "phase_deg", -360.0, 360.0);
    switch (m.kind) {
    case Emitter::Kind::Tone:
        if (has("on_s") != has("off_s")) throw SceneError("a tone's duty cycle needs both \"on_s\" and \"off_s\"");
        if (has("on_s")) {
            Gate g;
            g.width = Samples(Number(e["on_s"], "on_s", 1.0 / kAdcRateHz, 1e4));
            g.period = g.width + Samples(Number(e["off_s"], "off_s", 1.0 / kAdcRateHz, 1e4));
            g.count = -1;
            m.gate = g;
        }
        break;
    case Emitter::Kind::Burst: {
        if (!has("width_s")) throw SceneError("a burst needs \"width_s\"");
        Gate g;
        g.width = Samples(Number(e["width_s"], "width_s", 1.0 / kAdcRateHz, 1e4));
        if (has("start_s")) g.start = Samples(Number(e["start_s"], "start_s", 0.0, 1e7));
        if (has("start_utc")) {
            g.startUtc = Utc(e["start_utc"]);
            if (!g.startUtc) throw SceneError("\"start_utc\" must be a time \"YYYY-MM-DDTHH:MM:SSZ\" in 2000..2099");
        }
        if (has("period_s")) {
            g.period = Samples(Number(e["period_s"], "period_s", 1.0 / kAdcRateHz, 1e4));
            if (g.period <= g.width) throw SceneError("\"period_s\" must exceed \"width_s\"");
            g.count = -1;
        }
        if (has("count")) {
            if (!has("period_s")) throw SceneError("\"count\" needs \"period_s\"");
            g.count = Integer(e["count"], "count", 0x7FFFFFFF);
            if (g.count == 0) throw SceneError("\"count\" must be at least 1");
        }
        m.gate = g;
        break;
    }
    case Emitter::Kind::Am:
        if (!has("depth")) throw SceneError("an am needs \"depth\"");
        m.depth = Number(e["depth"], "depth", 0.0, 1.0);
        break;
    case Emitter::Kind::Fm:
        if (!has("deviation_hz")) throw SceneError("an fm needs \"deviation_hz\"");
        m.deviationHz = Number(e["deviation_hz"], "deviation_hz", 0.0, 1e6);
        if (has("preemphasis_s")) m.preemphasisS = Number(e["preemphasis_s"], "preemphasis_s", 0.0, 1e-3);
        break;
    case Emitter::Kind::Ssb:
        if (!has("sideband")) throw SceneError("an ssb needs \"sideband\"");
        m.upper = Choice<bool>(e["sideband"], "sideband", {{"upper", true}, {"lower", false}});
        break;
    }
    if (m.kind == Emitter::Kind::Am || m.kind == Emitter::Kind::Fm || m.kind == Emitter::Kind::Ssb) {
        if (has("audio_hz") == has("audio_file"))
            throw SceneError("a " + name + " needs one of \"audio_hz\" and \"audio_file\"");
        if (has("audio_hz")) m.audioHz = Number(e["audio_hz"], "audio_hz", 1.0, 100e3);
        if (has("audio_file")) {
            if (!e["audio_file"].is_string()) throw SceneError("\"audio_file\" must be a path");
            std::string why;
            m.audio = LoadAudioTrack(e["audio_file"].get<std::string>(), &why);
            if (!m.audio) throw SceneError(why);
        }
    }
    return m;
}

void ParseEmitters(const json& v, Scene& s) {
    if (!v.is_array()) throw SceneError("\"emitters\" must be an array");
    if (v.size() > 64) throw SceneError("\"emitters\" holds at most 64 emitters");
    for (const auto& e : v) {
        if (!e.is_object()) throw SceneError("an emitter must be an object");
        s.emitters.push_back(ParseEmitter(e));
    }
}

void ParseTrigger(const json& v, Scene& s) {
    if (!v.is_object()) throw SceneError("\"trigger\" must be an object");
    auto t = std::make_shared<TriggerScene>();
    for (const auto& [key, value] : v.items()) {
        if (key == "times_s") {
            if (!value.is_array() || value.empty() || value.size() > 100000)
                throw SceneError("\"times_s\" must be a list of 1 .. 100000 times");
            for (const auto& x : value) {
                t->edges.push_back(Samples(Number(x, "times_s", 0.0, 1e7)));
                if (t->edges.size() > 1 && t->edges[t->edges.size() - 2] >= t->edges.back())
                    throw SceneError("\"times_s\" must be ascending");
            }
        } else if (key == "start_s") {
            t->start = Samples(Number(value, "start_s", 0.0, 1e7));
        } else if (key == "period_s") {
            t->period = Samples(Number(value, "period_s", 2.0 / kAdcRateHz, 1e4));
        } else if (key == "count") {
            t->count = Integer(value, "count", 0x7FFFFFFF);
            if (t->count == 0) throw SceneError("\"count\" must be at least 1");
        } else if (key == "width_s") {
            t->width = Samples(Number(value, "width_s", 1.0 / kAdcRateHz, 1.0));
        } else if (key == "polarity") {
            t->risingFirst = Choice<bool>(value, "polarity", {{"rising", true}, {"falling", false}});
        } else {
            throw SceneError("unknown trigger key \"" + key + "\"");
        }
    }
    const bool train = v.contains("period_s");
    if (train == v.contains("times_s")) throw SceneError("\"trigger\" needs one of \"times_s\" and \"period_s\"");
    if (!train && (v.contains("start_s") || v.contains("count")))
        throw SceneError("\"trigger\": \"start_s\" and \"count\" go with \"period_s\"");
    if (train && !v.contains("count")) t->count = -1;
    const int64_t gap = train ? t->period : [&] {
        int64_t g = INT64_MAX;
        for (size_t i = 1; i < t->edges.size(); ++i) g = std::min(g, t->edges[i] - t->edges[i - 1]);
        return g;
    }();
    if (t->width >= gap) throw SceneError("\"trigger\": \"width_s\" must be shorter than the time between pulses");
    s.trigger = std::move(t);
}

void ParseGps(const json& v, Scene& s) {
    if (!v.is_object()) throw SceneError("\"gps\" must be an object");
    auto g = std::make_shared<GpsScene>();
    using GpsHandler = std::function<void(const json&, GpsScene&)>;
    static const std::map<std::string, GpsHandler> kSynthetic{
        {"fix", [](const json& v, GpsScene& g) { g.fix = Bool(v, "fix"); }},
        {"latitude", [](const json& v, GpsScene& g) { g.latitudeDeg = Number(v, "latitude", -90.0, 90.0); }},
        {"longitude", [](const json& v, GpsScene& g) { g.longitudeDeg = Number(v, "longitude", -180.0, 180.0); }},
        {"altitude_m", [](const json& v, GpsScene& g) { g.altitudeM = Number(v, "altitude_m", -1000.0, 50000.0); }},
        {"utc",
         [](const json& v, GpsScene& g) {
             const auto t = v.is_string() ? ParseUtc(v.get<std::string>()) : std::nullopt;
             if (!t) throw SceneError("\"utc\" must be a time \"YYYY-MM-DDTHH:MM:SSZ\" in 2000..2099");
             g.utcSeconds = *t;
         }},
    };
    static const std::map<std::string, GpsHandler> kCommon{
        {"nmea_log",
         [](const json& v, GpsScene& g) {
             if (!v.is_string() || v.get<std::string>().empty()) throw SceneError("\"nmea_log\" must be a path");
             std::string why;
             g.source = GpsScene::Source::Log;
             g.logPath = v.get<std::string>();
             g.log = LoadNmeaLog(g.logPath, &why);
             if (!g.log) throw SceneError(why);
         }},
        {"receiver",
         [](const json& v, GpsScene& g) {
             g.sending = Choice<bool>(v, "receiver", {{"on", true}, {"silent", false}});
         }},
        {"message_delay_s",
         [](const json& v, GpsScene& g) {
             g.messageDelayTicks = static_cast<uint64_t>(std::llround(Number(v, "message_delay_s", 0.0, 0.9) * 122.88e6));
         }},
        {"disciplined_tune",
         [](const json& v, GpsScene& g) {
             g.disciplinedTune = static_cast<uint16_t>(Integer(v, "disciplined_tune", 0xFFFF));
         }},
    };
    bool synthetic = false;
    for (const auto& [key, value] : v.items()) {
        if (const auto it = kSynthetic.find(key); it != kSynthetic.end()) {
            it->second(value, *g);
            synthetic = true;
        } else if (const auto c = kCommon.find(key); c != kCommon.end()) {
            c->second(value, *g);
        } else {
            throw SceneError("unknown gps key \"" + key + "\"");
        }
    }
    if (synthetic && g->source == GpsScene::Source::Log)
        throw SceneError("\"gps\": a replayed \"nmea_log\" takes no fix, position or utc");
    s.gps = std::move(g);
}

const std::map<std::string, Handler>& SceneKeys() {
    static const std::map<std::string, Handler> kKeys{
        {"emitters", ParseEmitters},
        {"noise_floor_dbm_hz", [](const json& v, Scene& s) { s.noiseFloorDbmHz = Number(v, "noise_floor_dbm_hz", -200.0, -100.0); }},
        {"temperature_c", [](const json& v, Scene& s) { s.temperatureC = Number(v, "temperature_c", -40.0, 85.0); }},
        {"supply_v", [](const json& v, Scene& s) { s.supplyV = Number(v, "supply_v", 0.0, 30.0); }},
        {"supply_a", [](const json& v, Scene& s) { s.supplyA = Number(v, "supply_a", 0.0, 10.0); }},
        {"firmware",
         [](const json& v, Scene& s) {
             if (!v.is_array() || v.size() != 3) throw SceneError("\"firmware\" must be [major, minor, revision]");
             s.firmware = {Integer(v[0], "firmware major", 0xFFFF), Integer(v[1], "firmware minor", 0xFFFF),
                           Integer(v[2], "firmware revision", 0xFFFFFFFF)};
         }},
        {"calibration",
         [](const json& v, Scene& s) {
             s.calibration = Choice<CalibrationContent>(v, "calibration",
                                                        {{"factory", CalibrationContent::Factory},
                                                         {"unprogrammed", CalibrationContent::Unprogrammed},
                                                         {"corrupt", CalibrationContent::Corrupt}});
         }},
        {"pacing",
         [](const json& v, Scene& s) {
             s.pacing = Choice<Pacing>(v, "pacing", {{"fast", Pacing::Fast}, {"realtime", Pacing::Realtime}});
         }},
        {"pace_rate", [](const json& v, Scene& s) { s.paceRate = Number(v, "pace_rate", 0.1, 1.0); }},
        {"dithering", [](const json& v, Scene& s) { s.dithering = Bool(v, "dithering"); }},
        {"gps", ParseGps},
        {"trigger", ParseTrigger},
    };
    return kKeys;
}

// LX_SIM_PACE_RATE sets the pace of realtime-paced scenes that name none:
// the sanitizer test runs slow every such analyzer down together, since an
// instrumented host is several times slower than the one it stands for. An
// unusable value is ignored (full pace), never an error of every scene.
double DefaultPaceRate() {
    static const double rate = [] {
        const char* v = std::getenv("LX_SIM_PACE_RATE");
        if (v == nullptr || *v == '\0') return 1.0;
        char* end = nullptr;
        const double r = std::strtod(v, &end);
        return (*end == '\0' && r >= 0.1 && r <= 1.0) ? r : 1.0;
    }();
    return rate;
}

} // namespace

std::shared_ptr<const Scene> ParseScene(const char* text, std::string* error) {
    auto scene = std::make_shared<Scene>();
    if (text == nullptr || *text == '\0') return scene;
    try {
        const json doc = json::parse(text);
        if (!doc.is_object()) throw SceneError("a scene must be a JSON object");
        for (const auto& [key, value] : doc.items()) {
            const auto it = SceneKeys().find(key);
            if (it == SceneKeys().end()) throw SceneError("unknown scene key \"" + key + "\"");
            it->second(value, *scene);
        }
        if (!doc.contains("pace_rate")) {
            if (scene->pacing == Pacing::Realtime) scene->paceRate = DefaultPaceRate();
        } else if (scene->paceRate != 1.0 && scene->pacing != Pacing::Realtime) {
            throw SceneError("\"pace_rate\" needs \"pacing\": \"realtime\"");
        }
        for (const Emitter& e : scene->emitters)
            if (e.gate && e.gate->startUtc && (!scene->gps || scene->gps->source != GpsScene::Source::Synthetic))
                throw SceneError("\"start_utc\" needs a synthetic \"gps\" receiver in the scene");
        return scene;
    } catch (const SceneError& e) {
        if (error) *error = e.what();
    } catch (const json::exception& e) {
        if (error) *error = std::string("not valid JSON: ") + e.what();
    }
    return nullptr;
}

} // namespace lx::sim
