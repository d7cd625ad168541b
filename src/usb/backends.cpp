#include <cstdlib>
#include <cstring>

#include "sim/sim_backend.h"
#include "usb/libusb_backend.h"
#include "usb/usb_backend.h"

namespace lx::usb {

std::vector<UsbBackend*> Backends() {
    // LX_USB_BACKEND=libusb (or =simulator) keeps only that backend: a test
    // that drives the simulated device through libusb must not find it a
    // second time through the simulator backend.
    const char* only = std::getenv("LX_USB_BACKEND");
    if (only != nullptr && std::strcmp(only, "libusb") == 0) return {&LibusbBackend()};
    if (only != nullptr && std::strcmp(only, "simulator") == 0) return {&sim::Backend()};
    // Simulated devices first: a test or a demo with one attached finds it
    // before any hardware on the bus.
    return {&sim::Backend(), &LibusbBackend()};
}

} // namespace lx::usb
