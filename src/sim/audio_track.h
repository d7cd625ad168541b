// Audio programmes of modulated emitters: a mono sound file (any format and
// rate libsndfile reads, at most a minute) resampled to kAudioRateHz, with its
// Hilbert transform for single sideband. Read when the scene is parsed.
#pragma once

#include <memory>
#include <string>

#include "sim/scene.h"

namespace lx::sim {

// Null and a reason naming the key when the file cannot be used.
std::shared_ptr<const AudioTrack> LoadAudioTrack(const std::string& path, std::string* why);

} // namespace lx::sim
