#include "util/b64.h"

#include <array>
#include <cstdint>

namespace {
const std::string b = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
}

std::string base64_encode(const std::string& bytes)
{
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    uint32_t accumulator = 0;
    int bits = -6;
    for (const char c : bytes) {
        // Only the low bits are ever read; masking keeps the accumulator from overflowing.
        accumulator = ((accumulator << 8) | static_cast<unsigned char>(c)) & 0xFFFFFF;
        bits += 8;
        while (bits >= 0) {
            out.push_back(b[(accumulator >> bits) & 0x3F]);
            bits -= 6;
        }
    }
    if (bits > -6)
        out.push_back(b[((accumulator << 8) >> (bits + 8)) & 0x3F]);
    while (out.size() % 4 != 0)
        out.push_back('=');
    return out;
}

std::string base64_decode(const std::string& text)
{
    std::array<int, 256> table;
    table.fill(-1);
    for (int i = 0; i < 64; ++i)
        table[static_cast<unsigned char>(b[i])] = i;

    std::string out;
    out.reserve(text.size() / 4 * 3 + 2);
    uint32_t accumulator = 0;
    int bits = -8;
    for (const char c : text) {
        const int value = table[static_cast<unsigned char>(c)];
        if (value == -1)
            break;
        accumulator = ((accumulator << 6) | static_cast<uint32_t>(value)) & 0xFFFFFF;
        bits += 6;
        if (bits >= 0) {
            out.push_back(static_cast<char>((accumulator >> bits) & 0xFF));
            bits -= 8;
        }
    }
    return out;
}
