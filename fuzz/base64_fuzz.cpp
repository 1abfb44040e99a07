// The lenient Base64 decoder, and the codec's round trip.
#include "fuzz_support.h"
#include "util/b64.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input = as_string(data, size);
    const std::string decoded = base64_decode(input);
    if (decoded.size() > input.size() * 3 / 4 + 1)
        __builtin_trap();
    if (base64_decode(base64_encode(input)) != input)
        __builtin_trap();
    // Decoding stops at the first foreign byte: the decoded prefix re-encodes to the same bits.
    if (base64_decode(base64_encode(decoded)) != decoded)
        __builtin_trap();
    return 0;
}
