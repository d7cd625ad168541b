// `lx530 list FREQ...` / `lx530 list --csv FILE`: captures a block of I/Q
// samples at each frequency of a list (the library's I/Q sweep list), one or
// more passes, prints each step's power and time, and on request writes the
// samples as SigMF: one recording with a capture segment per step, or one
// recording per step. `lx530 list` without frequencies lists the analyzers.
#pragma once

#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace lx::cli {

struct IqListOptions {
    std::vector<std::string> frequencies;
    std::optional<std::string> csv;
    std::string samples = "16384";
    double refLevel = -20;
    std::string attenuator = "auto";
    int passes = 1;
    std::string format = "cf32";
    std::optional<std::string> sigmf;
    bool perStep = false;
    std::optional<std::string> scene;
    std::optional<int32_t> serial;

    // Frequencies or a CSV file were given: a sweep list, not the analyzer list.
    bool Requested() const { return !frequencies.empty() || csv.has_value(); }
    // Some sweep-list option was given.
    bool AnyGiven(const CLI::App& cmd) const;
};

// One step as the command line or the CSV file asks for it.
struct ListStep {
    double frequencyHz = 0;
    double refLevel = -20;
    int32_t attenuator = -1; // -1 automatic
    uint32_t samples = 16384;
};

// Rows "frequency[,reference level dBm[,attenuation auto|0..6[,samples]]]";
// empty fields take `defaults`, '#' starts a comment, a first row whose
// frequency is not a number is a header. Throws Failure (usage) naming the
// line of anything else.
std::vector<ListStep> ParseListCsv(std::istream& in, const std::string& name, const ListStep& defaults);

// Adds the sweep-list arguments to the `list` subcommand.
void AddIqListOptions(CLI::App& list, IqListOptions& options);

int RunIqList(const IqListOptions& options, bool json);

} // namespace lx::cli
