#include "quorel/platform/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Quorel {
namespace Iot {
namespace Platform {

CFile::~CFile() { close(); }

bool CFile::open(const std::string& path, const std::string& mode) {
    close();
    m_path = path;
    m_mode = mode;
    m_stream = fopen(path.c_str(), mode.c_str());
    return m_stream != nullptr;
}

void CFile::close() {
    if (m_stream == nullptr) return;
    fclose(m_stream);
    m_stream = nullptr;
}

size_t CFile::write(const void* buffer, size_t item_size, size_t count) {
    return m_stream != nullptr ? fwrite(buffer, item_size, count, m_stream) : 0;
}

size_t CFile::read(void* buffer, size_t item_size, size_t count) {
    return m_stream != nullptr ? fread(buffer, item_size, count, m_stream) : 0;
}

int64_t CFile::tell() { return m_stream != nullptr ? ftell(m_stream) : -1; }

int CFile::seek(int64_t offset, int origin) {
    return m_stream != nullptr ? fseek(m_stream, static_cast<long>(offset), origin) : -1;
}

void CFile::rewind() {
    if (m_stream != nullptr) ::rewind(m_stream);
}

int64_t CFile::size() const {
    if (m_stream == nullptr) return -1;
    // A descriptor of its own, so that the stream's position and buffer stay untouched.
    const int fd = ::open(m_path.c_str(), O_RDONLY);
    if (fd < 0) return -1;
    struct stat info;
    const int64_t size = fstat(fd, &info) == 0 ? static_cast<int64_t>(info.st_size) : -1;
    ::close(fd);
    return size;
}

bool CFile::at_end() const { return m_stream == nullptr || feof(m_stream) != 0; }

bool CFile::has_error() const { return m_stream == nullptr || ferror(m_stream) != 0; }

bool CFile::get_line(char* buffer, int size) { return m_stream != nullptr && fgets(buffer, size, m_stream) != nullptr; }

bool CFile::put_text(const char* text) { return m_stream != nullptr && fputs(text, m_stream) != EOF; }

namespace {
bool stat_type_is(const std::string& path, bool (*matches)(mode_t)) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && matches(info.st_mode);
}
}  // namespace

bool is_regular_file(const std::string& path) {
    return stat_type_is(path, [](mode_t mode) { return S_ISREG(mode); });
}

bool is_device(const std::string& path) {
    return stat_type_is(path, [](mode_t mode) { return S_ISCHR(mode) || S_ISBLK(mode); });
}

bool is_readable(const std::string& path) { return access(path.c_str(), R_OK) == 0; }

bool remove_path(const std::string& path) { return ::remove(path.c_str()) == 0; }

bool rename_path(const std::string& from, const std::string& to) { return ::rename(from.c_str(), to.c_str()) == 0; }

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel
