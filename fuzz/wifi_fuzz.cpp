// The WiFi configuration: whatever stands in it, the WiFi is in use or it is not.

#include "network.h"
#include "parse_json.h"
#include "support/fuzz.h"

#include <array>
#include <vector>

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    std::vector<char> text(data, data + size);
    text.push_back('\0'); // as the reader's buffer ends
    std::array<JsonToken, 32> tokens{};
    JsonParser parser{};
    json_init(&parser, tokens.data(), tokens.size());
    const std::int32_t count = json_parse(&parser, text.data(), static_cast<std::int32_t>(size));
    const std::int32_t decision = network_decide_wifi(text.data(), tokens.data(), count);
    PROMISE(decision == 0 || decision == 1);
    PROMISE(count > 0 || decision == 1);
    return 0;
}
