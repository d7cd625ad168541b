// LX530 hardware through libusb-1.0.
//
// Devices are enumerated by vendor 0x5A3C / product 0x000C. libusb starts on
// the first enumeration; a machine without a USB bus, or a user without
// permission on the device nodes, simply sees no device (nothing is printed).
//
// Threads: one event-handling thread per process ("LX USB Events"). It starts
// when the first device handle opens and stops (joined) when the last one
// closes; it only runs libusb's completion callbacks, which mark a transfer
// complete and wake its waiter. Callers may use the backend from any thread;
// one device handle is driven by one thread at a time.
//
// Lock order: backend mutex (snapshot, open count, event thread) -> nothing.
// A device's transfer-list mutex and a transfer's completion mutex are leaves;
// the completion callback takes only the latter.
#pragma once

#include "usb/usb_backend.h"

namespace lx::usb {

// The process-wide libusb backend. Lives for the process.
UsbBackend& LibusbBackend();

} // namespace lx::usb
