// CLogCapture: collects every log_print line (all levels) while it lives, for exact-text asserts.
// Only one may be alive at a time in a process.
#ifndef QUOREL_TESTSUPPORT_LOG_CAPTURE_H
#define QUOREL_TESTSUPPORT_LOG_CAPTURE_H

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

namespace Quorel {
namespace Iot {
namespace Testing {

struct CLogLine {
    int level;
    std::string file;
    std::string function;
    std::string message;
};

class CLogCapture {
public:
    CLogCapture();
    ~CLogCapture();
    CLogCapture(const CLogCapture&) = delete;
    CLogCapture& operator=(const CLogCapture&) = delete;

    std::vector<CLogLine> lines() const;
    // Number of lines whose message equals text exactly.
    size_t count(const std::string& text) const;
    bool contains(const std::string& text) const { return count(text) > 0; }
    // Number of lines whose message contains fragment.
    size_t count_containing(const std::string& fragment) const;
    // Waits until a line equal to text has been logged.
    bool wait_for(const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
    void clear();

private:
    static void sink(int level, const char* file, const char* function, int line, const char* message, void* ctx);

    mutable std::mutex m_mutex;
    std::vector<CLogLine> m_lines;
};

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel

#endif
