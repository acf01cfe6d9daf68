// The registers of the eMMC device.

#include "probe_read.h"
#include "support/fuzz.h"

#include <cstring>

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    constexpr std::size_t revision = 192;
    ExtCsd registers{};
    std::memcpy(registers.data(), data, std::min(size, registers.size()));
    const Reading reading = wearout_decode(registers);
    PROMISE(reading.error == 0 || reading.error == EINVAL);
    PROMISE(reading.value >= 0 && reading.value <= 100 && reading.value % 10 == 0);
    PROMISE(reading.error == EINVAL || registers[revision] > 6);
    return 0;
}
