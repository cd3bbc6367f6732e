// One line on standard output, led by the local time to the millisecond, written at once: what the
// development programs print for a person watching them.
#ifndef QUOREL_TOOLS_TIMESTAMPED_LINE_H
#define QUOREL_TOOLS_TIMESTAMPED_LINE_H

#include <stdio.h>
#include <sys/time.h>
#include <time.h>

#include <mutex>
#include <string>

namespace Quorel {
namespace Iot {
namespace Tools {

// Thread-safe: lines of different threads never mix.
inline void print_line(const std::string& text) {
    static std::mutex mutex;
    timeval now;
    gettimeofday(&now, nullptr);
    tm local;
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%H:%M:%S", &local);
    std::lock_guard<std::mutex> lock(mutex);
    printf("%s.%03ld %s\n", stamp, static_cast<long>(now.tv_usec / 1000), text.c_str());
    fflush(stdout);
}

}  // namespace Tools
}  // namespace Iot
}  // namespace Quorel

#endif
