// Directory and path helpers: thin wrappers over the C library that report success as a bool,
// plus two recursive operations, making a directory path and removing a directory tree.
// No service of this process uses them; they serve the gateway's other programs.
#ifndef QUOREL_PLATFORM_DIRECTORY_H
#define QUOREL_PLATFORM_DIRECTORY_H

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <string>

namespace Quorel {
namespace Iot {
namespace Platform {

// One open directory stream; closed on destruction. Not for sharing between threads.
class CDirectory {
public:
    CDirectory() = default;
    ~CDirectory();
    CDirectory(const CDirectory&) = delete;
    CDirectory& operator=(const CDirectory&) = delete;

    // False unless the path is a directory; any stream already open is closed first.
    bool open(const std::string& path);
    bool is_open() const { return m_dir != nullptr; }
    void close();
    // False when closed.
    bool rewind();
    // The next entry's name, "." and ".." included; false when closed or at the end.
    bool next_name(std::string& name);

private:
    DIR* m_dir = nullptr;
};

// stat() succeeds and the path (followed through symlinks) is a directory.
bool is_directory(const std::string& path);
bool make_directory(const std::string& path, mode_t mode);
bool remove_directory(const std::string& path);

// The directory-creating call, replaceable so that tests can watch it.
using MakeDirectoryFunction = int (*)(const char* path, mode_t mode);

// Creates every missing level of the path, parent first, each with the mode (minus the umask);
// returns false at the first level that cannot be made. Levels already there are left alone.
bool make_directory_path(const std::string& path, mode_t mode, MakeDirectoryFunction make = ::mkdir);

// Removes a file, or a directory with everything below it. Symbolic links are removed, never
// followed. True when the path itself is gone.
bool remove_tree(const std::string& path);

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel

#endif
