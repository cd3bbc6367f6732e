// A process that logs and then ends in one of the ways log_test needs to see from outside:
//   log_probe lines N       N lines at level 1, then a normal exit
//   log_probe segv N        N lines, then a write to a page that may not be written
//   log_probe abort N       N lines, then abort()
//   log_probe levels V      log_init with verbosity V, then one line at each level 0 to 3
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include "quorel/log/log.h"

namespace {
constexpr const char kLogFile[] = "core-services/config-manager/common/log/test/log_probe";

void log_lines(int count) {
    for (int i = 0; i < count; ++i) QLOG(1, "line %d", i);
}
}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    const int number = atoi(argv[2]);
    if (strcmp(argv[1], "levels") == 0) {
        log_init("log_probe", LOG_OUTPUT_STDERR, 0, number);
        for (int level = 0; level <= 3; ++level) QLOG(level, "level %d", level);
        return 0;
    }
    log_init("log_probe", LOG_OUTPUT_STDERR, 0, 2);
    log_lines(number);
    if (strcmp(argv[1], "segv") == 0) {
        // A write to a page that may not be written: a real fault, which no sanitizer takes for
        // undefined behaviour and stops before it happens.
        void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        *static_cast<volatile int*>(page) = 1;
    } else if (strcmp(argv[1], "abort") == 0) {
        abort();
    }
    return strcmp(argv[1], "lines") == 0 ? 0 : 2;
}
