// The picture of a swept spectrum that `lx530 sweep --png` writes: an
// analyzer's screen (dark graticule, max trace over min trace, numbered peak
// markers, and a side panel with the settings and the marker table), drawn
// by PLplot's cairo PNG driver.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sweep_report.h"

namespace lx::cli {

struct PlotOptions {
    std::string title;    // first line above the graticule
    std::string subtitle; // second line
    // The settings, as rows of the side panel: label, value.
    std::vector<std::pair<std::string, std::string>> settings;
    int width = 1280, height = 720;
    double refLevel = -20; // dBm; the level axis reaches up to it at least
};

inline constexpr int kMinPlotSide = 320, kMaxPlotSide = 8192;

// "1280x720" within kMinPlotSide..kMaxPlotSide on both sides; nullopt otherwise.
std::optional<std::pair<int, int>> ParsePlotSize(std::string_view text);

// A trace as a screen shows it, `columns` wide: per column the lowest and
// highest of the points that fall into it, so a tone one bin wide never slips
// between two pixels however many points share one.
struct Envelope {
    std::vector<double> frequency; // centre of each column, Hz
    std::vector<double> lo, hi;    // in the trace's units
};
Envelope Decimate(const Trace& trace, const std::vector<float>& values, size_t columns);

// Writes the plot to `path` (replaced if it exists). Failure (exit 1) when the
// PNG driver is missing.
void WritePlot(const std::string& path, const Trace& trace, const std::vector<Peak>& peaks,
               const PlotOptions& options);

// A real-time density (persistence) frame as lxGetRealTimeFrame delivers it:
// width x height cells, row-major, row 0 the lowest level; the max trace of
// the same frame over it. Row r covers the levels around bottom + r * rowStep.
struct DensityPicture {
    double start = 0, binSize = 0; // of the trace points
    bool linear = false;
    double bottom = 0, rowStep = 0; // dBm (mV on the linear scale)
    int32_t width = 0, height = 0;
    std::vector<float> density;
    std::vector<float> maxTrace;
};

// The density on a logarithmic colour scale (cells never hit stay dark) with
// its colour bar, and the max trace drawn over it.
void WriteDensityPlot(const std::string& path, const DensityPicture& picture, const PlotOptions& options);

// Max traces of successive frames, oldest at the bottom, level in colour.
struct WaterfallPicture {
    double start = 0, binSize = 0;
    bool linear = false;
    double frameSeconds = 1.0 / 30;
    std::vector<std::vector<float>> frames;
};
void WriteWaterfallPlot(const std::string& path, const WaterfallPicture& picture, const PlotOptions& options);

} // namespace lx::cli
