// A responder of the benchmark (echo or observer) run on a thread of the test instead of in a
// process of its own. The responder returns only when its bus goes away, so the destructor stops
// the bus before it joins: destroy it last, after every other user of the bus.
#ifndef QUOREL_BENCH_TEST_RESPONDER_THREAD_H
#define QUOREL_BENCH_TEST_RESPONDER_THREAD_H

#include <string>
#include <thread>
#include <vector>

#include "bench_responder.h"
#include "quorel/testsupport/private_bus.h"

namespace Quorel {
namespace Iot {
namespace Bench {

class CResponderThread {
public:
    CResponderThread(const std::string& mode, Testing::CPrivateBus& bus, const std::string& name)
        : m_bus(bus), m_args{mode, bus.address(), name, "value-000042"} {
        m_thread = std::thread([this] {
            std::vector<char*> argv;
            for (std::string& arg : m_args) argv.push_back(&arg[0]);
            run_responder(static_cast<int>(argv.size()), argv.data());
        });
    }
    ~CResponderThread() {
        m_bus.stop();
        if (m_thread.joinable()) m_thread.join();
    }
    CResponderThread(const CResponderThread&) = delete;
    CResponderThread& operator=(const CResponderThread&) = delete;

private:
    Testing::CPrivateBus& m_bus;
    std::vector<std::string> m_args;
    std::thread m_thread;
};

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel

#endif
