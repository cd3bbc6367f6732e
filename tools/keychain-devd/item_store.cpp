#include "item_store.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "quorel/log/log.h"

namespace {

constexpr const char kLogFile[] = "core-services/config-manager/tools/keychain-devd/item_store";
constexpr char kTemporaryPrefix[] = ".partial-";
constexpr char kItemSuffix[] = ".item";

bool write_all(int fd, const std::string& content) {
    size_t written = 0;
    while (written < content.size()) {
        const ssize_t n = write(fd, content.data() + written, content.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        written += static_cast<size_t>(n);
    }
    return true;
}

bool read_all(int fd, std::string& content) {
    char chunk[4096];
    for (;;) {
        const ssize_t n = read(fd, chunk, sizeof(chunk));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) return true;
        content.append(chunk, static_cast<size_t>(n));
    }
}

}  // namespace

CItemStore::CItemStore(std::string directory) : m_directory(std::move(directory)) {}

std::string CItemStore::file_name(const std::string& name) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (size_t i = 0; i < name.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(name[i]);
        const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
                           c == '-' || (c == '.' && i > 0);
        if (plain) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 0xF]);
        }
    }
    return out + kItemSuffix;
}

bool CItemStore::is_temporary(const std::string& file_name) { return file_name.rfind(kTemporaryPrefix, 0) == 0; }

bool CItemStore::item_path(const std::string& name, std::string& path) const {
    const std::string file = file_name(name);
    if (file.size() > NAME_MAX) {
        QLOG(3, "item_path, name too long for a file: %zu bytes", name.size());
        return false;
    }
    path = m_directory + "/" + file;
    return true;
}

bool CItemStore::open() {
    if (mkdir(m_directory.c_str(), 0700) != 0 && errno != EEXIST) {
        QLOG(3, "open, cannot create %s errno %d", m_directory.c_str(), errno);
        return false;
    }
    DIR* dir = opendir(m_directory.c_str());
    if (dir == nullptr) {
        QLOG(3, "open, cannot read %s errno %d", m_directory.c_str(), errno);
        return false;
    }
    // Only a write interrupted before its rename leaves a temporary; the item it meant to replace
    // is still intact beside it.
    while (const dirent* entry = readdir(dir)) {
        if (!is_temporary(entry->d_name)) continue;
        QLOG(1, "open, removing the unfinished write %s", entry->d_name);
        unlinkat(dirfd(dir), entry->d_name, 0);
    }
    closedir(dir);
    return true;
}

CItemStore::Load CItemStore::load(const std::string& name, std::string& bytes, int32_t& type) const {
    std::string path;
    if (!item_path(name, path)) return Load::Absent;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) return Load::Absent;
        QLOG(3, "load, cannot open %s errno %d", path.c_str(), errno);
        return Load::Failed;
    }
    std::string content;
    const bool read_ok = read_all(fd, content);
    close(fd);
    if (!read_ok || content.empty()) {
        QLOG(3, "load, cannot read %s", path.c_str());
        return Load::Failed;
    }
    type = static_cast<unsigned char>(content[0]);
    bytes = content.substr(1);
    return Load::Found;
}

bool CItemStore::save(const std::string& name, const std::string& bytes, int32_t type) {
    std::string path;
    if (type < 0 || type > 255 || !item_path(name, path)) return false;
    std::string temporary = m_directory + "/" + kTemporaryPrefix + "XXXXXX";
    const int fd = mkostemp(&temporary[0], O_CLOEXEC);
    if (fd < 0) {
        QLOG(3, "save, cannot create a temporary in %s errno %d", m_directory.c_str(), errno);
        return false;
    }
    std::string content(1, static_cast<char>(type));
    content += bytes;
    bool ok = write_all(fd, content) && fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    ok = ok && rename(temporary.c_str(), path.c_str()) == 0;
    if (!ok) {
        QLOG(3, "save, cannot write %s errno %d", path.c_str(), errno);
        unlink(temporary.c_str());
        return false;
    }
    // The rename is durable only once the directory entry is.
    return sync_directory();
}

bool CItemStore::sync_directory() const {
    const int fd = ::open(m_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        QLOG(3, "sync_directory, cannot open %s errno %d", m_directory.c_str(), errno);
        return false;
    }
    const bool ok = fsync(fd) == 0;
    if (!ok) QLOG(3, "sync_directory, fsync of %s failed errno %d", m_directory.c_str(), errno);
    close(fd);
    return ok;
}
