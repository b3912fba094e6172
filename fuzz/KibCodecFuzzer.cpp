// SPDX-License-Identifier: MIT
// libFuzzer target for the bus frame decoders. Every input goes through each decoder;
// none may crash, leak or allocate without bound. A request that decodes must encode
// again, and that encoding must decode to the same bytes once more (the codec is
// stable on everything it accepts).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "KibCodec.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto* bytes = reinterpret_cast<const char*>(data);
    std::string error;

    KibRequestFrame request;
    if (KibCodec::decodeRequest(bytes, size, request, error) == KIB_OK) {
        std::string once;
        std::string twice;
        if (KibCodec::encodeRequest(request.caller, request.value.get(), once, error) != KIB_OK) {
            std::abort();
        }
        KibRequestFrame again;
        if (KibCodec::decodeRequest(once.data(), once.size(), again, error) != KIB_OK) std::abort();
        if (KibCodec::encodeRequest(again.caller, again.value.get(), twice, error) != KIB_OK ||
            once != twice) {
            std::abort();
        }
    }

    KibReply reply;
    KibCodec::decodeReply(bytes, size, reply, error);
    KibAnnounceFrame announce;
    KibCodec::decodeAnnounce(bytes, size, announce, error);
    std::string requester;
    KibCodec::decodeDiscover(bytes, size, requester, error);
    KibVariantHolder value;
    KibCodec::decodeValue(bytes, size, value, error);
    return 0;
}
