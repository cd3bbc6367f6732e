#include "quorel/testsupport/log_capture.h"

#include "quorel/log/log.h"
#include "quorel/testsupport/wait.h"

namespace Quorel {
namespace Iot {
namespace Testing {

CLogCapture::CLogCapture() { log_set_sink(&CLogCapture::sink, this); }

CLogCapture::~CLogCapture() { log_set_sink(nullptr, nullptr); }

void CLogCapture::sink(int level, const char* file, const char* function, int, const char* message, void* ctx) {
    auto* self = static_cast<CLogCapture*>(ctx);
    std::lock_guard<std::mutex> lock(self->m_mutex);
    self->m_lines.push_back(CLogLine{level, file != nullptr ? file : "", function != nullptr ? function : "",
                                     message != nullptr ? message : ""});
}

std::vector<CLogLine> CLogCapture::lines() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
}

size_t CLogCapture::count(const std::string& text) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    size_t n = 0;
    for (const auto& line : m_lines) n += line.message == text ? 1 : 0;
    return n;
}

size_t CLogCapture::count_containing(const std::string& fragment) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    size_t n = 0;
    for (const auto& line : m_lines) n += line.message.find(fragment) != std::string::npos ? 1 : 0;
    return n;
}

bool CLogCapture::wait_for(const std::string& text, std::chrono::milliseconds timeout) const {
    return wait_until([&] { return contains(text); }, timeout);
}

void CLogCapture::clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
}

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel
