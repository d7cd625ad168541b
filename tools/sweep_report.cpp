#include "sweep_report.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace lx::cli {

namespace {

using json = nlohmann::ordered_json;

std::string Printf(const char* format, auto... args) {
    char buf[256];
    std::snprintf(buf, sizeof buf, format, args...);
    return buf;
}

bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return (x | 0x20) == (y | 0x20);
           });
}

// The leading number of `text` and what follows it; nullopt without one.
std::optional<std::pair<double, std::string_view>> SplitNumber(std::string_view text) {
    double value = 0;
    const auto r = std::from_chars(text.data(), text.data() + text.size(), value);
    if (r.ec != std::errc() || !std::isfinite(value)) return std::nullopt;
    return std::pair{value, text.substr(static_cast<size_t>(r.ptr - text.data()))};
}

// A float widened for JSON as its shortest decimal form, so that -24.84f
// prints as -24.84 and not as -24.840000152587891.
double Tidy(float value) {
    char buf[32];
    const auto r = std::to_chars(buf, buf + sizeof buf - 1, value);
    *r.ptr = '\0';
    return std::strtod(buf, nullptr);
}

// Shortest text that reads back as the same value.
template <typename T> std::string Shortest(T value) {
    char buf[32];
    const auto r = std::to_chars(buf, buf + sizeof buf, value);
    return std::string(buf, r.ptr);
}

// A trace value for people: dBm to 2 decimals, mV to 4 significant digits.
std::string LevelText(double level, bool linear) {
    return linear ? Printf("%.4g mV", level) : Printf("%.2f dBm", level);
}

std::string AttenuatorText(int32_t step) {
    return step < 0 ? std::string("auto") : std::to_string(step * 5) + " dB";
}

std::string SecondsText(double s) {
    if (s < 1e-3) return Printf("%g us", s * 1e6);
    if (s < 1.0) return Printf("%g ms", s * 1e3);
    return Printf("%g s", s);
}

// Trace values in dBm, for a search that works in dB on either scale.
std::vector<double> DbmView(const Trace& t) {
    std::vector<double> x(t.max.size());
    for (size_t i = 0; i < x.size(); ++i) {
        const double v = ToDbm(t.max[i], t.linear);
        // A NaN would break every comparison of the search; it is no level.
        x[i] = std::isnan(v) ? -std::numeric_limits<double>::infinity() : v;
    }
    return x;
}

// base[i]: the lowest value between point i and the nearest point that is
// strictly higher, scanning in one direction (to the trace's end when there
// is none), point i included. One pass with a stack of the points still
// waiting for a higher one, each carrying the minimum of the stretch between
// it and the entry below it, so the whole trace costs O(n) however long the
// scans would be.
template <typename Index> std::vector<double> Bases(const std::vector<double>& x, Index order) {
    const size_t n = x.size();
    std::vector<double> base(n);
    struct Entry {
        double value, gapMin; // gapMin: minimum strictly between this entry and the one below
    };
    std::vector<Entry> stack;
    for (size_t k = 0; k < n; ++k) {
        const double v = x[order(k)];
        double m = std::numeric_limits<double>::infinity();
        while (!stack.empty() && stack.back().value <= v) {
            m = std::min({m, stack.back().value, stack.back().gapMin});
            stack.pop_back();
        }
        base[order(k)] = std::min(m, v);
        stack.push_back({v, m});
    }
    return base;
}

double Floor(std::vector<double> x) {
    if (x.empty()) return 0;
    const auto at = [&x](size_t k) {
        std::nth_element(x.begin(), x.begin() + static_cast<std::ptrdiff_t>(k), x.end());
        return x[k];
    };
    const double median = at(x.size() / 2);
    const double p90 = at((x.size() - 1) * 9 / 10);
    // -inf points (0 mV) make the spread meaningless; they are no noise.
    const double spread = std::isfinite(p90 - median) ? p90 - median : 0.0;
    return median + std::max(kPeakAboveMedianDb, kPeakSpreadFactor * spread);
}

} // namespace

double PeakFloor(const Trace& trace) { return Floor(DbmView(trace)); }

