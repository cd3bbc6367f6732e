#include "quorel/platform/directory.h"

#include <unistd.h>

#include "quorel/platform/file.h"

namespace Quorel {
namespace Iot {
namespace Platform {

CDirectory::~CDirectory() { close(); }

bool CDirectory::open(const std::string& path) {
    if (!is_directory(path)) return false;
    close();
    m_dir = opendir(path.c_str());
    return m_dir != nullptr;
}

void CDirectory::close() {
    if (m_dir == nullptr) return;
    closedir(m_dir);
    m_dir = nullptr;
}

bool CDirectory::rewind() {
    if (m_dir == nullptr) return false;
    rewinddir(m_dir);
    return true;
}

bool CDirectory::next_name(std::string& name) {
    if (m_dir == nullptr) return false;
    const dirent* entry = readdir(m_dir);
    if (entry == nullptr) return false;
    name = entry->d_name;
    return true;
}

bool is_directory(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool make_directory(const std::string& path, mode_t mode) { return mkdir(path.c_str(), mode) == 0; }

bool remove_directory(const std::string& path) { return rmdir(path.c_str()) == 0; }

bool make_directory_path(const std::string& path, mode_t mode, MakeDirectoryFunction make) {
    // Walk back to the longest prefix that is there already. An empty prefix stands for the
    // start of the path (the root or the working directory), so the walk always ends.
    std::string prefix = path;
    while (!prefix.empty() && !is_readable(prefix)) {
        const size_t slash = prefix.rfind('/');
        prefix.erase(slash == std::string::npos ? 0 : slash);
    }
    std::string rest = path.substr(prefix.size());
    while (!rest.empty()) {
        const size_t slash = rest.find('/');
        const size_t piece = slash == std::string::npos ? rest.size() : slash + 1;
        prefix += rest.substr(0, piece);
        rest.erase(0, piece);
        if (!is_readable(prefix) && make(prefix.c_str(), mode) != 0) return false;
    }
    return true;
}

bool remove_tree(const std::string& path) {
    // lstat, not stat: a symbolic link to a directory is removed as a link, so the walk never
    // leaves the tree it was asked to remove.
    struct stat info;
    if (lstat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return remove_path(path);
    CDirectory dir;
    if (!dir.open(path)) return false;
    std::string name;
    while (dir.next_name(name)) {
        if (name == "." || name == "..") continue;
        const std::string child = path + "/" + name;
        remove_tree(child);
        // Fails, harmlessly, for a child that was a file or a directory already removed.
        remove_directory(child);
    }
    dir.close();
    return remove_directory(path);
}

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel
