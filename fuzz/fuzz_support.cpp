#include "fuzz_support.h"

#include <cxxabi.h>
#include <dbus/dbus.h>
#include <sanitizer/common_interface_defs.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <typeinfo>

namespace Quorel {
namespace Iot {
namespace Fuzz {

bool is_dbus_text(const std::string& text) {
    return text.find('\0') == std::string::npos && dbus_validate_utf8(text.c_str(), nullptr);
}

std::string printable(const std::string& detail, size_t limit) {
    std::string out;
    for (size_t i = 0; i < detail.size() && i < limit; ++i) {
        const unsigned char c = static_cast<unsigned char>(detail[i]);
        if (c >= 0x20 && c < 0x7f && c != '\\') {
            out += static_cast<char>(c);
        } else {
            char hex[8];
            snprintf(hex, sizeof(hex), "\\x%02x", c);
            out += hex;
        }
    }
    if (detail.size() > limit) out += "...(" + std::to_string(detail.size()) + " bytes)";
    return out;
}

void fail(const char* what, const std::string& detail) {
    const std::string line = std::string("fuzz invariant broken: ") + what + ": " + printable(detail);
    __sanitizer_report_error_summary(line.c_str());
    abort();
}

namespace {

// An exception that leaves a target ends in std::terminate; the runtime's own note of it would go
// to the closed standard error, so name the exception where the report goes.
[[noreturn]] void report_escaped_exception() {
    std::string what = "no exception (std::terminate called directly)";
    if (const std::exception_ptr current = std::current_exception()) {
        try {
            std::rethrow_exception(current);
        } catch (const std::exception& e) {
            int status = 0;
            char* name = abi::__cxa_demangle(typeid(e).name(), nullptr, nullptr, &status);
            what = std::string(status == 0 && name != nullptr ? name : typeid(e).name()) + ": " + e.what();
            free(name);
        } catch (...) {
            what = "an exception of a type not derived from std::exception";
        }
    }
    fail("an exception escaped", what);
}

struct CTerminateReporter {
    CTerminateReporter() { std::set_terminate(report_escaped_exception); }
} g_terminate_reporter;

}  // namespace

}  // namespace Fuzz
}  // namespace Iot
}  // namespace Quorel
