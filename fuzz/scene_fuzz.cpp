// Scene JSON as lxSimAttach / lxSimSetScene take it from a user: accepted
// scenes hold only finite, non-negative timing.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "sim/scene.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::string error;
    const auto scene = lx::sim::ParseScene(text.c_str(), &error);
    if (!scene) {
        if (error.empty()) std::abort(); // a refusal always says why
        return 0;
    }
    for (const auto& e : scene->emitters) {
        if (!std::isfinite(e.frequencyHz) || !std::isfinite(e.powerDbm)) std::abort();
        if (e.gate && (e.gate->width < 0 || e.gate->period < 0)) std::abort();
    }
    return 0;
}
