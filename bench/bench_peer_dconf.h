// dconf, the configuration store of the Linux desktop, as a peer to measure config-manager
// against: its writer (dconf-service) on a session bus of its own, activated on the first write,
// and its client library in this process, every file of it under a directory of the run.
// A write waits until dconf-service has written its database; a read is served from the
// client's memory-mapped copy of that database, without a round trip.
// Built without libdconf, the class only says so through missing().
#ifndef QUOREL_BENCH_BENCH_PEER_DCONF_H
#define QUOREL_BENCH_BENCH_PEER_DCONF_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Quorel {
namespace Iot {
namespace Bench {

extern const char kDconfService[];

class CDconfPeer {
public:
    CDconfPeer();
    ~CDconfPeer();
    CDconfPeer(const CDconfPeer&) = delete;
    CDconfPeer& operator=(const CDconfPeer&) = delete;

    // What keeps the peer from running on this machine, in one line; empty when nothing does.
    static std::string missing();

    // Starts the session in dir (which must not exist yet) and opens a client. The process's
    // HOME, XDG_* directories and session bus address point into dir until stop().
    bool start(const std::string& dir, std::string& error);
    // Writes a string and returns once dconf-service has written its database.
    bool write(const std::string& key, const std::string& value, std::string& error);
    // Writes all the strings in one change (one database write).
    bool write_all(const std::vector<std::pair<std::string, std::string>>& values, std::string& error);
    // False when the key holds no string.
    bool read(const std::string& key, std::string& value);
    // The database file the writes go to.
    std::string database_path() const;
    void stop();

private:
    struct CState;
    std::unique_ptr<CState> m_state;
};

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel

#endif
