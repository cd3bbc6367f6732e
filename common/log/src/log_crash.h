// Writes the logger's buffered lines out when the process dies of a fatal signal, then lets the
// signal take its course: the handler that was installed before (a sanitizer's, say) runs, or
// the default action ends the process with its core dump.
#ifndef QUOREL_LOG_LOG_CRASH_H
#define QUOREL_LOG_LOG_CRASH_H

namespace Quorel {
namespace Iot {
namespace Log {

// Installs the handlers once; later calls do nothing.
void install_crash_flush();

}  // namespace Log
}  // namespace Iot
}  // namespace Quorel

#endif
