#include "sigmf.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>

namespace lx::cli {

namespace {

constexpr const char* kSigmfVersion = "1.2.5";
constexpr const char* kExtension = "lx530";
constexpr const char* kExtensionVersion = "1.0.0";

std::string Reason() { return errno ? std::strerror(errno) : "I/O error"; }

} // namespace

const char* SigmfTypeName(SigmfType type) { return type == SigmfType::Ci16 ? "ci16_le" : "cf32_le"; }
int SigmfSampleBytes(SigmfType type) { return type == SigmfType::Ci16 ? 4 : 8; }

std::string SigmfDatetime(uint64_t ns) {
    const auto seconds = static_cast<std::time_t>(ns / 1000000000u);
    std::tm tm{};
    gmtime_r(&seconds, &tm);
    char b[64];
    std::snprintf(b, sizeof b, "%04d-%02d-%02dT%02d:%02d:%02d.%09uZ", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<unsigned>(ns % 1000000000u));
    return b;
}

nlohmann::ordered_json SigmfMeta(const SigmfGlobal& g, const std::vector<SigmfCapture>& captures) {
    nlohmann::ordered_json global = {
        {"core:datatype", SigmfTypeName(g.type)},
        {"core:sample_rate", g.sampleRate},
        {"core:version", kSigmfVersion},
        {"core:num_channels", 1},
        {"core:hw", g.hw},
        {"core:recorder", g.recorder},
        {"core:extensions", nlohmann::ordered_json::array(
                                {{{"name", kExtension}, {"version", kExtensionVersion}, {"optional", true}}})},
    };
    if (!g.description.empty()) global["core:description"] = g.description;
    for (const auto& [k, v] : g.extra.items()) global[k] = v;
    nlohmann::ordered_json caps = nlohmann::ordered_json::array();
    for (const SigmfCapture& c : captures) {
        nlohmann::ordered_json j = {{"core:sample_start", c.sampleStart}};
        if (c.frequencyHz) j["core:frequency"] = *c.frequencyHz;
        if (c.timeNs) j["core:datetime"] = SigmfDatetime(*c.timeNs);
        for (const auto& [k, v] : c.extra.items()) j[k] = v;
        caps.push_back(std::move(j));
    }
    return {{"global", std::move(global)}, {"captures", std::move(caps)}, {"annotations", nlohmann::ordered_json::array()}};
}

SigmfWriter::SigmfWriter(std::string basePath, SigmfGlobal global)
    : dataPath_(basePath + ".sigmf-data"), metaPath_(basePath + ".sigmf-meta"), global_(std::move(global)) {
    errno = 0;
    data_.open(dataPath_, std::ios::binary | std::ios::trunc);
    if (!data_) throw SigmfError("cannot write '" + dataPath_ + "': " + Reason());
}

SigmfWriter::~SigmfWriter() {
    if (committed_) return;
    data_.close();
    std::error_code ec;
    std::filesystem::remove(dataPath_, ec);
    std::filesystem::remove(metaPath_, ec);
}

void SigmfWriter::AddCapture(SigmfCapture capture) {
    capture.sampleStart = samples_;
    captures_.push_back(std::move(capture));
}

void SigmfWriter::Append(const void* samples, int64_t count) {
    if (count <= 0) return;
    errno = 0;
    data_.write(static_cast<const char*>(samples), static_cast<std::streamsize>(count * SigmfSampleBytes(global_.type)));
    if (!data_) throw SigmfError("writing '" + dataPath_ + "': " + Reason());
    samples_ += count;
}

void SigmfWriter::Commit() {
    errno = 0;
    data_.flush();
    data_.close();
    if (data_.fail()) throw SigmfError("writing '" + dataPath_ + "': " + Reason());
    std::ofstream meta(metaPath_, std::ios::trunc);
    if (!meta) throw SigmfError("cannot write '" + metaPath_ + "': " + Reason());
    meta << SigmfMeta(global_, captures_).dump(2) << '\n';
    meta.close();
    if (meta.fail()) throw SigmfError("writing '" + metaPath_ + "': " + Reason());
    committed_ = true;
}

} // namespace lx::cli
