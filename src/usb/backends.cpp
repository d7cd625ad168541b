#include "sim/sim_backend.h"
#include "usb/libusb_backend.h"
#include "usb/usb_backend.h"

namespace lx::usb {

std::vector<UsbBackend*> Backends() {
    // Simulated devices first: a test or a demo with one attached finds it
    // before any hardware on the bus.
    return {&sim::Backend(), &LibusbBackend()};
}

} // namespace lx::usb
