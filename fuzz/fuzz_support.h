// Helpers shared by the fuzz targets: the invariant checks that stop a run, and the D-Bus text
// rule every text bound for the bus must meet.
#ifndef QUOREL_FUZZ_FUZZ_SUPPORT_H
#define QUOREL_FUZZ_FUZZ_SUPPORT_H

#include <string>

namespace Quorel {
namespace Iot {
namespace Fuzz {

// True when text can travel as a D-Bus string: valid UTF-8 (no surrogates, no overlong forms)
// and no NUL byte, which libdbus would take for the end of the text.
bool is_dbus_text(const std::string& text);

// Reports a broken invariant (with detail shown escaped and shortened) and aborts, so libFuzzer
// keeps the input as a crash. The report goes where the sanitizers write, which stays visible
// when scripts/fuzz.sh closes the targets' own standard error.
[[noreturn]] void fail(const char* what, const std::string& detail);

// detail as printable ASCII: other bytes as \xHH, cut after limit bytes.
std::string printable(const std::string& detail, size_t limit = 160);

}  // namespace Fuzz
}  // namespace Iot
}  // namespace Quorel

#endif
