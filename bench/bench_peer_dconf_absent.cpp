// Compiled instead of bench_peer_dconf.cpp when libdconf was not found at build time.
#include "bench_peer_dconf.h"

namespace Quorel {
namespace Iot {
namespace Bench {

const char kDconfService[] = "/usr/libexec/dconf-service";

struct CDconfPeer::CState {};

CDconfPeer::CDconfPeer() : m_state(new CState) {}

CDconfPeer::~CDconfPeer() = default;

std::string CDconfPeer::missing() {
    return "cm-bench was built without libdconf (install libdconf-dev and build cm-bench again)";
}

bool CDconfPeer::start(const std::string&, std::string& error) {
    error = missing();
    return false;
}

bool CDconfPeer::write(const std::string&, const std::string&, std::string& error) {
    error = missing();
    return false;
}

bool CDconfPeer::write_all(const std::vector<std::pair<std::string, std::string>>&, std::string& error) {
    error = missing();
    return false;
}

bool CDconfPeer::read(const std::string&, std::string&) { return false; }

std::string CDconfPeer::database_path() const { return ""; }

void CDconfPeer::stop() {}

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel
