// CTempDir: a fresh directory under /tmp for one test, removed with all its content afterwards
// (by std::filesystem, so that cleanup does not depend on the helpers under test).
#ifndef QUOREL_PLATFORM_TEST_TEMP_DIR_H
#define QUOREL_PLATFORM_TEST_TEMP_DIR_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace Quorel {
namespace Iot {
namespace Testing {

class CTempDir {
public:
    CTempDir() {
        char pattern[] = "/tmp/cm-platform-XXXXXX";
        if (mkdtemp(pattern) != nullptr) m_path = pattern;
    }
    ~CTempDir() {
        std::error_code ignored;
        if (!m_path.empty()) std::filesystem::remove_all(m_path, ignored);
    }
    CTempDir(const CTempDir&) = delete;
    CTempDir& operator=(const CTempDir&) = delete;

    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

    // Writes a file below the directory and returns its path.
    std::string write(const std::string& name, const std::string& text) const {
        std::ofstream(*this / name) << text;
        return *this / name;
    }

private:
    std::string m_path;
};

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel

#endif