std::optional<double> ParseFrequency(std::string_view text) {
    const auto split = SplitNumber(text);
    if (!split) return std::nullopt;
    auto [value, rest] = *split;
    if (!rest.empty()) {
        switch (rest.front()) {
        case 'k': case 'K': value *= 1e3; rest.remove_prefix(1); break;
        case 'm': case 'M': value *= 1e6; rest.remove_prefix(1); break;
        case 'g': case 'G': value *= 1e9; rest.remove_prefix(1); break;
        default: break;
        }
    }
    if (!rest.empty() && !EqualsIgnoreCase(rest, "hz")) return std::nullopt;
    return value;
}

std::optional<double> ParseSeconds(std::string_view text) {
    const auto split = SplitNumber(text);
    if (!split) return std::nullopt;
    const auto [value, rest] = *split;
    if (rest.empty() || rest == "s") return value;
    if (rest == "ms") return value * 1e-3;
    if (rest == "us") return value * 1e-6;
    return std::nullopt;
}

std::string FormatFrequency(double hz, double resolution) {
    const double a = std::fabs(hz);
    const auto [unit, name] = a >= 1e9   ? std::pair{1e9, "GHz"}
                              : a >= 1e6 ? std::pair{1e6, "MHz"}
                              : a >= 1e3 ? std::pair{1e3, "kHz"}
                                         : std::pair{1.0, "Hz"};
    int decimals = 3;
    if (resolution > 0) decimals = std::clamp(static_cast<int>(std::ceil(std::log10(unit / resolution))), 0, 9);
    return Printf("%.*f %s", decimals, hz / unit, name);
}

double ToDbm(double value, bool linear) {
    if (!linear) return value;
    // The library's mV are exp((dBm + 46.9897) * ln(10) / 20).
    return value > 0 ? 20.0 * std::log10(value) - 46.9897 : -std::numeric_limits<double>::infinity();
}

std::vector<Peak> FindPeaks(const Trace& trace, size_t count) {
    const std::vector<double> x = DbmView(trace);
    const size_t n = x.size();
    if (count == 0 || n < 3) return {};

    const double floor = Floor(x);

    const auto left = Bases(x, [](size_t k) { return k; });
    const auto right = Bases(x, [n](size_t k) { return n - 1 - k; });

    std::vector<Peak> peaks;
    for (size_t i = 1; i + 1 < n;) {
        if (!(x[i] > x[i - 1])) {
            ++i;
            continue;
        }
        size_t j = i; // last point of a plateau starting at i
        while (j + 1 < n && x[j + 1] == x[i]) ++j;
        if (j + 1 < n && x[j + 1] < x[i]) {
            const size_t p = (i + j) / 2;
            const double excursion = x[p] - std::max(left[p], right[p]);
            if (x[p] >= floor && excursion >= kPeakExcursionDb)
                peaks.push_back({p, trace.FrequencyAt(p), trace.max[p], x[p]});
        }
        i = j + 1;
    }
    std::stable_sort(peaks.begin(), peaks.end(), [](const Peak& a, const Peak& b) { return a.dbm > b.dbm; });
    if (peaks.size() > count) peaks.resize(count);
    return peaks;
}

void WriteCsv(std::ostream& out, const Trace& t) {
    out << (t.linear ? "frequency_hz,min_mv,max_mv\n" : "frequency_hz,min_dbm,max_dbm\n");
    std::string line;
    for (size_t i = 0; i < t.Size(); ++i) {
        line = Shortest(t.FrequencyAt(i));
        line += ',';
        line += Shortest(t.min[i]);
        line += ',';
        line += Shortest(t.max[i]);
        line += '\n';
        out << line;
    }
}

void WriteRtlPower(std::ostream& out, const Trace& t, std::time_t when, int sweeps) {
    std::tm tm{};
    localtime_r(&when, &tm);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d, %H:%M:%S", &tm);

    const size_t n = t.Size();
    // Whole bins per line; at least one, even for bins wider than a tuning.
    const size_t chunk = std::max<size_t>(1, static_cast<size_t>(kRtlPowerChunkHz / t.binSize));
    std::string line;
    for (size_t first = 0; first < n; first += chunk) {
        const size_t last = std::min(n, first + chunk);
        const double low = t.FrequencyAt(first);
        const double high = low + t.binSize * static_cast<double>(last - first);
        line = Printf("%s, %.0f, %.0f, %.2f, %d", stamp, low, high, t.binSize, sweeps);
        for (size_t i = first; i < last; ++i) line += Printf(", %.2f", ToDbm(t.max[i], t.linear));
        line += '\n';
        out << line;
    }
}

