// watch and own: cmctl as an observer or the owner of keys, until it is told to stop.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <deque>

#include "arguments.h"
#include "commands.h"
#include "document.h"
#include "failure.h"
#include "subscriber_session.h"
#include "text_format.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

namespace {

// What the owner answers when --ask gets no usable answer and no --reject CODE was given.
constexpr int32_t kDefaultRefusal = 1;

// One line on standard output, at once: a person or a script waits for it. A reader that went
// away ends the session.
void print_line(CSubscriberSession& session, const std::string& line) {
    if (fputs(line.c_str(), stdout) < 0 || fflush(stdout) != 0) {
        if (errno != EPIPE) print_error(std::string("standard output: ") + strerror(errno));
        session.request_stop(kExitFailure);
    }
}

std::string change_line(const CQuestion& question, const std::string& value) {
    return iso_time(question.arrived_ms()) + " " + escape_control(question.key()) + " " + escape_control(value);
}

class CWatcher : public CSubscriberSession::CListener {
public:
    void on_question(CSubscriberSession& session, const CQuestion& question) override {
        session.answer(question, 0);
        // After an owner's consent to set_config_with_ts, observers are sent the stored envelope.
        print_line(session, change_line(question, reading_of(question.key(), question.value()).value) + "\n");
    }
};

class COwner : public CSubscriberSession::CListener {
public:
    enum class Mode { Accept, Reject, Ask };
    COwner(Mode mode, int32_t refusal) : m_mode(mode), m_refusal(refusal) {}

    void on_question(CSubscriberSession& session, const CQuestion& question) override {
        if (m_mode != Mode::Ask) {
            decide(session, question, m_mode == Mode::Accept ? 0 : m_refusal);
            return;
        }
        m_waiting.push_back(question);
        if (m_waiting.size() == 1 && !session.closing()) prompt();
    }

    bool on_input(CSubscriberSession& session) override {
        char buffer[4096];
        const ssize_t n = read(STDIN_FILENO, buffer, sizeof(buffer));
        if (n < 0) return errno == EINTR || errno == EAGAIN;
        if (n == 0) return false;
        m_typed.append(buffer, static_cast<size_t>(n));
        size_t end = 0;
        while ((end = m_typed.find('\n')) != std::string::npos) {
            const std::string line = m_typed.substr(0, end);
            m_typed.erase(0, end + 1);
            // Lines typed while nothing is asked answer nothing.
            if (m_waiting.empty()) continue;
            decide(session, m_waiting.front(), code_for(line));
            m_waiting.pop_front();
            if (!m_waiting.empty()) prompt();
        }
        return true;
    }

    void on_closing(CSubscriberSession& session) override {
        for (const CQuestion& question : m_waiting) decide(session, question, m_refusal);
        m_waiting.clear();
    }

private:
    void decide(CSubscriberSession& session, const CQuestion& question, int32_t code) {
        session.answer(question, code);
        const std::string verdict = code == 0 ? "accepted" : "refused " + std::to_string(code);
        print_line(session, change_line(question, question.value()) + " " + verdict + "\n");
    }

    void prompt() const {
        const CQuestion& question = m_waiting.front();
        fprintf(stderr, "%s := %s ? [y/N/code] ", escape_control(question.key()).c_str(),
                escape_control(question.value()).c_str());
        fflush(stderr);
    }

    int32_t code_for(std::string line) const {
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) line.pop_back();
        while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.erase(0, 1);
        if (line == "y" || line == "Y" || line == "yes") return 0;
        int32_t code = 0;
        if (parse_int32(line, code) && code != 0) return code;
        return m_refusal;
    }

    Mode m_mode;
    int32_t m_refusal;
    std::deque<CQuestion> m_waiting;
    std::string m_typed;
};

// The keys and the name are checked before anything is sent.
int check_subscriber(const std::string& command, const std::vector<std::string>& keys, const std::string& name) {
    for (const std::string& key : keys) {
        const int status = check_bus_text(command, "a key", key);
        if (status != kExitOk) return status;
    }
    if (!is_bus_text(name) || !CSubscriberSession::is_callable_name(name)) {
        return usage_error(command,
                           "--name needs a well-known bus name of letters, digits and '_' "
                           "(its elements must not begin with a digit)");
    }
    return kExitOk;
}

int serve(CContext& context, const std::string& command, const std::vector<std::string>& keys, std::string name,
          int32_t type, CSubscriberSession::CListener& listener, int input_fd) {
    int status = check_subscriber(command, keys, name);
    if (status != kExitOk) return status;
    CStopSignals signals;
    std::string error;
    if (!signals.install(error)) {
        print_error("cannot handle signals: " + error);
        return kExitFailure;
    }
    status = context.connect();
    if (status != kExitOk) return status;
    CSubscriberSession session(context, name, type, listener);
    status = session.start(keys);
    if (status != kExitOk) return status;
    std::string listed;
    for (const std::string& key : keys) listed += (listed.empty() ? "" : ", ") + escape_control(key);
    fprintf(stderr, "cmctl: %s %s as %s; Ctrl-C stops\n", command == "watch" ? "watching" : "owning", listed.c_str(),
            name.c_str());
    const int run_status = session.run(signals, input_fd);
    const int finish_status = session.finish();
    return run_status != kExitOk ? run_status : finish_status;
}

std::string default_name(char role) { return "iot.tool.cmctl." + std::string(1, role) + std::to_string(getpid()); }

}  // namespace

int run_watch(CContext& context, const CInvocation& invocation) {
    const std::string name = invocation.has("name") ? invocation.value("name") : default_name('w');
    CWatcher watcher;
    return serve(context, "watch", invocation.args, name, kObserver, watcher, -1);
}

int run_own(CContext& context, const CInvocation& invocation) {
    const bool ask = invocation.has("ask");
    const bool reject = invocation.has("reject");
    if (invocation.has("accept") && (ask || reject)) {
        return usage_error("own", "--accept cannot be combined with --reject or --ask");
    }
    int32_t refusal = kDefaultRefusal;
    if (reject && (!parse_int32(invocation.value("reject"), refusal) || refusal == 0)) {
        return usage_error("own", "--reject needs a non-zero code");
    }
    const COwner::Mode mode = ask ? COwner::Mode::Ask : reject ? COwner::Mode::Reject : COwner::Mode::Accept;
    COwner owner(mode, refusal);
    const std::string name = invocation.has("name") ? invocation.value("name") : default_name('o');
    return serve(context, "own", invocation.args, name, kOwner, owner, ask ? STDIN_FILENO : -1);
}

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel
