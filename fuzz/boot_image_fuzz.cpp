// Boot-format images as a user hands them to the flash exports: layout,
// checksum, serial placeholder, patch, version marker. A successful patch
// must leave a whole image with a good checksum and the serial in place.
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "boot/boot_image.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace lx;
    using namespace lx::boot;
    const std::span<const uint8_t> in(data, size);
    const auto layout = ParseImage(in);
    const bool checksumOk = ChecksumValid(in);
    if (checksumOk && !layout) std::abort();
    const auto placeholder = FindSerialPlaceholder(in);
    (void)FindVersionMarker(in);
    std::vector<uint8_t> image(data, data + size);
    if (PatchSerial(image, 12345678)) {
        if (!checksumOk || !placeholder || !ChecksumValid(image)) std::abort();
        for (size_t k = 0; k < 8; ++k)
            if (image[*placeholder + 2 * k] != "12345678"[k]) std::abort();
    } else if (image != std::vector<uint8_t>(data, data + size)) {
        std::abort(); // a refused patch leaves the image as it was
    }
    return 0;
}
