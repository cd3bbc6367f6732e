// Base64 (RFC 4648 alphabet, "=" padding, no line breaks) for the store's value texts.
// The decoder is lenient: it validates nothing, stops at the first "=" and maps characters outside
// the alphabet to -1, which corrupts their group instead of failing. Text in, text out: a decoded
// value ends at its first NUL byte.
#ifndef QUOREL_CONFIGMANAGER_BASE64_H
#define QUOREL_CONFIGMANAGER_BASE64_H

#include <cstdint>
#include <string>

namespace Quorel {
namespace Iot {
namespace Configmanager {

void base64_encode(const std::string& in, std::string& out);
void base64_decode(const std::string& in, std::string& out);
void base64_decode(const char* in, size_t length, std::string& out);
int32_t base64_encode_block(char* dst, const unsigned char* src, uint32_t length);
int32_t base64_decode_block(unsigned char* dst, const char* src, uint32_t length);
int32_t base64_encoded_length(uint32_t length);
int32_t base64_decoded_length(const char* text, uint32_t length);
int base64_char_value(char ch);

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel

#endif
