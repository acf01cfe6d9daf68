// The first line of an operstate file.

#include "probe_read.h"
#include "support/fuzz.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string line = text_of(data, size);
    const Reading reading = operstate_parse(line.c_str());
    const bool begins_with_up = size >= 2 && (line[0] | 0x20) == 'u' && (line[1] | 0x20) == 'p';
    PROMISE(reading.error == 0);
    PROMISE(reading.value == (begins_with_up ? 0 : 1));
    return 0;
}
