// The command line of cm-bench.
#ifndef QUOREL_BENCH_BENCH_OPTIONS_H
#define QUOREL_BENCH_BENCH_OPTIONS_H

#include <cstdio>
#include <string>

namespace Quorel {
namespace Iot {
namespace Bench {

struct COptions {
    std::string out = "bench-results.json";
    std::string config_manager;
    std::string keychain_devd;
    bool quick = false;       // short measurements and no 100,000-key run: a smoke test of the harness
    bool keep = false;        // keep the work directory with the services' logs
    bool peer_dconf = false;  // measure dconf beside config-manager
};

// Fills options from the arguments over the defaults already in it; false on an unknown
// argument, a missing value, or a service path that is still empty.
bool parse_options(int argc, const char* const* argv, COptions& options);
void print_usage(FILE* out);

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel

#endif
