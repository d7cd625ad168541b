#include "sim/scene.h"

#include <cmath>
#include <functional>
#include <map>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "sim/gps_receiver.h"

namespace lx::sim {

namespace {

using nlohmann::json;

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

ToneEmitter ParseTone(const json& e) {
    ToneEmitter t;
    bool haveFrequency = false, havePower = false;
    static const std::map<std::string, std::function<void(const json&, ToneEmitter&)>> kKeys{
        {"kind", [](const json&, ToneEmitter&) {}},
        {"frequency_hz", [](const json& v, ToneEmitter& t) { t.frequencyHz = Number(v, "frequency_hz", 0.0, 20e9); }},
        {"power_dbm", [](const json& v, ToneEmitter& t) { t.powerDbm = Number(v, "power_dbm", -200.0, 30.0); }},
        {"phase_deg", [](const json& v, ToneEmitter& t) { t.phaseDeg = Number(v, "phase_deg", -360.0, 360.0); }},
    };
    for (const auto& [key, value] : e.items()) {
        const auto it = kKeys.find(key);
        if (it == kKeys.end()) throw SceneError("unknown tone key \"" + key + "\"");
        it->second(value, t);
        haveFrequency |= key == "frequency_hz";
        havePower |= key == "power_dbm";
    }
    if (!haveFrequency || !havePower) throw SceneError("a tone needs \"frequency_hz\" and \"power_dbm\"");
    return t;
}

void ParseEmitters(const json& v, Scene& s) {
    if (!v.is_array()) throw SceneError("\"emitters\" must be an array");
    if (v.size() > 64) throw SceneError("\"emitters\" holds at most 64 emitters");
    for (const auto& e : v) {
        if (!e.is_object()) throw SceneError("an emitter must be an object");
        const auto kind = e.find("kind");
        if (kind == e.end() || !kind->is_string()) throw SceneError("an emitter needs a \"kind\"");
        if (kind->get<std::string>() == "tone") {
            s.tones.push_back(ParseTone(e));
        } else {
            throw SceneError("unknown emitter kind \"" + kind->get<std::string>() + "\"");
        }
    }
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
        {"dithering", [](const json& v, Scene& s) { s.dithering = Bool(v, "dithering"); }},
        {"gps", ParseGps},
    };
    return kKeys;
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
        return scene;
    } catch (const SceneError& e) {
        if (error) *error = e.what();
    } catch (const json::exception& e) {
        if (error) *error = std::string("not valid JSON: ") + e.what();
    }
    return nullptr;
}

} // namespace lx::sim
