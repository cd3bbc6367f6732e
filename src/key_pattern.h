// A key pattern of the pattern queries (get_config_batch, get_config_batch_with_ts,
// get_config_keylist): a POSIX basic regular expression, compiled by the C library's regcomp with no
// flags (case-sensitive, C locale) and found anywhere in a key by regexec. Patterns come from any bus
// client, and glibc's matcher can be made to overflow its stack, allocate gigabytes or run for
// minutes; so a pattern reaches regcomp only when it lies in the subset below, and matching stops once
// a time budget is spent.
//
// The subset (GNU basic syntax, as glibc reads it):
//   accepted
//     - literals, "." and escaped literals ("\.", "\*", "\[", "\\", "\^", "\$", "\}", and "\x" for any
//       x without a meaning of its own);
//     - bracket expressions: ranges, "[^...]", "]" first, "-" first or last, classes such as
//       "[[:alpha:]]", one-character "[.x.]" and "[=x=]"; "\w", "\W", "\s", "\S";
//     - "^" at the start of the pattern, of a group or of an alternative, "$" at the end of them;
//       elsewhere both are literals;
//     - "*", "\+", "\?", "\{m\}", "\{m,\}", "\{,n\}", "\{m,n\}" on an atom or a group, with m and n at
//       most Limits::kMaxRepeatBound (32); "*", "\+" and "\?" where nothing precedes them (pattern
//       start, after "\(", "\|" or an anchor) are literals, as in glibc;
//     - groups "\(...\)", at most kMaxGroups (9) and nested at most kMaxGroupDepth (4) deep;
//       alternation "\|", empty alternatives included.
//   refused (the pattern then matches no key, as one that does not compile)
//     - back-references "\1" to "\9";
//     - a repeat of a group that holds a repeat anywhere inside ("\(a*\)*", "\(\(a\)\{2\}\)\{2\}"),
//       and a repeat of a group that can match the empty string ("\(a\|\)*", "\(\)*");
//     - a repeat of a repeat ("a*\+", "a\?\?"), and an interval with nothing before it ("\{2\}a");
//     - bounds above 32 (in "\{m,\}" too), malformed or reversed intervals;
//     - word and buffer anchors "\<", "\>", "\b", "\B", "\`", "\'";
//     - patterns longer than Limits::kMaxPatternBytes (256) or holding a NUL byte;
//     - patterns that, once their bounded repeats are expanded, hold more than kMaxPositions
//       (1024) character positions, or whose matcher (glibc builds a DFA state for every set of
//       positions a key can reach, and keeps them all until regfree) could grow past
//       kMaxMatcherBytes: ".*a.\{16\}" can reach 2^17 states and takes 70 MB and a second over
//       10,000 keys, though every construct in it is ordinary;
//     - patterns whose matching could cost more than 50 ms of CPU over 10,000 keys of 64 bytes, by
//       an estimate with a margin ("matcher could be too slow"): a "$" behind many live positions,
//       whose nodes glibc scans again on every byte ("\(a\|b\)\{1,9\}$", ".\{0,32\}.\{0,3\}$",
//       where ".\{0,32\}.\{0,2\}$" stays), and a pattern compiled as written (below) whose runs,
//       started again from every byte, can each read more than about 21 bytes without matching
//       ("\(^b\|a\).*q", "\(^b\|a\).\{20\}q", where "\(^b\|a\).\{19\}q" stays); a pattern whose
//       every alternative begins with "^" is tried once, so only a "$" can make it slow;
//     - anything else glibc's regcomp refuses.
//   Every accepted pattern matches exactly the keys that regcomp(pattern, 0) and regexec find.
//
// glibc's regexec tries a pattern from every byte a match may begin at, each run going on while its
// matcher lives ("a.*b" over 64 "a": 2,000 steps). So an accepted pattern is compiled as
// "^.*\(pattern\)", with its alternatives that begin with "^" left in front of that as they are:
// one pass over each key, the same answers. It is compiled as written when all its alternatives
// begin with "^", when a "^" can hold before its first byte (glibc lets one hold after a newline
// that ".*" read), in a multibyte locale, or when the single-pass matcher could outgrow
// kMaxMatcherBytes; those keep glibc's cost, which the estimate above bounds for the form that is
// compiled. The form never changes what the pattern matches.
//
// One object per query, used by one thread. Keys are matched as C strings (up to their first NUL).
#ifndef QUOREL_CONFIGMANAGER_KEY_PATTERN_H
#define QUOREL_CONFIGMANAGER_KEY_PATTERN_H

#include <regex.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "quorel/configmanager/limits.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

class CKeyPattern {
public:
    static constexpr size_t kMaxGroups = 9;
    static constexpr size_t kMaxGroupDepth = 4;
    static constexpr size_t kMaxPositions = 1024;
    // The estimate of what glibc's matcher may hold for the pattern, and for its single-pass form
    // (its DFA states, their node sets and transition tables). The measured use stays below the
    // estimate; see key_pattern.cpp.
    static constexpr size_t kMaxMatcherBytes = 8 * 1024 * 1024;

    // Checks pattern against the subset and compiles it when it lies inside. budget_ms bounds the
    // time all matches() calls together may spend in regexec.
    explicit CKeyPattern(const std::string& pattern, uint32_t budget_ms = Limits::kQueryBudgetMs);
    ~CKeyPattern();
    CKeyPattern(const CKeyPattern&) = delete;
    CKeyPattern& operator=(const CKeyPattern&) = delete;

    // True when the pattern lies in the subset and compiled.
    bool accepted() const { return m_compiled; }
    // Empty when accepted; otherwise a short reason for a log line ("back-reference \1").
    const std::string& refusal() const { return m_refusal; }

    // Whether pattern is found in key. False for a refused pattern, and without calling regexec once
    // over_budget() is true. The call that spends the last of the budget still answers truly; the
    // caller holds on for at most the budget plus that one key.
    bool matches(const std::string& key);
    // True once the regexec time of all matches() calls has passed the budget.
    bool over_budget() const { return m_over_budget; }

private:
    regex_t m_regex;
    bool m_compiled = false;
    std::string m_refusal;
    int64_t m_budget_ns;
    int64_t m_spent_ns = 0;
    bool m_over_budget = false;
    bool m_any_byte = false;  // the pattern matches every key with a first byte
};

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel

#endif
