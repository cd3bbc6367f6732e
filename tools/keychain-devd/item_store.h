// CItemStore: keychain items kept one file per item in a data directory, for the development
// keychain service. Used from the service's single thread only.
//
// A file holds one byte of item type followed by the item bytes verbatim. Writes replace the file
// atomically and durably, so after a crash or power cut an item is either the old or the new one.
#ifndef KEYCHAIN_DEVD_ITEM_STORE_H
#define KEYCHAIN_DEVD_ITEM_STORE_H

#include <stdint.h>

#include <string>

class CItemStore {
public:
    enum class Load { Found, Absent, Failed };

    explicit CItemStore(std::string directory);

    // Creates the directory if needed and removes temporaries an interrupted write left behind.
    bool open();
    Load load(const std::string& name, std::string& bytes, int32_t& type) const;
    // type must fit the one-byte header (0 to 255).
    bool save(const std::string& name, const std::string& bytes, int32_t type);

    // The file name of an item: bytes outside [A-Za-z0-9._-] and a leading '.' become %XX, so no
    // name can leave the directory or collide with a temporary; ".item" is appended.
    static std::string file_name(const std::string& name);
    static bool is_temporary(const std::string& file_name);

private:
    bool item_path(const std::string& name, std::string& path) const;
    bool sync_directory() const;

    std::string m_directory;
};

#endif
