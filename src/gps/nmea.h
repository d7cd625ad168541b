// NMEA 0183 text from the instrument's GPS receiver: the RMC and GGA
// sentences that give position, fix status, UTC time and altitude.
//
// The device forwards its receiver's output in chunks (one message a time,
// typically one second's burst of sentences). Each chunk is parsed for its
// first RMC sentence and then its first GGA sentence; a chunk without GGA
// sets the altitude to 0, so a receiver must send GGA with its RMC.
//
// No checksum is verified and no locking is done here: the caller holds the
// device's GPS mutex around ApplyNmea.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace lx::gps {

struct NmeaState {
    std::array<std::string, 12> rmcFields; // time, status, lat, N/S, lon, E/W, speed, course, date, ...
    std::array<std::string, 13> ggaFields;
    bool fixValid = false;
    double latitude = 0.0;  // degrees, north positive
    double longitude = 0.0; // degrees, east positive
    double altitude = 0.0;  // metres above mean sea level
    int64_t gpsTimeNs = 0;  // UTC of the last fix, ns since 1970
    int64_t gpsSeconds = 0; // the same in whole seconds; 0 without a fix
};

// The sentence that starts at the first occurrence of `tag` ("RMC", "GGA")
// within the first size - 2 bytes of `text`, up to (not including) the first
// CR LF after it. None when the tag is absent or the sentence is not 1 to 511
// characters long (an unterminated sentence counts as too long).
std::optional<std::string_view> FindSentence(std::string_view text, std::string_view tag);

// Splits at every comma, keeping empty fields, drops the first piece (the
// sentence name) and keeps at most maxFields of the rest.
std::vector<std::string> SplitFields(std::string_view sentence, size_t maxFields);

// Degrees and minutes (ddmm.mmmm or dddmm.mmmm) to degrees. Fails (returns
// nullopt) without a decimal point, with fewer than three characters before
// it, or with a point beyond position 17.
std::optional<double> ParseCoordinate(std::string_view field);

// Applies the first RMC and then the first GGA sentence of one chunk.
void ApplyRmc(std::string_view text, NmeaState& s);
void ApplyGga(std::string_view text, NmeaState& s);
inline void ApplyNmea(std::string_view text, NmeaState& s) {
    ApplyRmc(text, s);
    ApplyGga(text, s);
}

} // namespace lx::gps
