#include "quorel/configmanager/base64.h"

#include <string.h>

#include <memory>
#include <new>

namespace Quorel {
namespace Iot {
namespace Configmanager {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Characters outside the alphabet map to -1; the bit operations below run on the unsigned image
// of the value so that -1 contributes "all bits set", exactly as the lenient decoder promises.
inline uint32_t bits(int value) { return static_cast<uint32_t>(value); }

inline void decode_group(const int (&v)[4], unsigned char (&bytes)[3]) {
    bytes[0] = static_cast<unsigned char>((bits(v[0]) << 2) + ((bits(v[1]) & 0x30) >> 4));
    bytes[1] = static_cast<unsigned char>(((bits(v[2]) & 0x3C) >> 2) + (bits(v[1]) << 4));
    bytes[2] = static_cast<unsigned char>(bits(v[3]) + (bits(v[2]) << 6));
}

inline void encode_group(const unsigned char (&in)[3], char (&out)[4]) {
    out[0] = kAlphabet[in[0] >> 2];
    out[1] = kAlphabet[((in[0] & 3) << 4) + (in[1] >> 4)];
    out[2] = kAlphabet[((in[1] & 15) << 2) + (in[2] >> 6)];
    out[3] = kAlphabet[in[2] & 63];
}

// The value of every byte as a base64 digit, -1 outside the alphabet: a table, because every
// value the store serves is decoded on the way out.
struct CDigitTable {
    signed char value[256];
    constexpr CDigitTable() : value() {
        for (int i = 0; i < 256; ++i) value[i] = -1;
        for (int i = 0; i < 64; ++i) value[static_cast<unsigned char>(kAlphabet[i])] = static_cast<signed char>(i);
    }
};
constexpr CDigitTable kDigits;

// Bytes that base64_decode_block writes for src: it stops at the first "=", so a text with extra
// padding ("ZZZZ====") yields more than base64_decoded_length predicts; the buffer must hold both.
int64_t decoded_bytes_written(const char* src, size_t length) {
    const void* equals = memchr(src, '=', length);
    const size_t n = equals == nullptr ? length : static_cast<size_t>(static_cast<const char*>(equals) - src);
    const size_t rest = n % 4;
    return static_cast<int64_t>(n / 4 * 3 + (rest > 1 ? rest - 1 : 0));
}

}  // namespace

int base64_char_value(char ch) { return kDigits.value[static_cast<unsigned char>(ch)]; }

int32_t base64_encoded_length(uint32_t length) {
    // Unsigned arithmetic wraps where the 32-bit signed original would overflow; the result is the
    // same bit pattern, and an absurd length comes out non-positive, which callers refuse.
    return static_cast<int32_t>((length + 2) / 3 * 3 / 3 * 4);
}

int32_t base64_decoded_length(const char* text, uint32_t length) {
    int32_t padding = 0;
    for (uint32_t i = length; i > 0 && text[i - 1] == '='; --i) ++padding;
    return static_cast<int32_t>(static_cast<uint64_t>(length) * 6 / 8) - padding;
}

int32_t base64_encode_block(char* dst, const unsigned char* src, uint32_t length) {
    int32_t written = 0;
    uint32_t i = 0;
    for (; i + 3 <= length; i += 3) {
        const unsigned char group[3] = {src[i], src[i + 1], src[i + 2]};
        char out[4];
        encode_group(group, out);
        for (char c : out) dst[written++] = c;
    }
    const uint32_t rest = length - i;
    if (rest > 0) {
        const unsigned char group[3] = {src[i], rest > 1 ? src[i + 1] : static_cast<unsigned char>(0), 0};
        char out[4];
        encode_group(group, out);
        for (uint32_t k = 0; k < 4; ++k) dst[written++] = k <= rest ? out[k] : '=';
    }
    dst[written] = '\0';
    return written;
}

int32_t base64_decode_block(unsigned char* dst, const char* src, uint32_t length) {
    int32_t written = 0;
    uint32_t i = 0;
    // Whole groups of four alphabet characters, which are nearly all of any stored value, skip the
    // per-character bookkeeping below; from the first group holding padding or a character outside
    // the alphabet on, and for a short tail, the general loop takes over at that group's start.
    for (; i + 4 <= length; i += 4) {
        const int group[4] = {base64_char_value(src[i]), base64_char_value(src[i + 1]), base64_char_value(src[i + 2]),
                              base64_char_value(src[i + 3])};
        if ((group[0] | group[1] | group[2] | group[3]) < 0) break;
        unsigned char bytes[3];
        decode_group(group, bytes);
        for (unsigned char b : bytes) dst[written++] = b;
    }
    int group[4];
    uint32_t filled = 0;
    for (; i < length && src[i] != '='; ++i) {
        group[filled++] = base64_char_value(src[i]);
        if (filled == 4) {
            unsigned char bytes[3];
            decode_group(group, bytes);
            for (unsigned char b : bytes) dst[written++] = b;
            filled = 0;
        }
    }
    if (filled > 0) {
        for (uint32_t k = filled; k < 4; ++k) group[k] = base64_char_value('\0');
        unsigned char bytes[3];
        decode_group(group, bytes);
        for (uint32_t k = 0; k + 1 < filled; ++k) dst[written++] = bytes[k];
    }
    dst[written] = '\0';
    return written;
}

void base64_encode(const std::string& in, std::string& out) {
    const int64_t size = static_cast<int64_t>(base64_encoded_length(static_cast<uint32_t>(in.size()))) + 1;
    if (size <= 0) return;
    // Encoded in place into out; the text holds no NUL, so its length is what was written.
    out.assign(static_cast<size_t>(size), '\0');
    const int32_t written = base64_encode_block(&out[0], reinterpret_cast<const unsigned char*>(in.data()),
                                                static_cast<uint32_t>(in.size()));
    out.resize(written > 0 ? static_cast<size_t>(written) : 0);
}

void base64_decode(const std::string& in, std::string& out) { base64_decode(in.data(), in.size(), out); }

void base64_decode(const char* in, size_t length, std::string& out) {
    int64_t size = static_cast<int64_t>(base64_decoded_length(in, static_cast<uint32_t>(length))) + 1;
    if (size <= 0) return;
    const int64_t needed = decoded_bytes_written(in, length) + 1;
    if (needed > size) size = needed;
    // Decoded in place into out, then cut at the first NUL, as the text the store serves.
    out.assign(static_cast<size_t>(size), '\0');
    base64_decode_block(reinterpret_cast<unsigned char*>(&out[0]), in, static_cast<uint32_t>(length));
    out.resize(strlen(out.c_str()));
}

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel
