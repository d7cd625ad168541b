// The process-wide list of attached simulated devices, in attach order.
// Its mutex is lock 1 of the order stated in sim_device.h.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "sim/sim_device.h"

namespace lx::sim {

struct Registry {
    std::mutex mu;
    std::vector<std::shared_ptr<SimDevice>> devices;
    int32_t nextId = 1;
};

Registry& TheRegistry();

// A copy of the list (taken under the registry mutex, used without it).
std::vector<std::shared_ptr<SimDevice>> AttachedDevices();
// The first attached device with this 8-digit serial, or null.
std::shared_ptr<SimDevice> FindBySerial(int32_t serial);

} // namespace lx::sim
