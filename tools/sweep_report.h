// What `lx530 sweep` makes of a swept spectrum, without touching a device:
// the quantities of its command line, the peak table, the trace files (CSV
// and rtl_power's CSV) and the report printed on stdout. Plain data in, text
// out, so all of it can be checked without an analyzer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "report.h"

namespace lx::cli {

// "100k", "2.4G", "433.92MHz", "1e9", "9000": Hz, with an optional k, M or G
// (either case, as rtl_power reads them) and an optional "Hz". nullopt for
// anything else, NaN and infinities included.
std::optional<double> ParseFrequency(std::string_view text);
// "10ms", "250us", "1.5s", "2": seconds.
std::optional<double> ParseSeconds(std::string_view text);

// "2.43701 GHz": the unit that suits the value, with enough decimals to tell
// two frequencies `resolution` Hz apart (3 decimals without one).
std::string FormatFrequency(double hz, double resolution = 0);

// One swept spectrum as lxGetSweep delivers it: point i is at
// start + i * binSize; dBm on a logarithmic scale, mV on the linear one.
struct Trace {
    double start = 0;
    double binSize = 0;
    bool linear = false;
    std::vector<float> min, max;

    size_t Size() const { return max.size(); }
    double FrequencyAt(size_t i) const { return start + binSize * static_cast<double>(i); }
};

// dBm of a trace value: itself on a logarithmic scale; on the linear one the
// library's mV (the voltage across 50 ohm) turned back into dBm. Zero or
// negative mV give -inf.
double ToDbm(double value, bool linear);

// Peaks are local maxima of the max trace that stand out from both the noise
// and their surroundings. Above the noise: at least kPeakAboveMedianDb above
// the median of the trace, and kPeakSpreadFactor times the noise's spread
// (90th percentile less median) above it, which keeps the tips of a noisy,
// unaveraged trace (whose power is spread over some 5 dB) out of the table.
inline constexpr double kPeakAboveMedianDb = 10.0;
inline constexpr double kPeakSpreadFactor = 4.0;
// Above their surroundings: this far above the higher of the two lowest points that separate
// them from a higher part of the trace on either side (the peak excursion of
// an analyzer's marker search, the "prominence" of topography). A signal's
// ripples and its window's flat top never count twice.
inline constexpr double kPeakExcursionDb = 6.0;

struct Peak {
    size_t index = 0;     // trace point
    double frequency = 0; // Hz
    double level = 0;     // in the trace's units
    double dbm = 0;       // the level in dBm
};

// The `count` strongest peaks of the max trace, strongest first. A plateau
// counts once, at its middle point; the first and last points are never
// peaks (what lies beyond them is unknown).
std::vector<Peak> FindPeaks(const Trace& trace, size_t count);
// The level (dBm) a peak must reach: the median (sorted point n/2) plus the
// larger of kPeakAboveMedianDb and kPeakSpreadFactor times the distance from
// it to the 90th percentile (sorted point 0.9 (n - 1), rounded down).
double PeakFloor(const Trace& trace);

// "frequency_hz,min_dbm,max_dbm" (min_mv/max_mv on the linear scale), then
// one row per trace point. Numbers in their shortest exact form.
void WriteCsv(std::ostream& out, const Trace& trace);

// rtl_power's CSV: "date, time, Hz low, Hz high, Hz step, samples, dB, dB,
// ..." with one line per chunk of trace points no wider than 30.72 MHz (the
// width one tuning of the analyzer covers; rtl_power writes one line per
// tuning too). Hz high is the upper edge of the chunk's last bin, samples the
// number of sweeps combined, the values the max trace in dBm (converted on
// the linear scale). `when` is written in local time, as rtl_power does.
void WriteRtlPower(std::ostream& out, const Trace& trace, std::time_t when, int sweeps);
inline constexpr double kRtlPowerChunkHz = 30.72e6;

// Everything the report says about one run of `lx530 sweep`.
struct SweepSummary {
    uint32_t serial = 0;
    bool simulated = false;
    // Settings as sent to the library (after the tool's defaults).
    double requestedStart = 0, requestedStop = 0;
    double rbw = 0, vbw = 0, sweepTime = 0;
    double refLevel = 0;
    int32_t attenuator = -1; // -1 automatic
    std::string detector, units, scale, window;
    // Figures reported by lxGetSweepParameters.
    double actualRbw = 0, actualVbw = 0, actualStart = 0, binSize = 0;
    int32_t sweepLength = 0;
    int sweeps = 1;
    uint64_t timestamp = 0; // of the last sweep, ns since 1970, device time
    std::vector<Peak> peaks;
    bool linear = false;
    std::vector<std::string> files; // written, in the order given
    std::vector<Warning> warnings;

    double ActualStop() const { return actualStart + binSize * (sweepLength > 0 ? sweepLength - 1 : 0); }
};

std::string SweepText(const SweepSummary& s);
nlohmann::ordered_json SweepJson(const SweepSummary& s);

// The settings as label/value rows, for the plot's side panel.
std::vector<std::pair<std::string, std::string>> SettingsRows(const SweepSummary& s);

} // namespace lx::cli
