// The store keeps every value as base64 text and decodes whatever a default file or keychain copy
// holds there, so the decoder meets arbitrary text. Two properties: decoding any text stays in
// bounds (ASan watches the buffer the decoder sizes for itself), and encode then decode gives the
// value back as the store serves it, cut at its first NUL byte.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "quorel/configmanager/base64.h"

namespace {

using namespace Quorel::Iot::Configmanager;

[[noreturn]] void fail(const char* what) { Quorel::Iot::Fuzz::fail(what, std::string()); }

bool in_alphabet(char c) { return base64_char_value(c) >= 0; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);

    // Arbitrary text: the decoder is lenient, so only its bounds are promised. Every four input
    // characters before the first "=" give at most three bytes, and the result is text.
    std::string decoded;
    base64_decode(input, decoded);
    const size_t digits = input.find('=') == std::string::npos ? input.size() : input.find('=');
    if (decoded.size() > (digits + 3) / 4 * 3) fail("decoded more bytes than the input can hold");
    if (decoded.find('\0') != std::string::npos) fail("decoded text holds a NUL byte");

    // Round trip.
    std::string encoded;
    base64_encode(input, encoded);
    if (encoded.size() != (size + 2) / 3 * 4) fail("encoded length is not 4 * ceil(n / 3)");
    const size_t padding = encoded.size() - encoded.find_last_not_of('=') - 1;
    if (!encoded.empty() && padding != (3 - size % 3) % 3) fail("wrong padding");
    for (size_t i = 0; i + padding < encoded.size(); ++i) {
        if (!in_alphabet(encoded[i])) fail("encoded text leaves the alphabet");
    }
    if (base64_decoded_length(encoded.data(), static_cast<uint32_t>(encoded.size())) != static_cast<int32_t>(size))
        fail("base64_decoded_length disagrees with the encoded length");
    std::string back;
    base64_decode(encoded, back);
    if (back != input.substr(0, input.find('\0'))) fail("decode(encode(x)) is not x cut at its first NUL");
    return 0;
}