std::vector<std::pair<std::string, std::string>> SettingsRows(const SweepSummary& s) {
    return {
        {"RBW", FormatFrequency(s.actualRbw, s.actualRbw / 1000)},
        {"VBW", FormatFrequency(s.actualVbw, s.actualVbw / 1000)},
        {"Reference", Printf("%g dBm", s.refLevel)},
        {"Attenuator", AttenuatorText(s.attenuator)},
        {"Detector", s.detector + ", " + s.units},
        {"Scale", s.scale},
        {"Window", s.window},
        {"Sweep time", SecondsText(s.sweepTime)},
        {"Sweeps", std::to_string(s.sweeps)},
    };
}

std::string SweepText(const SweepSummary& s) {
    std::string out;
    auto row = [&out](const char* label, const std::string& value) {
        out += Printf("%-13s%s\n", label, value.c_str());
    };
    row("Analyzer", Printf("%08u%s", s.serial, s.simulated ? " (simulated)" : ""));
    row("Span", FormatFrequency(s.actualStart, s.binSize) + " .. " + FormatFrequency(s.ActualStop(), s.binSize) +
                    Printf(", %d points ", s.sweepLength) + FormatFrequency(s.binSize, s.binSize / 1000) +
                    " apart");
    row("RBW", FormatFrequency(s.actualRbw, s.actualRbw / 1000) + " (asked " +
                   FormatFrequency(s.rbw, s.rbw / 1000) + "), VBW " +
                   FormatFrequency(s.actualVbw, s.actualVbw / 1000));
    row("Sweep time", SecondsText(s.sweepTime));
    row("Reference", Printf("%g dBm, attenuator ", s.refLevel) + AttenuatorText(s.attenuator));
    row("Detector", s.detector + ", " + s.units + " units, " + s.scale + " scale, " + s.window + " window");
    row("Sweeps", s.sweeps == 1 ? std::string("1") : Printf("%d (min and max held across them)", s.sweeps));

    if (s.peaks.empty()) {
        out += "\nNo peaks above the noise.\n";
    } else {
        out += Printf("\n%-4s%-20s%s\n", "#", "FREQUENCY", "LEVEL");
        for (size_t k = 0; k < s.peaks.size(); ++k)
            out += Printf("%-4zu%-20s%s\n", k + 1, FormatFrequency(s.peaks[k].frequency, s.binSize).c_str(),
                          LevelText(s.peaks[k].level, s.linear).c_str());
    }
    if (!s.files.empty()) {
        out += "\n";
        for (const auto& f : s.files) out += "Wrote " + f + "\n";
    }
    return out;
}

json SweepJson(const SweepSummary& s) {
    json peaks = json::array();
    for (const auto& p : s.peaks)
        peaks.push_back({{"index", p.index},
                         {"frequency_hz", p.frequency},
                         {"level", Tidy(static_cast<float>(p.level))},
                         {"dbm", s.linear ? p.dbm : Tidy(static_cast<float>(p.dbm))}});
    json warnings = json::array();
    for (const auto& w : s.warnings)
        warnings.push_back(
            {{"what", w.what}, {"status", static_cast<int>(w.status)}, {"text", lxGetErrorString(w.status)}});
    return {
        {"serial", s.serial},
        {"simulated", s.simulated},
        {"settings",
         {{"start_hz", s.requestedStart},
          {"stop_hz", s.requestedStop},
          {"rbw_hz", s.rbw},
          {"vbw_hz", s.vbw},
          {"sweep_time_s", s.sweepTime},
          {"ref_level_dbm", s.refLevel},
          {"attenuator", s.attenuator < 0 ? json("auto") : json(s.attenuator)},
          {"detector", s.detector},
          {"units", s.units},
          {"scale", s.scale},
          {"window", s.window}}},
        {"sweep",
         {{"actual_rbw_hz", s.actualRbw},
          {"actual_vbw_hz", s.actualVbw},
          {"actual_start_hz", s.actualStart},
          {"bin_size_hz", s.binSize},
          {"sweep_length", s.sweepLength},
          {"actual_stop_hz", s.ActualStop()},
          {"level_unit", s.linear ? "mV" : "dBm"},
          {"sweeps", s.sweeps},
          {"timestamp_ns", s.timestamp}}},
        {"peaks", peaks},
        {"files", s.files},
        {"warnings", warnings},
    };
}

} // namespace lx::cli
