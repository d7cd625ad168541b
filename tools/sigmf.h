// SigMF recordings (a BASE.sigmf-data file of samples and its BASE.sigmf-meta
// JSON), as the lx530 tool writes them for any I/Q it captures.
//
// Usage: construct (the data file is created at once, so a path that cannot
// be written fails before a device is touched), then AddCapture / Append in
// sample order, then Commit, which writes the metadata. A writer destroyed
// without a successful Commit removes both files: a failed run leaves no
// half-written recording. Errors throw SigmfError with a message that names
// the file.
//
// The metadata follows SigMF 1.2 (core namespace); keys of the tool's own
// "lx530" extension (declared in core:extensions, optional) carry what the
// core has no key for, such as the factor that calibrates int16 samples.
#pragma once

#include <cstdint>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace lx::cli {

class SigmfError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The sample formats the library delivers.
enum class SigmfType { Cf32, Ci16 };
// "cf32_le" / "ci16_le" and the bytes of one complex sample.
const char* SigmfTypeName(SigmfType type);
int SigmfSampleBytes(SigmfType type);

struct SigmfGlobal {
    SigmfType type = SigmfType::Cf32;
    double sampleRate = 0;
    std::string hw;          // core:hw
    std::string recorder;    // core:recorder
    std::string description; // core:description, left out when empty
    // Further keys of the global object (for example "lx530:serial").
    nlohmann::ordered_json extra = nlohmann::ordered_json::object();
};

struct SigmfCapture {
    int64_t sampleStart = 0;
    std::optional<double> frequencyHz;  // core:frequency
    std::optional<uint64_t> timeNs;     // core:datetime, ns since 1970 UTC
    nlohmann::ordered_json extra = nlohmann::ordered_json::object();
};

// "2026-11-22T20:45:00.123456789Z".
std::string SigmfDatetime(uint64_t nsSince1970);

// The whole metadata document of a recording.
nlohmann::ordered_json SigmfMeta(const SigmfGlobal& global, const std::vector<SigmfCapture>& captures);

class SigmfWriter {
public:
    SigmfWriter(std::string basePath, SigmfGlobal global);
    ~SigmfWriter();
    SigmfWriter(const SigmfWriter&) = delete;
    SigmfWriter& operator=(const SigmfWriter&) = delete;

    // A capture segment starting at the next sample appended.
    void AddCapture(SigmfCapture capture);
    // `count` complex samples of the recording's type.
    void Append(const void* samples, int64_t count);
    void Commit();

    // Global fields may still change (say, once the analyzer's serial is known).
    SigmfGlobal& Global() { return global_; }
    int64_t Samples() const { return samples_; }
    const std::string& DataPath() const { return dataPath_; }
    const std::string& MetaPath() const { return metaPath_; }

private:
    std::string dataPath_, metaPath_;
    SigmfGlobal global_;
    std::vector<SigmfCapture> captures_;
    std::ofstream data_;
    int64_t samples_ = 0;
    bool committed_ = false;
};

} // namespace lx::cli
