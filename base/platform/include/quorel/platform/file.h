// CFile: a stdio stream that answers on a closed object with 0, -1 or false instead of touching a
// null stream; and the file-level path helpers. Not for sharing between threads.
#ifndef QUOREL_PLATFORM_FILE_H
#define QUOREL_PLATFORM_FILE_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace Quorel {
namespace Iot {
namespace Platform {

class CFile {
public:
    CFile() = default;
    ~CFile();
    CFile(const CFile&) = delete;
    CFile& operator=(const CFile&) = delete;

    // fopen() modes ("r", "w+", ...). Any stream already open is closed first.
    bool open(const std::string& path, const std::string& mode);
    bool is_open() const { return m_stream != nullptr; }
    void close();

    // Items transferred; 0 when closed.
    size_t write(const void* buffer, size_t item_size, size_t count);
    size_t read(void* buffer, size_t item_size, size_t count);
    // -1 when closed.
    int64_t tell();
    int seek(int64_t offset, int origin);
    void rewind();
    // The size of the file on disk (data still buffered in this stream is not counted);
    // -1 when closed or when the path cannot be opened again.
    int64_t size() const;
    // True when closed.
    bool at_end() const;
    bool has_error() const;
    // One line (fgets) into buffer, newline included; false when closed or at the end.
    bool get_line(char* buffer, int size);
    bool put_text(const char* text);

    const std::string& path() const { return m_path; }
    const std::string& mode() const { return m_mode; }

private:
    FILE* m_stream = nullptr;
    std::string m_path;
    std::string m_mode;
};

// stat() succeeds and the file type matches (character or block device for is_device).
bool is_regular_file(const std::string& path);
bool is_device(const std::string& path);
// access() grants read permission.
bool is_readable(const std::string& path);
// remove(): a file or an empty directory.
bool remove_path(const std::string& path);
bool rename_path(const std::string& from, const std::string& to);

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel

#endif
