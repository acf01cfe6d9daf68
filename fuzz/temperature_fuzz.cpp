// The first line of the temperature file.

#include "probe_read.h"
#include "support/fuzz.h"

#include <cmath>

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string line = text_of(data, size);
    const Reading reading = temperature_parse(line.c_str());
    PROMISE(reading.error == 0 || reading.error == EINVAL);
    if (reading.error == 0) {
        const double millidegrees = std::strtod(line.c_str(), nullptr);
        PROMISE(std::isfinite(millidegrees));
        PROMISE(std::fabs(reading.value - millidegrees / 1000.0) < 1.5);
    } else {
        PROMISE(reading.value == 0);
    }
    return 0;
}
