#include "lx_lib/device.h"

namespace lx {

// Each measurement engine brings its set-up; until it exists, its mode is
// refused and the device stays idle.
LxStatus SetupMode(Device& dev, int32_t mode) {
    (void)dev;
    switch (mode) {
    case 1: case 2: case 3: case 4: case 5: case 100:
        return lxInvalidConfigurationErr;
    default:
        return lxInvalidParameterErr;
    }
}

} // namespace lx
