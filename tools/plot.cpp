#include "plot.h"

#include <plplot.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

#include "cli_support.h"

namespace lx::cli {

namespace {

// Horizontal layout, in parts of the picture's width.
constexpr double kGraticuleLeft = 0.085, kGraticuleRight = 0.755, kPanelLeft = 0.785;

// Colour map 0 entries, an analyzer's screen.
enum Colour : PLINT { kBackground = 0, kText, kGrid, kMaxTrace, kMinTrace, kMarker, kTitle, kBand, kFrame };

struct Rgb {
    PLINT r, g, b;
    PLFLT alpha = 1.0;
};

constexpr Rgb kPalette[] = {
    {12, 16, 22},         // background
    {190, 198, 208},      // axis labels and numbers
    {48, 58, 70},         // graticule
    {255, 214, 0},        // max trace
    {40, 170, 255},       // min trace
    {255, 90, 70},        // peak markers
    {240, 244, 248},      // title
    {255, 214, 0, 0.22},  // band between min and max
    {110, 122, 136},      // frame
};

// PLplot ends the process on a fatal error after calling this; say who failed.
int PlplotExit(const char* message) {
    std::fprintf(stderr, "lx530: plotting: %s\n", message ? message : "PLplot failed");
    return kExitFailure;
}

bool HasDevice(const char* name) {
    const char* menus[128];
    const char* names[128];
    const char** m = menus;
    const char** n = names;
    int count = 128;
    plgDevs(&m, &n, &count);
    for (int i = 0; i < count; ++i)
        if (std::string_view(names[i]) == name) return true;
    return false;
}

struct FrequencyAxis {
    double unit;
    const char* label;
};

FrequencyAxis AxisUnit(double stop) {
    if (stop >= 1e9) return {1e9, "Frequency (GHz)"};
    if (stop >= 1e6) return {1e6, "Frequency (MHz)"};
    return {1e3, "Frequency (kHz)"};
}

// The level axis: 10 dB divisions whose top clears both the reference level
// and the strongest point, and whose bottom shows the floor of the min trace.
// mV on the linear scale, from just below 0.
struct LevelAxis {
    double bottom, top, step;
};

LevelAxis ChooseLevels(const Envelope& minEnv, const Envelope& maxEnv, bool linear, double refLevel) {
    double lo = std::numeric_limits<double>::infinity(), hi = -lo;
    for (double v : minEnv.lo)
        if (std::isfinite(v)) lo = std::min(lo, v);
    for (double v : maxEnv.hi)
        if (std::isfinite(v)) hi = std::max(hi, v);
    if (linear) {
        // A little room below 0 keeps a trace of noise off the frame.
        const double top = std::isfinite(hi) && hi > 0 ? hi * 1.15 : 1.0;
        return {-0.02 * top, top, 0.0};
    }
    if (!std::isfinite(hi)) hi = refLevel;
    if (!std::isfinite(lo)) lo = hi - 100;
    const double top = std::ceil((std::max(refLevel, hi + 3.0)) / 10.0) * 10.0;
    double bottom = std::floor((lo - 5.0) / 10.0) * 10.0;
    bottom = std::clamp(bottom, top - 200.0, top - 60.0);
    return {bottom, top, top - bottom > 120.0 ? 20.0 : 10.0};
}

void SetColour(Colour c) { plcol0(c); }

// One side of an envelope as a polyline: the max trace through the highest
// point of every column and the min trace through the lowest, as an
// analyzer's positive and negative peak display do.
void DrawEdge(const Envelope& e, const std::vector<double>& edge, double unit, const LevelAxis& axis) {
    std::vector<PLFLT> x(edge.size()), y(edge.size());
    for (size_t c = 0; c < edge.size(); ++c) {
        x[c] = e.frequency[c] / unit;
        // Off-scale values are drawn at the edge rather than left out, so
        // that the trace stays continuous.
        y[c] = std::isfinite(edge[c]) ? std::clamp(edge[c], axis.bottom, axis.top) : axis.bottom;
    }
    plline(static_cast<PLINT>(x.size()), x.data(), y.data());
}

// The band between the min trace's low and the max trace's high.
void FillBand(const Envelope& minEnv, const Envelope& maxEnv, double unit, const LevelAxis& axis) {
    std::vector<PLFLT> x, y;
    auto clip = [&](double v) { return std::isfinite(v) ? std::clamp(v, axis.bottom, axis.top) : axis.bottom; };
    for (size_t c = 0; c < maxEnv.hi.size(); ++c) {
        x.push_back(maxEnv.frequency[c] / unit);
        y.push_back(clip(maxEnv.hi[c]));
    }
    for (size_t c = minEnv.lo.size(); c-- > 0;) {
        x.push_back(minEnv.frequency[c] / unit);
        y.push_back(clip(minEnv.lo[c]));
    }
    if (x.size() >= 3) plfill(static_cast<PLINT>(x.size()), x.data(), y.data());
}

std::string LevelText(double level, bool linear) {
    char buf[64];
    if (linear)
        std::snprintf(buf, sizeof buf, "%.4g mV", level);
    else
        std::snprintf(buf, sizeof buf, "%.2f dBm", level);
    return buf;
}

// Numbered markers over the peaks of the graticule.
void DrawMarkers(const std::vector<Peak>& peaks, double unit, const LevelAxis& axis, double xmin, double xmax,
                 double textScale) {
    const double dy = (axis.top - axis.bottom) * 0.018;
    const double dx = (xmax - xmin) * 0.012;
    SetColour(kMarker);
    for (size_t k = 0; k < peaks.size(); ++k) {
        const double x = peaks[k].frequency / unit;
        const double y = std::clamp(peaks[k].level, axis.bottom, axis.top - 3 * dy);
        plschr(0, 0.9 * textScale);
        plptex(x, y + dy * 0.2, 1, 0, 0.5, "▼");
        // The number to the right of the marker, or to its left near the right edge.
        const bool left = x > xmax - 4 * dx;
        plschr(0, 0.75 * textScale);
        plptex(left ? x - dx * 0.6 : x + dx * 0.6, y + dy * 1.3, 1, 0, left ? 1.0 : 0.0,
               std::to_string(k + 1).c_str());
    }
}

// The side panel: settings, trace legend and the marker table, one row each
// in a fixed grid so that the panel scales with the picture.
void DrawPanel(const PlotOptions& options, const std::vector<Peak>& peaks, const Trace& trace, double textScale) {
    constexpr double kRows = 24;
    plvpor(kPanelLeft, 0.99, 0.11, 0.87);
    plwind(0, 1, 0, kRows);
    plschr(0, 0.72 * textScale);
    double row = kRows - 0.7;
    auto pair = [&](Colour c, const std::string& label, const std::string& value) {
        SetColour(c);
        plptex(0.0, row, 1, 0, 0.0, label.c_str());
        plptex(1.0, row, 1, 0, 1.0, value.c_str());
        row -= 1;
    };
    for (const auto& [label, value] : options.settings) pair(kText, label, value);

    row -= 0.5;
    for (auto [colour, name] : {std::pair{kMaxTrace, "max trace"}, std::pair{kMinTrace, "min trace"}}) {
        SetColour(colour);
        plwidth(2.0 * textScale);
        pljoin(0.0, row + 0.3, 0.14, row + 0.3);
        plwidth(1.0);
        SetColour(kText);
        plptex(0.2, row, 1, 0, 0.0, name);
        row -= 1;
    }

    if (peaks.empty()) return;
    row -= 0.5;
    SetColour(kTitle);
    plptex(0.0, row, 1, 0, 0.0, "Peaks");
    row -= 1;
    const auto fits = static_cast<size_t>(std::max(0.0, row));
    const size_t shown = peaks.size() <= fits ? peaks.size() : (fits > 0 ? fits - 1 : 0);
    plschr(0, 0.66 * textScale);
    for (size_t k = 0; k < shown; ++k) {
        SetColour(kMarker);
        plptex(0.0, row, 1, 0, 0.0, std::to_string(k + 1).c_str());
        plptex(0.09, row, 1, 0, 0.0, FormatFrequency(peaks[k].frequency, trace.binSize).c_str());
        plptex(1.0, row, 1, 0, 1.0, LevelText(peaks[k].level, trace.linear).c_str());
        row -= 1;
    }
    if (shown < peaks.size()) {
        SetColour(kText);
        plptex(0.0, row, 1, 0, 0.0, ("and " + std::to_string(peaks.size() - shown) + " more").c_str());
    }
}

// 1, 2 or 5 times a power of ten, the nearest at or above `raw`.
double NiceStep(double raw) {
    if (!(raw > 0)) return 1.0;
    const double decade = std::pow(10.0, std::floor(std::log10(raw)));
    for (double m : {1.0, 2.0, 5.0})
        if (m * decade >= raw * 0.999) return m * decade;
    return 10.0 * decade;
}

std::vector<PLFLT> Ticks(double from, double to, double step) {
    std::vector<PLFLT> t;
    for (double v = std::ceil(from / step) * step; v <= to + step * 1e-9; v += step) t.push_back(v);
    return t;
}

} // namespace

std::optional<std::pair<int, int>> ParsePlotSize(std::string_view text) {
    const size_t x = text.find_first_of("xX");
    if (x == std::string_view::npos) return std::nullopt;
    int w = 0, h = 0;
    const auto a = std::from_chars(text.data(), text.data() + x, w);
    const auto b = std::from_chars(text.data() + x + 1, text.data() + text.size(), h);
    if (a.ec != std::errc() || a.ptr != text.data() + x || b.ec != std::errc() ||
        b.ptr != text.data() + text.size())
        return std::nullopt;
    if (w < kMinPlotSide || h < kMinPlotSide || w > kMaxPlotSide || h > kMaxPlotSide) return std::nullopt;
    return std::pair{w, h};
}

Envelope Decimate(const Trace& trace, const std::vector<float>& values, size_t columns) {
    Envelope e;
    const size_t n = values.size();
    if (n == 0 || columns == 0) return e;
    columns = std::min(columns, n);
    e.frequency.resize(columns);
    e.lo.assign(columns, std::numeric_limits<double>::infinity());
    e.hi.assign(columns, -std::numeric_limits<double>::infinity());
    for (size_t c = 0; c < columns; ++c) {
        // Points [first, last) fall into column c; every point into exactly one.
        const size_t first = c * n / columns, last = (c + 1) * n / columns;
        for (size_t i = first; i < last; ++i) {
            e.lo[c] = std::min<double>(e.lo[c], values[i]);
            e.hi[c] = std::max<double>(e.hi[c], values[i]);
        }
        e.frequency[c] = (trace.FrequencyAt(first) + trace.FrequencyAt(last - 1)) / 2;
    }
    return e;
}

void WritePlot(const std::string& path, const Trace& trace, const std::vector<Peak>& peaks,
               const PlotOptions& options) {
    if (trace.Size() == 0) throw Failure(kExitFailure, "plotting: the sweep has no points");
    if (!HasDevice("pngcairo"))
        throw Failure(kExitFailure, "plotting '" + path + "': PLplot has no PNG driver",
                      "install Debian's plplot-driver-cairo");

    plsexit(PlplotExit);
    plsdev("pngcairo");
    plsfnam(path.c_str());
    plspage(0, 0, options.width, options.height, 0, 0);
    for (PLINT i = 0; i < static_cast<PLINT>(std::size(kPalette)); ++i)
        plscol0a(i, kPalette[i].r, kPalette[i].g, kPalette[i].b, kPalette[i].alpha);
    plinit();
    pladv(0);
    // Text keeps its size in small pictures and grows with large ones.
    const double textScale = std::clamp(options.height / 720.0, 0.85, 3.0);
    plschr(0, textScale);
    plvpor(kGraticuleLeft, kGraticuleRight, 0.11, 0.87);

    // One column per pixel of the graticule.
    const auto columns = static_cast<size_t>(options.width * (kGraticuleRight - kGraticuleLeft));
    const Envelope maxEnv = Decimate(trace, trace.max, columns);
    const Envelope minEnv = Decimate(trace, trace.min, columns);
    const LevelAxis axis = ChooseLevels(minEnv, maxEnv, trace.linear, options.refLevel);
    const double stop = trace.FrequencyAt(trace.Size() - 1);
    const FrequencyAxis fAxis = AxisUnit(stop);
    double xmin = trace.start / fAxis.unit, xmax = stop / fAxis.unit;
    if (xmax <= xmin) { // one point: give it some room
        xmin -= trace.binSize / fAxis.unit;
        xmax += trace.binSize / fAxis.unit;
    }
    plwind(xmin, xmax, axis.bottom, axis.top);

    // Graticule on the labelled divisions.
    const double xStep = NiceStep((xmax - xmin) / 8);
    const double yStep = axis.step > 0 ? axis.step : NiceStep((axis.top - axis.bottom) / 8);
    SetColour(kGrid);
    plwidth(1.0);
    for (double v : Ticks(xmin, xmax, xStep)) pljoin(v, axis.bottom, v, axis.top);
    for (double v : Ticks(axis.bottom, axis.top, yStep)) pljoin(xmin, v, xmax, v);

    // Band, min trace, then the max trace on top.
    SetColour(kBand);
    FillBand(minEnv, maxEnv, fAxis.unit, axis);
    plwidth(1.2 * textScale);
    SetColour(kMinTrace);
    DrawEdge(minEnv, minEnv.lo, fAxis.unit, axis);
    SetColour(kMaxTrace);
    DrawEdge(maxEnv, maxEnv.hi, fAxis.unit, axis);
    plwidth(1.0);

    SetColour(kFrame);
    plbox("bc", 0, 0, "bc", 0, 0);
    SetColour(kText);
    plbox("nst", xStep, 2, "nstv", yStep, 2);
    plmtex("b", 2.8, 0.5, 0.5, fAxis.label);
    plmtex("l", 4.2, 0.5, 0.5, trace.linear ? "Level (mV)" : "Level (dBm)");
    DrawMarkers(peaks, fAxis.unit, axis, xmin, xmax, textScale);

    plschr(0, textScale * 1.15);
    SetColour(kTitle);
    plmtex("t", 3.0, 0.0, 0.0, options.title.c_str());
    plschr(0, textScale * 0.85);
    SetColour(kText);
    plmtex("t", 1.3, 0.0, 0.0, options.subtitle.c_str());

    DrawPanel(options, peaks, trace, textScale);
    plend();
}

namespace {

// Opens the PNG and draws nothing yet; the graticule's viewport is set.
double BeginPicture(const std::string& path, const PlotOptions& options) {
    if (!HasDevice("pngcairo"))
        throw Failure(kExitFailure, "plotting '" + path + "': PLplot has no PNG driver",
                      "install Debian's plplot-driver-cairo");
    plsexit(PlplotExit);
    plsdev("pngcairo");
    plsfnam(path.c_str());
    plspage(0, 0, options.width, options.height, 0, 0);
    for (PLINT i = 0; i < static_cast<PLINT>(std::size(kPalette)); ++i)
        plscol0a(i, kPalette[i].r, kPalette[i].g, kPalette[i].b, kPalette[i].alpha);
    // Colour map 1: dark blue through cyan, green and yellow to red and white.
    const PLFLT pos[] = {0.0, 0.2, 0.4, 0.6, 0.8, 1.0};
    const PLFLT r[] = {0.05, 0.0, 0.1, 1.0, 1.0, 1.0};
    const PLFLT g[] = {0.05, 0.55, 0.85, 0.9, 0.25, 1.0};
    const PLFLT b[] = {0.45, 1.0, 0.3, 0.0, 0.1, 1.0};
    plscmap1n(256);
    plscmap1l(1, 6, pos, r, g, b, nullptr);
    plinit();
    pladv(0);
    const double textScale = std::clamp(options.height / 720.0, 0.85, 3.0);
    plschr(0, textScale);
    plvpor(kGraticuleLeft, kGraticuleRight, 0.11, 0.87);
    return textScale;
}

void Titles(const PlotOptions& options, double textScale) {
    plschr(0, textScale * 1.15);
    SetColour(kTitle);
    plmtex("t", 3.0, 0.0, 0.0, options.title.c_str());
    plschr(0, textScale * 0.85);
    SetColour(kText);
    plmtex("t", 1.3, 0.0, 0.0, options.subtitle.c_str());
}

// The settings rows, right of the colour bar.
void SettingsPanel(const PlotOptions& options, double textScale) {
    constexpr double kRows = 24;
    plvpor(kPanelLeft + 0.05, 0.99, 0.11, 0.87);
    plwind(0, 1, 0, kRows);
    plschr(0, 0.66 * textScale);
    double row = kRows - 0.7;
    for (const auto& [label, value] : options.settings) {
        SetColour(kText);
        plptex(0.0, row, 1, 0, 0.0, label.c_str());
        plptex(1.0, row, 1, 0, 1.0, value.c_str());
        row -= 1;
    }
}

void ColourBar(double zmin, double zmax, const char* label, double textScale) {
    std::vector<PLFLT> values(64);
    for (size_t i = 0; i < values.size(); ++i)
        values[i] = zmin + (zmax - zmin) * static_cast<double>(i) / static_cast<double>(values.size() - 1);
    const PLFLT* valueRows[] = {values.data()};
    const PLINT nValues[] = {static_cast<PLINT>(values.size())};
    const PLINT labelOpts[] = {PL_COLORBAR_LABEL_RIGHT};
    const char* labels[] = {label};
    const char* axisOpts[] = {"bcvtm"};
    const PLFLT ticks[] = {0.0};
    const PLINT subTicks[] = {0};
    PLFLT w = 0, h = 0;
    plschr(0, 0.7 * textScale);
    SetColour(kText);
    plcolorbar(&w, &h, PL_COLORBAR_IMAGE, PL_POSITION_RIGHT | PL_POSITION_OUTSIDE | PL_POSITION_VIEWPORT, 0.012, 0.0,
               0.025, 1.0, kBackground, kFrame, 1, 0, 0, 0, 0, 1, labelOpts, labels, 1, axisOpts, ticks, subTicks,
               nValues, valueRows);
}

void FrequencyBox(double xmin, double xmax, double ymin, double ymax, const FrequencyAxis& f, const char* yLabel) {
    SetColour(kFrame);
    plbox("bc", 0, 0, "bc", 0, 0);
    SetColour(kText);
    plbox("nst", NiceStep((xmax - xmin) / 8), 2, "nstv", NiceStep((ymax - ymin) / 8), 2);
    plmtex("b", 2.8, 0.5, 0.5, f.label);
    plmtex("l", 4.2, 0.5, 0.5, yLabel);
}

} // namespace

void WriteDensityPlot(const std::string& path, const DensityPicture& p, const PlotOptions& options) {
    if (p.width <= 0 || p.height <= 0 || p.density.size() != size_t(p.width) * size_t(p.height))
        throw Failure(kExitFailure, "plotting: the frame has no cells");
    const double textScale = BeginPicture(path, options);
    const size_t n = p.maxTrace.size();
    const double stop = p.start + p.binSize * static_cast<double>(n > 0 ? n - 1 : 0);
    const FrequencyAxis f = AxisUnit(stop);
    const double xmin = p.start / f.unit, xmax = std::max(stop, p.start + p.binSize) / f.unit;
    const double ymin = p.bottom - p.rowStep / 2, ymax = p.bottom + (p.height - 0.5) * p.rowStep;
    plwind(xmin, xmax, ymin, ymax);

    // log10 of the density; cells never hit fall below zmin and stay dark.
    double smallest = 1.0;
    for (float v : p.density)
        if (v > 0) smallest = std::min<double>(smallest, v);
    const double zmin = std::floor(std::log10(smallest)), zmax = 0.0;
    std::vector<std::vector<PLFLT>> cols(size_t(p.width), std::vector<PLFLT>(size_t(p.height)));
    std::vector<const PLFLT*> rows(size_t(p.width));
    for (int32_t c = 0; c < p.width; ++c) {
        for (int32_t r = 0; r < p.height; ++r) {
            const float v = p.density[size_t(r) * size_t(p.width) + size_t(c)];
            cols[size_t(c)][size_t(r)] = v > 0 ? std::log10(static_cast<double>(v)) : zmin - 1.0;
        }
        rows[size_t(c)] = cols[size_t(c)].data();
    }
    plimage(rows.data(), p.width, p.height, xmin, xmax, ymin, ymax, zmin, zmax, xmin, xmax, ymin, ymax);

    SetColour(kGrid);
    const double xStep = NiceStep((xmax - xmin) / 8), yStep = NiceStep((ymax - ymin) / 8);
    plwidth(0.6);
    for (double v : Ticks(xmin, xmax, xStep)) pljoin(v, ymin, v, ymax);
    for (double v : Ticks(ymin, ymax, yStep)) pljoin(xmin, v, xmax, v);
    // The max trace, clipped to the frame's levels.
    if (n > 0) {
        std::vector<PLFLT> x(n), y(n);
        for (size_t i = 0; i < n; ++i) {
            x[i] = (p.start + p.binSize * static_cast<double>(i)) / f.unit;
            y[i] = std::isfinite(p.maxTrace[i]) ? std::clamp<double>(p.maxTrace[i], ymin, ymax) : ymin;
        }
        plwidth(1.5 * textScale);
        SetColour(kTitle);
        plline(static_cast<PLINT>(n), x.data(), y.data());
        plwidth(1.0);
    }
    FrequencyBox(xmin, xmax, ymin, ymax, f, p.linear ? "Level (mV)" : "Level (dBm)");
    Titles(options, textScale);
    ColourBar(zmin, zmax, "log10 density", textScale);
    SettingsPanel(options, textScale);
    plend();
}

void WriteWaterfallPlot(const std::string& path, const WaterfallPicture& p, const PlotOptions& options) {
    if (p.frames.empty() || p.frames.front().empty()) throw Failure(kExitFailure, "plotting: no frames");
    const double textScale = BeginPicture(path, options);
    const size_t n = p.frames.front().size();
    const double stop = p.start + p.binSize * static_cast<double>(n - 1);
    const FrequencyAxis f = AxisUnit(stop);
    const double xmin = p.start / f.unit, xmax = std::max(stop, p.start + p.binSize) / f.unit;
    const double ymin = 0, ymax = p.frameSeconds * static_cast<double>(p.frames.size());
    plwind(xmin, xmax, ymin, ymax);

    // One column per pixel of the graticule, each the highest of its points.
    const auto columns = std::min(n, static_cast<size_t>(options.width * (kGraticuleRight - kGraticuleLeft)));
    std::vector<std::vector<PLFLT>> cols(columns, std::vector<PLFLT>(p.frames.size()));
    std::vector<double> all;
    for (size_t t = 0; t < p.frames.size(); ++t) {
        const std::vector<float>& tr = p.frames[t];
        for (size_t c = 0; c < columns; ++c) {
            double v = -std::numeric_limits<double>::infinity();
            for (size_t i = c * n / columns; i < (c + 1) * n / columns && i < tr.size(); ++i)
                v = std::max<double>(v, tr[i]);
            cols[c][t] = v;
            if (std::isfinite(v)) all.push_back(v);
        }
    }
    if (all.empty()) throw Failure(kExitFailure, "plotting: the traces hold no finite level");
    std::sort(all.begin(), all.end());
    // From the noise (the 5th percentile) to the strongest level.
    const double zmin = all[all.size() / 20], zmax = std::max(all.back(), zmin + 1.0);
    std::vector<const PLFLT*> rows(columns);
    for (size_t c = 0; c < columns; ++c) {
        for (PLFLT& v : cols[c]) v = std::clamp(v, zmin, zmax);
        rows[c] = cols[c].data();
    }
    plimage(rows.data(), static_cast<PLINT>(columns), static_cast<PLINT>(p.frames.size()), xmin, xmax, ymin, ymax,
            zmin, zmax, xmin, xmax, ymin, ymax);
    FrequencyBox(xmin, xmax, ymin, ymax, f, "Time (s)");
    Titles(options, textScale);
    ColourBar(zmin, zmax, p.linear ? "max (mV)" : "max (dBm)", textScale);
    SettingsPanel(options, textScale);
    plend();
}

} // namespace lx::cli

#if defined(__SANITIZE_ADDRESS__)
// The drawing stack keeps caches for the life of the process (fontconfig's
// font set, the driver modules PLplot loads through libltdl); in an ASan build
// the leak checker would report them at every exit.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:libfontconfig.so\nleak:libltdl.so\nleak:libplplot.so\nleak:libpango\nleak:libcairo.so\n";
}
#endif
