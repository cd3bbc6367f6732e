// Checks of what the person typed, before anything goes to the bus.
#ifndef CMCTL_ARGUMENTS_H
#define CMCTL_ARGUMENTS_H

#include <cstdint>
#include <string>

namespace Quorel {
namespace Iot {
namespace Cmctl {

// True when text may travel as a bus string: UTF-8 without NUL bytes. libdbus ends the whole
// process on anything else, so every string is checked before it is appended to a message.
bool is_bus_text(const std::string& text);
// kExitOk, or kExitUsage after saying that what (e.g. "the key") of command is not such text.
int check_bus_text(const std::string& command, const char* what, const std::string& text);

// Strict decimal numbers: digits only (a leading "-" for int32), no blanks, in range.
bool parse_uint64(const std::string& text, uint64_t& value);
bool parse_int32(const std::string& text, int32_t& value);

// Reads all of a file, or of standard input for "-"; false with the reason in error.
bool read_input(const std::string& path, std::string& content, std::string& error);

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel

#endif
