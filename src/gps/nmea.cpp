#include "gps/nmea.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace lx::gps {

std::optional<std::string_view> FindSentence(std::string_view text, std::string_view tag) {
    if (text.size() < 2) return std::nullopt;
    const size_t pos = text.substr(0, text.size() - 2).find(tag);
    if (pos == std::string_view::npos) return std::nullopt;
    const size_t end = text.find("\r\n", pos);
    if (end == std::string_view::npos) return std::nullopt;
    const size_t len = end - pos;
    if (len < 1 || len > 511) return std::nullopt;
    return text.substr(pos, len);
}

std::vector<std::string> SplitFields(std::string_view sentence, size_t maxFields) {
    std::vector<std::string> out;
    size_t start = sentence.find(',');
    while (start != std::string_view::npos && out.size() < maxFields) {
        const size_t next = sentence.find(',', start + 1);
        const size_t end = next == std::string_view::npos ? sentence.size() : next;
        out.emplace_back(sentence.substr(start + 1, end - start - 1));
        start = next;
    }
    return out;
}

std::optional<double> ParseCoordinate(std::string_view field) {
    const size_t p = field.find('.');
    if (p == std::string_view::npos || p < 3 || p > 17) return std::nullopt;
    const std::string degText(field.substr(0, p - 2));
    const std::string minText(field.substr(p - 2));
    char* endDeg = nullptr;
    const long degrees = std::strtol(degText.c_str(), &endDeg, 10);
    double minutes = 0.0;
    if (endDeg == degText.c_str() || std::sscanf(minText.c_str(), "%lf", &minutes) != 1)
        return std::nullopt;
    return static_cast<double>(degrees) + minutes / 60.0;
}

namespace {

// Splits "hhmmss.sss" or "ddmmyy" the way "%2s%2s%2s" does: three parts of at
// most two characters; fewer than three means no time.
bool ThreeTwoDigitParts(const std::string& f, int parts[3]) {
    char a[3] = {}, b[3] = {}, c[3] = {};
    if (std::sscanf(f.c_str(), "%2s%2s%2s", a, b, c) != 3) return false;
    parts[0] = std::atoi(a);
    parts[1] = std::atoi(b);
    parts[2] = std::atoi(c);
    return true;
}

} // namespace

void ApplyRmc(std::string_view text, NmeaState& s) {
    const auto sentence = FindSentence(text, "RMC");
    if (!sentence) return;
    const auto fields = SplitFields(*sentence, s.rmcFields.size());
    for (size_t i = 0; i < s.rmcFields.size(); ++i)
        s.rmcFields[i] = i < fields.size() ? fields[i] : std::string();
    const auto& f = s.rmcFields;

    const bool active = f[1] == "A";
    if (active) {
        s.fixValid = true;
        const auto lat = ParseCoordinate(f[2]);
        const auto lon = ParseCoordinate(f[4]);
        if (lat && lon) {
            s.latitude = *lat * (f[3] == "N" ? 1.0 : -1.0);
            s.longitude = *lon * (f[5] == "E" ? 1.0 : -1.0);
        }
    }

    int hms[3], dmy[3];
    if (ThreeTwoDigitParts(f[0], hms) && ThreeTwoDigitParts(f[8], dmy)) {
        std::tm tm{};
        tm.tm_year = 2000 + dmy[2] - 1900;
        tm.tm_mon = dmy[1] - 1;
        tm.tm_mday = dmy[0];
        tm.tm_hour = hms[0];
        tm.tm_min = hms[1];
        tm.tm_sec = hms[2];
        // The receiver reports the second that has just begun when the
        // sentence leaves it; the fix belongs to the next second mark.
        const int64_t secs = static_cast<int64_t>(timegm(&tm)) + 1;
        s.gpsTimeNs = secs * 1000000000LL;
        s.gpsSeconds = secs;
    }

    if (!active) {
        // The time already taken stays: stamps run on from the last anchor.
        s.fixValid = false;
        s.gpsSeconds = 0;
        s.latitude = 0.0;
        s.longitude = 0.0;
        s.altitude = 0.0;
    }
}

void ApplyGga(std::string_view text, NmeaState& s) {
    const auto sentence = FindSentence(text, "GGA");
    if (!sentence) {
        s.altitude = 0.0;
        return;
    }
    const auto fields = SplitFields(*sentence, s.ggaFields.size());
    for (size_t i = 0; i < s.ggaFields.size(); ++i)
        s.ggaFields[i] = i < fields.size() ? fields[i] : std::string();
    double alt = 0.0;
    if (fields.size() < 8 || std::sscanf(s.ggaFields[8].c_str(), "%lf", &alt) != 1) alt = 0.0;
    s.altitude = alt;
}

} // namespace lx::gps
