// The simulated LX530 as a USB backend.
#pragma once

#include "usb/usb_backend.h"

namespace lx::sim {

// The process-wide simulator backend: enumerates the attached simulated
// devices in order of attachment.
usb::UsbBackend& Backend();

} // namespace lx::sim
