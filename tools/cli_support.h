// Plumbing of the lx530 tool: exit codes, the checking of every library
// status, and the scoped objects that unplug a simulated analyzer and close
// an open handle on every way out of a command, errors included.
#pragma once

#include <cerrno>
#include <cstdint>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "lx_api.h"
#include "report.h"

namespace CLI {
class App;
}

namespace lx::cli {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1; // the library or an analyzer refused
inline constexpr int kExitUsage = 2;   // the command line (or a file it names) is wrong

inline constexpr int32_t kDefaultSimSerial = 10000001;

// Leaves a command; main prints "lx530: <message>" and exits with the code.
class Failure : public std::runtime_error {
public:
    Failure(int exitCode, const std::string& message, std::string hint = {})
        : std::runtime_error(message), exitCode_(exitCode), hint_(std::move(hint)) {}
    int ExitCode() const { return exitCode_; }
    const std::string& Hint() const { return hint_; }

private:
    int exitCode_;
    std::string hint_;
};

// The verdict on one library call: an error throws Failure
// ("<what>: <status text> (<status>)"); a warning is printed to stderr at once
// and, when a list is given, kept for the report; success passes.
void Check(LxStatus status, const std::string& what, std::vector<Warning>* warnings = nullptr);

// A simulated LX530 plugged in for the life of this object. An unreadable
// scene file is a usage error; a scene the simulator rejects is a failure
// that says, where it can, whether the JSON itself is broken.
class SimulatedAnalyzer {
public:
    SimulatedAnalyzer(int32_t serial, const std::optional<std::string>& sceneFile);
    ~SimulatedAnalyzer();
    SimulatedAnalyzer(const SimulatedAnalyzer&) = delete;
    SimulatedAnalyzer& operator=(const SimulatedAnalyzer&) = delete;

private:
    int32_t serial_;
};

// An open analyzer. Close() is the checked close of the normal path; the
// destructor closes what an error left open.
class OpenAnalyzer {
public:
    // The given serial, or the first analyzer found.
    OpenAnalyzer(std::optional<int32_t> serial, std::vector<Warning>& warnings);
    ~OpenAnalyzer();
    OpenAnalyzer(const OpenAnalyzer&) = delete;
    OpenAnalyzer& operator=(const OpenAnalyzer&) = delete;

    int32_t Handle() const { return handle_; }
    void Close();

private:
    int32_t handle_ = -1;
};

// A file named on the command line, created before the analyzer is touched
// so that a path that cannot be written fails at once (a usage error, with
// `usageHint`). Removed again unless the command completes: a failed run
// leaves no half-written output.
class OutputFile {
public:
    explicit OutputFile(const std::string& path, const std::string& usageHint = {});
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    std::ofstream& Stream() { return stream_; }
    const std::string& Path() const { return path_; }
    // Closes the stream; Failure when anything written to it was lost.
    void Finish();
    void Keep() { kept_ = true; }

private:
    std::string path_;
    std::ofstream stream_;
    bool kept_ = false;
};

// The options every measurement command shares: which analyzer (--scene,
// --serial) and its input stage (--ref-level, --atten).
void AddAnalyzerOptions(CLI::App& cmd, std::optional<std::string>& scene, std::optional<int32_t>& serial);
void AddInputOptions(CLI::App& cmd, double& refLevel, std::string& attenuator);

// "auto" (-1) or a step 0..6; nullopt for anything else.
std::optional<int32_t> AttenuatorStep(const std::string& text);

// The attenuator of --atten: -1 for "auto", else a step 0..6. A usage error
// (with `hint`) for anything else, and for a reference level that is not a
// number.
int32_t InputAttenuator(double refLevel, const std::string& attenuator, const std::string& hint);

// --png-size as WIDTH, HEIGHT; a usage error when it is not one.
std::pair<int, int> PlotSizeOption(const std::string& text, const std::string& hint);

// A usage error when two outputs name one file (the second would silently
// overwrite the first).
void RefuseSharedOutputs(const std::vector<const std::optional<std::string>*>& outputs, const std::string& hint);

// Serials of the analyzers this process can open, in enumeration order.
std::vector<int32_t> AttachedSerials();

// Personality of a simulated analyzer (true: run firmware); nullopt for one
// on the bus (used to tell simulated analyzers from hardware).
std::optional<bool> SimulatedPersonality(int32_t serial);

} // namespace lx::cli
