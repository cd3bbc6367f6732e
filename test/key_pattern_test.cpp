#include "key_pattern.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <regex.h>
#include <time.h>

#include <algorithm>
#include <clocale>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
// From the sanitizer runtime (sanitizer/allocator_interface.h, which not every toolchain installs).
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

using namespace Quorel::Iot::Configmanager;

namespace {

// The behaviour every accepted pattern must keep: the C library's own answer.
class CRawRegex {
public:
    explicit CRawRegex(const std::string& pattern) : m_compiled(regcomp(&m_regex, pattern.c_str(), 0) == 0) {}
    ~CRawRegex() {
        if (m_compiled) regfree(&m_regex);
    }
    CRawRegex(const CRawRegex&) = delete;
    CRawRegex& operator=(const CRawRegex&) = delete;

    bool compiled() const { return m_compiled; }
    bool matches(const std::string& key) const {
        return m_compiled && regexec(&m_regex, key.c_str(), 0, nullptr, 0) == 0;
    }

private:
    regex_t m_regex;
    bool m_compiled;
};

int64_t now_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

double elapsed_ms(int64_t since_ns) { return static_cast<double>(now_ns() - since_ns) / 1e6; }

// Heap bytes in use. Under ASan, malloc is the sanitizer's and mallinfo2 sees none of it.
size_t heap_in_use() {
#if defined(__SANITIZE_ADDRESS__)
    return __sanitizer_get_current_allocated_bytes();
#else
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
#endif
}

// The CPU time an accepted pattern is designed to stay under over 10,000 keys, and what the tests
// assert: twice that, so that a busy machine does not fail them at random, while the refusal of the
// slow families (which took 60 to 1,400 ms) is checked exactly by its reason. The measured figures
// are printed.
constexpr double kDesignMs = 50.0;
constexpr double kAssertedMs = 2 * kDesignMs;

#if defined(__SANITIZE_ADDRESS__)
// The sanitizer slows the subset check and every allocation of glibc's matcher.
constexpr double kSlowdown = 4.0;
#else
constexpr double kSlowdown = 1.0;
#endif

// Keys that tell the ordinary patterns apart: each pattern of the table matches some and misses some.
const std::vector<std::string>& sample_keys() {
    static const std::vector<std::string> keys = {"",
                                                  "a",
                                                  "b",
                                                  "e",
                                                  "ab",
                                                  "abc",
                                                  "aXc",
                                                  "aaa",
                                                  "aaaa",
                                                  "abab",
                                                  "abcd",
                                                  "bccc",
                                                  "cd",
                                                  "abcbcd",
                                                  "abcdbcbcd",
                                                  "xbbc",
                                                  "xbbbc",
                                                  "network.wifi.ssid",
                                                  "network.eth0.enabled",
                                                  "wifi.ssid",
                                                  "eth.mac",
                                                  "color",
                                                  "colour",
                                                  "x*y",
                                                  "xy",
                                                  "xxy",
                                                  "*a",
                                                  "a*b",
                                                  "a+b",
                                                  "a?b",
                                                  "a^b",
                                                  "a$b",
                                                  "$a",
                                                  "^x",
                                                  "}",
                                                  "(",
                                                  "a(b",
                                                  "[x]",
                                                  "x]",
                                                  "a-b",
                                                  "a.b",
                                                  "a\\b",
                                                  "A1",
                                                  "Z9z",
                                                  "with space",
                                                  "tab\tkey",
                                                  "semi;colon",
                                                  "under_score",
                                                  "mixed.Case.KEY",
                                                  "sensor.1.value",
                                                  "sensor.12.value",
                                                  "sensor.1234.value",
                                                  "s.value",
                                                  "-",
                                                  "123",
                                                  "caf\xc3\xa9",
                                                  "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa",
                                                  "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"};
    return keys;
}

// Patterns a client may send today, one per construct of the accepted subset and per GNU quirk.
const char* const kOrdinaryPatterns[] = {
    // literals, ".", anchors
    "net", "wifi\\.ssid", "^network\\.", "\\.enabled$", "^$", "^abc$", ".", "a.c", "^.\\{3\\}$", "a.*b.*c",
    "^s.*\\.value$",
    // bracket expressions
    "[0-9]", "[^a-z]", "[]x]", "[^]xa-z]", "[[:alpha:]][[:digit:]]", "[[:upper:]]", "[[:space:]]", "[[:punct:]]",
    "[[:alnum:]_]\\{5\\}", "[a-]", "[\\(]", "[*]", "[.]", "[[.-.]]", "[[=e=]]", "[--/]", "[[:xdigit:]]\\{3\\}",
    "[[:lower:]][[:upper:]]", "[[:blank:]]", "[[:cntrl:]]", "[[:graph:]][[:print:]]",
    // repeats on an atom
    "^a*$", "^a*b", "x*y", "ab*c", "a\\{3\\}", "a\\{2,\\}", "^a\\{1,3\\}$", "xb\\{,2\\}c", "a\\+b", "colou\\?r",
    "^a\\{32\\}$", "^a\\{0,32\\}$", "a\\{32,\\}", "sensor\\.[0-9]\\{1,3\\}\\.value",
    // groups and alternation
    "\\(ab\\)*c", "\\(ab\\|cd\\)", "^\\(wifi\\|eth\\)\\.", "\\(ab\\)\\+", "^\\(a\\|b\\)\\{2,4\\}$",
    "\\(\\(\\(\\(a\\)b\\)c\\)d\\)", "\\(a\\)\\(b\\)\\(c\\)\\(d\\)\\(b\\)\\(c\\)\\(b\\)\\(c\\)\\(d\\)", "x\\|^a$",
    "\\(^a\\|b$\\)", "\\(\\(ab\\)\\|c\\)\\{2\\}",
    // escaped literals
    "\\.", "\\*", "\\[", "\\\\", "\\^", "\\$", "\\}", "a\\-b",
    // GNU quirks: leading repeat operators and misplaced anchors are literals
    "*a", "\\(*a\\)", "^*", "a\\|*b", "a^b", "a$b", "$a", "\\+b", "\\(\\?b\\)", "x\\{0\\}y", "\\(\\)a",
    // GNU classes
    "\\w\\+\\.", "\\s", "\\S\\S\\S\\S\\S\\S\\S\\S\\S\\S\\S\\S\\S\\S\\S\\S\\S\\S\\S", "^\\W"};

std::string repeated(const std::string& unit, size_t times) {
    std::string out;
    for (size_t i = 0; i < times; ++i) out += unit;
    return out;
}

// Units repeated up to the longest accepted pattern.
std::string filled(const std::string& head, const std::string& unit, const std::string& tail = "") {
    std::string out = head;
    while (out.size() + unit.size() + tail.size() <= Limits::kMaxPatternBytes) out += unit;
    return out + tail;
}

}  // namespace

TEST(AKeyPattern, AcceptsEveryOrdinaryPatternAndMatchesAsTheCLibraryDoes) {
    for (const char* text : kOrdinaryPatterns) {
        const std::string pattern = text;
        CRawRegex raw(pattern);
        ASSERT_TRUE(raw.compiled()) << pattern;
        CKeyPattern key_pattern(pattern);
        EXPECT_TRUE(key_pattern.accepted()) << pattern << ": " << key_pattern.refusal();
        EXPECT_EQ(key_pattern.refusal(), "") << pattern;
        size_t matched = 0;
        for (const std::string& key : sample_keys()) {
            const bool expected = raw.matches(key);
            EXPECT_EQ(key_pattern.matches(key), expected) << pattern << " over \"" << key << "\"";
            matched += expected ? 1 : 0;
        }
        // A pattern that matches every key or none would compare nothing.
        EXPECT_GT(matched, 0u) << pattern;
        EXPECT_LT(matched, sample_keys().size()) << pattern;
        EXPECT_FALSE(key_pattern.over_budget()) << pattern;
    }
}

TEST(AKeyPattern, TreatsTheEmptyPatternAsMatchingEveryKey) {
    CKeyPattern key_pattern("");
    ASSERT_TRUE(key_pattern.accepted()) << key_pattern.refusal();
    for (const std::string& key : sample_keys()) EXPECT_TRUE(key_pattern.matches(key)) << key;
}

namespace {

// Checks that pattern is accepted and answers as the C library over keys, which must tell it apart.
void expect_the_c_library_answers(const std::string& pattern, const std::vector<std::string>& keys) {
    CRawRegex raw(pattern);
    ASSERT_TRUE(raw.compiled()) << pattern;
    CKeyPattern key_pattern(pattern);
    ASSERT_TRUE(key_pattern.accepted()) << pattern << ": " << key_pattern.refusal();
    size_t matched = 0;
    for (const std::string& key : keys) {
        const bool expected = raw.matches(key);
        EXPECT_EQ(key_pattern.matches(key), expected) << pattern << " over \"" << key << "\"";
        matched += expected ? 1 : 0;
    }
    EXPECT_GT(matched, 0u) << pattern;
    EXPECT_LT(matched, keys.size()) << pattern;
}

// LC_CTYPE switched for one scope, and back to what it was after.
class CCtypeLocale {
public:
    explicit CCtypeLocale(const char* name) : m_saved(std::setlocale(LC_CTYPE, nullptr)) {
        m_set = std::setlocale(LC_CTYPE, name) != nullptr;
    }
    ~CCtypeLocale() { std::setlocale(LC_CTYPE, m_saved.c_str()); }
    CCtypeLocale(const CCtypeLocale&) = delete;
    CCtypeLocale& operator=(const CCtypeLocale&) = delete;

    bool set() const { return m_set; }

private:
    std::string m_saved;
    bool m_set = false;
};

// Keys that put a pattern's first and last construct at the start, in the middle and at the end,
// and after or before a newline (which glibc's matcher reads as a line end once a run has passed it).
const std::vector<std::string>& edge_keys() {
    static const std::vector<std::string> keys = {
        "",     "a",   "b",   "x",    "ab",   "ba",   "bx",  "xa",  "xb",   "ac",   "bc",   "cab",
        "cxb",  "aab", "abc", "a$c",  "a^b",  "^a",   "$",   "*",   "*a",   "x*a",  "**a",  "+a",
        "?a",   "}a",  "a}",  "d",    "cd",   "dc",   "ca",  "bca", "ad",   "xab",  "zab",  "xax",
        "aaaa", "\n",  "\na", "\nab", "x\na", "b\na", "a\n", "\nc", "\n\n", "\nxa", "\n*a", "\nd"};
    return keys;
}

}  // namespace

TEST(AKeyPattern, AnswersAsTheCLibraryWhereAnAnchorOpensOrClosesAGroupOrAnAlternative) {
    // Inside a group or after "\|", "^" is still an anchor and holds only at the key's first byte,
    // and "$" before "\)" or "\|" only at its end; a misplaced one is a literal.
    for (const char* pattern : {"\\(^a\\)b",
                                "\\(x\\|^a\\)b",
                                "x\\|^a",
                                "x\\|^a$",
                                "\\(\\(^a\\)\\)",
                                "\\(\\(\\(^a\\|b\\)c\\)\\)",
                                "x*\\(^a\\)",
                                "\\(^\\|x\\)a",
                                "\\(a\\|^\\)b",
                                "\\(^a\\|b$\\)",
                                "\\(a$\\)",
                                "\\(b\\|a$\\)c",
                                "a\\(b$\\|c\\)",
                                "a\\|b$",
                                "\\(^$\\)",
                                "\\(^a$\\)\\|c",
                                "^a\\|b",
                                "^a\\|^b",
                                "^a\\|b$",
                                "\\(a\\)$",
                                "a$\\|^b",
                                "a^b\\|$c",
                                "\\(a\\|b\\)\\(^c\\|$\\)"})
        expect_the_c_library_answers(pattern, edge_keys());
}

TEST(AKeyPattern, AnswersAsTheCLibraryForAnAlternationAtTheTop) {
    for (const char* pattern : {"a\\|b", "ab\\|cd", "x\\|a.*c", "ca\\|^b\\|d$", "\\(a\\)\\|x", "a\\|b\\|c\\|d",
                                "a\\(b\\|c\\)\\|d", "[a-c]\\{2\\}\\|xa"})
        expect_the_c_library_answers(pattern, edge_keys());
}

TEST(AKeyPattern, ReadsARepeatOperatorThatOpensThePatternAGroupOrAnAlternativeAsALiteral) {
    for (const char* pattern :
         {"*a", "\\+a", "\\?a", "\\}a", "*", "^*a", "\\(*a\\)", "x\\|*a", "*\\{2\\}a", "\\(\\+a\\|\\?a\\)", "*a*"})
        expect_the_c_library_answers(pattern, edge_keys());
}

TEST(AKeyPattern, MatchesEveryKeyWithAPatternThatMatchesTheEmptyTextAnywhere) {
    std::vector<std::string> keys = edge_keys();
    keys.insert(keys.end(), sample_keys().begin(), sample_keys().end());
    for (const char* pattern : {"", "\\(\\)", "\\|", "\\|a", "a\\|", "\\(\\|\\)", "$", "^", "x*", "\\(a\\|\\)", "**"}) {
        CKeyPattern key_pattern(pattern);
        ASSERT_TRUE(key_pattern.accepted()) << pattern << ": " << key_pattern.refusal();
        for (const std::string& key : keys) {
            EXPECT_TRUE(CRawRegex(pattern).matches(key)) << pattern << " over \"" << key << "\"";
            EXPECT_TRUE(key_pattern.matches(key)) << pattern << " over \"" << key << "\"";
        }
    }
}

TEST(AKeyPattern, AnswersAsTheCLibraryWithNineGroupsNestedFourDeep) {
    const std::vector<std::string> keys = {"abcdefghi",  "xabcdefghi", "abcdefgh",  "xbcdefghi", "zxbcdefghi",
                                           "zabcdefghi", "a..bcdef",   "aabcdefab", "bcdef",     "ab"};
    for (const char* pattern : {"\\(a\\)\\(b\\)\\(c\\)\\(d\\)\\(e\\)\\(f\\)\\(g\\)\\(h\\)\\(i\\)",
                                "\\(\\(\\(\\(^a\\|x\\)b\\)c\\)d\\)\\(e\\)\\(f\\)\\(g\\)\\(h\\)\\(i\\)",
                                "\\(\\(\\(\\(a\\)\\)\\)\\).*\\(b\\)\\(c\\)\\(d\\)\\(e\\)\\(f\\)",
                                "\\(\\(\\(\\(a\\|b\\)\\)\\)\\)\\(b\\|x\\)\\(c\\)\\(d\\)\\(e\\)\\(f\\|$\\)g\\|^bc"})
        expect_the_c_library_answers(pattern, keys);
}

TEST(AKeyPattern, AnswersAsTheCLibraryWithAPatternWhoseMatcherFitsOnlyAsWritten) {
    // Searched in one pass, these would track every "a" of the last 20 to 32 bytes at once.
    std::vector<std::string> keys;
    for (size_t tail : {19, 20, 31, 32, 33}) {
        keys.push_back("a" + std::string(tail, 'b'));
        keys.push_back("xa" + std::string(tail, 'a'));
    }
    for (const char* pattern : {"a.\\{20\\}", "a.\\{32\\}", "a[ab]\\{32\\}", "^x\\|a.\\{20\\}"})
        expect_the_c_library_answers(pattern, keys);
}

TEST(AKeyPattern, AnswersAsTheCLibraryUnderAMultibyteLocale) {
    // There "." does not match a byte that is not valid UTF-8, so finding "z" in "\xffz" must not
    // depend on a "." in front of the pattern.
    CCtypeLocale utf8("C.UTF-8");
    if (!utf8.set()) GTEST_SKIP() << "no C.UTF-8 locale";
    const std::vector<std::string> keys = {"\xffz", "\xc3\xa9z", "b\xff", "z", "b"};
    for (const char* pattern : {"z", "z$", "z\\|x"}) {
        CRawRegex raw(pattern);
        CKeyPattern key_pattern(pattern);
        EXPECT_TRUE(key_pattern.accepted()) << pattern << ": " << key_pattern.refusal();
        for (const std::string& key : keys)
            EXPECT_EQ(key_pattern.matches(key), raw.matches(key)) << pattern << " over \"" << key << "\"";
    }
}

TEST(AKeyPattern, MatchesEveryKeyWithAFirstByteForADotAsTheCLibraryDoesInEitherLocale) {
    const std::vector<std::string> keys = {"", "a", "\n", "\xff", "\xc3\xa9", std::string("\0b", 2), "bench.key.1"};
    auto compare = [&keys](const char* where) {
        CRawRegex raw(".");
        CKeyPattern key_pattern(".");
        for (const std::string& key : keys) {
            EXPECT_EQ(key_pattern.matches(key), raw.matches(key)) << where << ": \"" << key << "\"";
        }
    };
    compare("C locale");
    CCtypeLocale utf8("C.UTF-8");
    if (!utf8.set()) GTEST_SKIP() << "no C.UTF-8 locale";
    compare("C.UTF-8");
}

TEST(AKeyPattern, RefusesEachKnownKillerQuicklyWithAReason) {
    const struct {
        const char* pattern;
        const char* reason;
    } killers[] = {{"\\(\\|\\)\\(\\1\\1\\)*", "back-reference \\1"},
                   {"\\(.*\\)\\{1,32767\\}", "bound 32767 above 32"},
                   {"\\(a*\\)*\\1\\1\\1b", "repeat of a group that repeats"},
                   {"a\\{1,32000\\}", "bound 32000 above 32"}};
    const std::string key(255, 'a');
    for (const auto& killer : killers) {
        const int64_t start = now_ns();
        CKeyPattern key_pattern(killer.pattern);
        EXPECT_FALSE(key_pattern.accepted()) << killer.pattern;
        EXPECT_EQ(key_pattern.refusal(), killer.reason) << killer.pattern;
        EXPECT_FALSE(key_pattern.matches(key)) << killer.pattern;
        EXPECT_FALSE(key_pattern.matches(key + "b")) << killer.pattern;
        // Reaching the C library with any of them costs seconds to minutes, or the process.
        EXPECT_LT(elapsed_ms(start), 50.0 * kSlowdown) << killer.pattern;
    }
}

TEST(AKeyPattern, AcceptsRepeatBoundsUpTo32AndRefuses33) {
    const std::string a32(32, 'a');
    const std::string a33(33, 'a');
    for (const char* accepted : {"^a\\{32\\}$", "a\\{0,32\\}", "a\\{32,\\}", "a\\{32,32\\}", "a\\{,32\\}",
                                 "\\(ab\\)\\{1,32\\}", "[ab]\\{32\\}"}) {
        CKeyPattern key_pattern(accepted);
        CRawRegex raw(accepted);
        EXPECT_TRUE(key_pattern.accepted()) << accepted << ": " << key_pattern.refusal();
        for (const std::string& key : {a32, a33, std::string(31, 'a'), repeated("ab", 33)})
            EXPECT_EQ(key_pattern.matches(key), raw.matches(key)) << accepted << " over " << key;
    }
    const struct {
        const char* pattern;
        const char* reason;
    } refused[] = {{"^a\\{33\\}$", "bound 33 above 32"},
                   {"a\\{0,33\\}", "bound 33 above 32"},
                   {"a\\{33,\\}", "bound 33 above 32"},
                   {"a\\{,33\\}", "bound 33 above 32"},
                   {"\\(ab\\)\\{1,33\\}", "bound 33 above 32"},
                   {"a\\{40,50\\}", "bound 40 above 32"},
                   {"a\\{99999999999\\}", "bound 99999999999 above 32"}};
    for (const auto& entry : refused) {
        CKeyPattern key_pattern(entry.pattern);
        EXPECT_FALSE(key_pattern.accepted()) << entry.pattern;
        EXPECT_EQ(key_pattern.refusal(), entry.reason) << entry.pattern;
        EXPECT_FALSE(key_pattern.matches(a33)) << entry.pattern;
    }
    // The C library itself would have matched: the refusal is what makes the answer empty.
    EXPECT_TRUE(CRawRegex("^a\\{33\\}$").matches(a33));
}

TEST(AKeyPattern, AcceptsA256BytePatternAndRefusesA257BytePattern) {
    const std::string longest = "^" + std::string(Limits::kMaxPatternBytes - 1, 'k');
    ASSERT_EQ(longest.size(), 256u);
    CKeyPattern accepted(longest);
    EXPECT_TRUE(accepted.accepted()) << accepted.refusal();
    EXPECT_TRUE(accepted.matches(std::string(255, 'k') + "x"));
    EXPECT_FALSE(accepted.matches(std::string(254, 'k')));

    CKeyPattern refused(longest + "k");
    EXPECT_FALSE(refused.accepted());
    EXPECT_EQ(refused.refusal(), "pattern longer than 256 bytes");
    EXPECT_FALSE(refused.matches(std::string(300, 'k')));
}

TEST(AKeyPattern, AcceptsNineGroupsNestedFourDeepAndRefusesOneMore) {
    EXPECT_TRUE(CKeyPattern(repeated("\\(a\\)", 9)).accepted());
    EXPECT_TRUE(CKeyPattern("\\(\\(\\(\\(a\\)\\)\\)\\)").accepted());

    CKeyPattern ten_groups(repeated("\\(a\\)", 10));
    EXPECT_FALSE(ten_groups.accepted());
    EXPECT_EQ(ten_groups.refusal(), "more than 9 groups");
    EXPECT_FALSE(ten_groups.matches(std::string(10, 'a')));

    CKeyPattern five_deep("\\(\\(\\(\\(\\(a\\)\\)\\)\\)\\)");
    EXPECT_FALSE(five_deep.accepted());
    EXPECT_EQ(five_deep.refusal(), "groups nested deeper than 4");
    EXPECT_FALSE(five_deep.matches("a"));
}

TEST(AKeyPattern, AcceptsTheLongestAmbiguousTailWhoseMatcherFitsAndRefusesOneMore) {
    // After ".*a", glibc tracks every "a" among the last n bytes: 2^(n+1) states of its DFA.
    const struct {
        const char* fits;
        const char* too_large;
        const char* hit;
        const char* miss;
    } pairs[] = {{".*a.\\{10\\}", ".*a.\\{11\\}", "xxa0123456789", "xxa012345678"},
                 {"[ab]*a[ab]\\{10\\}", "[ab]*a[ab]\\{11\\}", "xabbbbbbbbbb", "xabbbbbbbbb"},
                 {".\\{0,32\\}a.\\{5\\}", ".\\{0,32\\}a.\\{6\\}", "xxa01234", "xxa0123"}};
    for (const auto& pair : pairs) {
        CKeyPattern fits(pair.fits);
        EXPECT_TRUE(fits.accepted()) << pair.fits << ": " << fits.refusal();
        EXPECT_TRUE(fits.matches(pair.hit)) << pair.fits;
        EXPECT_FALSE(fits.matches(pair.miss)) << pair.fits;
        CKeyPattern too_large(pair.too_large);
        EXPECT_FALSE(too_large.accepted()) << pair.too_large;
        EXPECT_EQ(too_large.refusal(), "matcher could need more than 8 MiB") << pair.too_large;
        EXPECT_TRUE(CRawRegex(pair.too_large).matches(std::string(pair.hit) + "b")) << pair.too_large;
        EXPECT_FALSE(too_large.matches(std::string(pair.hit) + "b")) << pair.too_large;
    }
}

TEST(AKeyPattern, RefusesPatternsOutsideTheSubsetAndThenMatchesNothing) {
    const struct {
        std::string pattern;
        const char* reason;
        const char* key;  // a key the C library would find the pattern in, where it compiles
    } refused[] = {
        {"\\(a\\)\\1", "back-reference \\1", "aa"},
        {"\\(a\\)\\(b\\)\\2", "back-reference \\2", "abb"},
        {"\\(a*\\)*", "repeat of a group that repeats", "a"},
        {"\\(a\\|b*\\)\\+", "repeat of a group that repeats", "b"},
        {"\\(\\(a\\)\\{2\\}\\)\\{2\\}", "repeat of a group that repeats", "aaaa"},
        {"\\(x\\(a\\?\\)\\)\\{2\\}", "repeat of a group that repeats", "xaxa"},
        {"\\(a\\|\\)*", "repeat of a group that can match empty", "a"},
        {"\\(\\)*", "repeat of a group that can match empty", "a"},
        {"\\(^\\)\\{2\\}", "repeat of a group that can match empty", "a"},
        {"a*\\+", "repeat of a repeat", "a"},
        {"a\\?\\?", "repeat of a repeat", "a"},
        {"\\(ab\\)*\\?", "repeat of a repeat", "ab"},
        {"\\{2\\}a", "interval with nothing to repeat", ""},
        {"x\\|\\{2\\}", "interval with nothing to repeat", ""},
        {"a\\{3,2\\}", "reversed interval 3,2", ""},
        {"a\\{1", "malformed interval", ""},
        {"a\\{1,2}", "malformed interval", ""},
        {"a\\{x\\}", "malformed interval", ""},
        {"\\<net", "word or buffer anchor \\<", "net"},
        {"net\\b", "word or buffer anchor \\b", "net"},
        {"\\`a", "word or buffer anchor \\`", "a"},
        {"[[:foo:]]", "unknown character class [:foo:]", ""},
        {"[[.ab.]]", "unknown collating element [.ab.]", ""},
        {"[a", "unterminated bracket expression", ""},
        {"[[:alpha:]", "unterminated bracket expression", ""},
        {"[z-a]", "reversed range z-a", ""},
        {"[[:alpha:]-z]", "misplaced - in bracket expression", ""},
        {"[a-z-0]", "misplaced - in bracket expression", ""},
        {"\\(a", "unmatched \\(", ""},
        {"a\\)", "unmatched \\)", ""},
        {"a\\", "trailing backslash", ""},
        {std::string("a\0b", 3), "NUL byte in pattern", "a"},
        {".*a.\\{16\\}", "matcher could need more than 8 MiB", "a0123456789abcdef"},
        {".\\{0,32\\}a.\\{20\\}", "matcher could need more than 8 MiB", "a0123456789abcdefghij"},
        {"\\(abcdefghijklmnopqrstuvwxyz0123456789\\)\\{32\\}", "more than 1024 positions once repeats are expanded",
         ""},
    };
    for (const auto& entry : refused) {
        CKeyPattern key_pattern(entry.pattern);
        EXPECT_FALSE(key_pattern.accepted()) << entry.pattern;
        EXPECT_EQ(key_pattern.refusal(), entry.reason) << entry.pattern;
        CRawRegex raw(entry.pattern);
        if (*entry.key != '\0') {
            EXPECT_TRUE(raw.matches(entry.key)) << entry.pattern;
            EXPECT_FALSE(key_pattern.matches(entry.key)) << entry.pattern;
        }
        for (const std::string& key : sample_keys()) EXPECT_FALSE(key_pattern.matches(key)) << entry.pattern;
        EXPECT_FALSE(key_pattern.over_budget()) << entry.pattern;
    }
}

TEST(AKeyPattern, AcceptsOnlyWhatTheCLibraryCompiles) {
    // Every pattern the C library refuses is refused, and no accepted one fails to compile there.
    const char* const patterns[] = {"a**",          "a\\+*",    "[z-a]",    "\\)",      "[[.ab.]]",    "a\\{1,2}",
                                    "\\{1\\}a",     "^\\{1\\}", "[a",       "\\",       "\\(a",        "a\\{3,2\\}",
                                    "[[:foo:]]",    "a\\}",     "\\}",      "[]a]",     "[^]a]",       "[[.a.]]",
                                    "x\\{1\\,2\\}", "*a",       "\\(*a\\)", "a\\{,\\}", "[\xc0-\xff]", "caf\xc3\xa9"};
    for (const char* pattern : patterns) {
        CKeyPattern key_pattern(pattern);
        const bool compiles = CRawRegex(pattern).compiled();
        if (!compiles) {
            EXPECT_FALSE(key_pattern.accepted()) << pattern;
            EXPECT_NE(key_pattern.refusal(), "") << pattern;
        }
        if (key_pattern.accepted()) {
            EXPECT_TRUE(compiles) << pattern;
        }
    }
}

TEST(AKeyPatternBudget, StopsMatchingOnceTheBudgetIsSpent) {
    // Each of these keys costs one pass of the matcher over its 1024 bytes: a few microseconds, or
    // some 30 ms for all.
    const std::vector<std::string> keys(10000, std::string(Limits::kMaxKeyBytes, 'a'));
    CKeyPattern key_pattern("a.*b.*c.*d.*e", 1);
    ASSERT_TRUE(key_pattern.accepted()) << key_pattern.refusal();
    size_t matched_before_budget = 0;
    const int64_t start = now_ns();
    for (const std::string& key : keys) {
        EXPECT_FALSE(key_pattern.matches(key));
        if (!key_pattern.over_budget()) ++matched_before_budget;
    }
    const double total_ms = elapsed_ms(start);
    EXPECT_TRUE(key_pattern.over_budget());
    EXPECT_LT(matched_before_budget, keys.size() / 10);
    // 1 ms of regexec, one more key and 10,000 cheap refusals.
    EXPECT_LT(total_ms, 100.0) << matched_before_budget << " keys matched";
    // A key the pattern is in is no longer looked at.
    EXPECT_TRUE(CRawRegex("a.*b.*c.*d.*e").matches("abcde"));
    EXPECT_FALSE(key_pattern.matches("abcde"));
}

TEST(AKeyPatternBudget, IsNotSpentByAnOrdinaryQuery) {
    CKeyPattern key_pattern("^sensor\\.[0-9]\\{1,3\\}\\.value$");
    ASSERT_TRUE(key_pattern.accepted()) << key_pattern.refusal();
    size_t matched = 0;
    for (int i = 0; i < 10000; ++i) matched += key_pattern.matches("sensor." + std::to_string(i) + ".value") ? 1 : 0;
    EXPECT_EQ(matched, 1000u);
    EXPECT_FALSE(key_pattern.over_budget());
}

TEST(AKeyPatternBudget, OfZeroStopsAfterTheFirstKey) {
    CKeyPattern key_pattern("abc", 0);
    ASSERT_TRUE(key_pattern.accepted());
    EXPECT_TRUE(key_pattern.matches("xabcx"));
    EXPECT_TRUE(key_pattern.over_budget());
    EXPECT_FALSE(key_pattern.matches("xabcx"));
}

namespace {

// 10,000 keys of 1 to 64 bytes: dotted configuration paths, and random texts over a few letters
// (where ambiguous patterns keep many matcher states alive) and over all printable characters.
std::vector<std::string> query_keys() {
    static const char* const words[] = {"network", "wifi", "eth0",  "ssid",   "enabled", "sensor", "value",
                                        "mqtt",    "host", "port",  "config", "a",       "ab",     "abc",
                                        "cloud",   "id",   "level", "x1",     "bbb",     "time"};
    std::mt19937 random(20240611);
    std::vector<std::string> keys;
    keys.reserve(10000);
    while (keys.size() < 10000) {
        const size_t length = keys.size() % 4 == 0 ? 64 : 1 + random() % 64;
        std::string key;
        switch (keys.size() % 4) {
            case 0:
            case 1:
                while (key.size() < length) key += std::string(key.empty() ? "" : ".") + words[random() % 20];
                break;
            case 2:
                while (key.size() < length) key += "abab.c0"[random() % 7];
                break;
            default:
                while (key.size() < length) key += static_cast<char>(' ' + random() % 95);
        }
        key.resize(length);
        keys.push_back(key);
    }
    return keys;
}

// The most expensive patterns the subset accepts that we know of.
std::vector<std::string> worst_accepted_patterns() {
    return {
        // long alternations, at the top and in repeated groups
        filled("\\(", "network\\|", "x\\)"),
        filled("", "ab\\|", "b"),
        "\\(a\\|b\\|c\\|d\\|e\\|f\\|g\\|h\\|i\\|j\\|k\\|l\\|m\\|n\\|o\\|p\\|q\\|r\\|s\\|t\\|u\\|v\\|w\\|x\\|y\\|"
        "z\\)\\{32\\}",
        "\\(alpha\\|beta\\|gamma\\|delta\\)\\{32\\}",
        // bounded repeats in sequence
        "a\\{0,16\\}ba\\{0,16\\}b$",
        filled("", ".\\{1,8\\}", "q"),
        filled("", "[a-z]\\{0,3\\}\\.", ""),
        repeated("\\(a\\|b\\)\\{0,32\\}", 7) + "c",
        "\\(a\\|b\\|c\\|d\\|e\\|f\\)\\{1,32\\}x\\(a\\|b\\|c\\|d\\|e\\|f\\)\\{1,32\\}",
        "^[ab]\\{1,32\\}[ab]\\{0,4\\}$",
        // ".*" chains
        filled("", "a.*", "z"),
        filled("", ".*", "q"),
        filled("", "a.*b.*", "z"),
        filled("", ".*[a-z]\\{1,4\\}", ""),
        // nested groups, four deep
        "\\(\\(\\(\\(a\\|b\\)\\|\\(ab\\)\\)\\|\\(ba\\|c\\)\\)\\|\\(a\\|\\(b\\|c\\)\\)\\)\\{8\\}",
        "\\(\\(\\(\\(a\\|b\\)c\\|d\\)e\\|f\\)g\\|h\\)\\{32\\}",
        "\\(\\(\\(\\(a\\|b\\)c\\|d\\)e\\|f\\)g\\|h\\)*x",
        "\\(n\\(e\\(t\\(w\\|o\\)\\)\\)\\)\\{32\\}",
        // bracket expressions
        filled("", "[[:alpha:]][^[:digit:]]*", "!"),
        filled("", "[]a-c[:digit:]-]*", "#"),
        filled("", "[a-m]*[h-z]", ""),
        // the longest ambiguous tails whose matcher fits
        ".*a.\\{10\\}",
        "[ab]*a[ab]\\{10\\}",
        "\\(a\\|b\\)*a\\(a\\|b\\)\\{10\\}",
        ".\\{0,32\\}a.\\{5\\}",
        // ordinary patterns that glibc would try from every position of a key
        "a.*b",
        "..*q",
        "a\\{0,32\\}q",
        "x.*y\\|a.*q\\|^b",
        "\\(\\(\\(\\(a\\)\\)\\)\\).*\\(b\\)\\(c\\)\\(d\\)\\(e\\)\\(f\\)",
        // matchers that fit only as written
        "a.\\{20\\}",
        "a.\\{32\\}",
        "a[ab]\\{32\\}",
        // the most live positions behind a "$" that stay accepted
        ".\\{0,32\\}.\\{0,2\\}$",
        "a\\{0,32\\}$",
        "[[:alnum:]_]\\{1,32\\}$",
        "\\(a\\|b\\)\\{1,8\\}$",
        // the longest runs of a pattern compiled as written, tried from every byte
        "\\(^b\\|a\\).\\{19\\}q",
        "a\\{0,20\\}\\(^b\\)",
    };
}

// Sets of 10,000 keys of 64 bytes built against glibc's search, which restarts at every position a
// pattern may begin at and runs on while its matcher lives: one letter over and over, two letters
// in turn, and random texts over two and four characters.
std::vector<std::vector<std::string>> adversarial_key_sets() {
    std::mt19937 random(7);
    auto random_keys = [&random](const std::string& alphabet) {
        std::vector<std::string> keys;
        keys.reserve(10000);
        while (keys.size() < 10000) {
            std::string key;
            while (key.size() < 64) key += alphabet[random() % alphabet.size()];
            keys.push_back(key);
        }
        return keys;
    };
    return {std::vector<std::string>(10000, std::string(64, 'a')), std::vector<std::string>(10000, repeated("ab", 32)),
            random_keys("ab"), random_keys("abc.")};
}

// Keys up to the store's longest, where a run can reach the states that need hundreds of bytes.
std::vector<std::string> long_keys() {
    std::mt19937 random(11);
    std::vector<std::string> keys;
    while (keys.size() < 60) {
        const char* const alphabet = keys.size() % 2 == 0 ? "ab.c" : "a";
        std::string key;
        while (key.size() < Limits::kMaxKeyBytes) key += alphabet[random() % std::strlen(alphabet)];
        keys.push_back(key);
    }
    return keys;
}

// CPU time of this thread: what the query costs, whatever else the machine runs.
double cpu_ms() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
}

struct CQueryCost {
    double cpu_ms;
    size_t heap_bytes;
    size_t matched;
};

// One query: the pattern checked and compiled, then matched over every key (no budget, so that
// the whole cost shows). heap_bytes: what glibc's matcher still holds after the last key.
CQueryCost run_query(const std::string& pattern, const std::vector<std::string>& keys) {
    const size_t heap_before = heap_in_use();
    const double start = cpu_ms();
    CKeyPattern key_pattern(pattern, UINT32_MAX);
    size_t matched = 0;
    for (const std::string& key : keys) matched += key_pattern.matches(key) ? 1 : 0;
    const double spent = cpu_ms() - start;
    const size_t heap_after = heap_in_use();
    EXPECT_TRUE(key_pattern.accepted()) << pattern << ": " << key_pattern.refusal();
    return {spent, heap_after > heap_before ? heap_after - heap_before : 0, matched};
}

// The least CPU time of up to three runs: caches and other processes disturb single runs.
double best_cpu_ms(const std::string& pattern, const std::vector<std::string>& keys, double bound_ms) {
    double best = 1e9;
    for (int attempt = 0; attempt < 3 && best >= bound_ms; ++attempt)
        best = std::min(best, run_query(pattern, keys).cpu_ms);
    return best;
}

}  // namespace

TEST(TheWorstAcceptedPatterns, HoldLessThanSixteenMebibytesWhateverTheKeys) {
    std::vector<std::vector<std::string>> key_sets = adversarial_key_sets();
    key_sets.push_back(query_keys());
    key_sets.push_back(long_keys());
    size_t worst = 0;
    for (const std::string& pattern : worst_accepted_patterns()) {
        size_t most = 0;
        for (const std::vector<std::string>& keys : key_sets) {
            const CQueryCost cost = run_query(pattern, keys);
            EXPECT_LT(cost.heap_bytes, 16u << 20) << pattern;
            most = std::max(most, cost.heap_bytes);
            // The answers are the C library's, so the cost is that of the real work.
            CRawRegex raw(pattern);
            size_t raw_matched = 0;
            for (const std::string& key : keys) raw_matched += raw.matches(key) ? 1 : 0;
            EXPECT_EQ(cost.matched, raw_matched) << pattern;
        }
        worst = std::max(worst, most);
        std::printf("%8zu KiB  %s\n", most / 1024, pattern.c_str());
    }
    std::printf("most held: %zu KiB\n", worst / 1024);
}

TEST(TheWorstAcceptedPatterns, MatchTenThousandKeysWithinTheirDesignedCpuTime) {
    const std::vector<std::string> keys = query_keys();
    const double bound_ms = kAssertedMs * kSlowdown;
    double worst = 0;
    for (const std::string& pattern : worst_accepted_patterns()) {
        const double best = best_cpu_ms(pattern, keys, kDesignMs * kSlowdown);
        EXPECT_LT(best, bound_ms) << pattern;
        worst = std::max(worst, best);
        std::printf("%8.2f ms  %s\n", best, pattern.c_str());
    }
    std::printf("slowest: %.2f ms\n", worst);
}

TEST(TheWorstAcceptedPatterns, MatchTenThousandAdversarialKeysWithinTheirDesignedCpuTime) {
    const double bound_ms = kAssertedMs * kSlowdown;
    double worst = 0;
    for (const std::vector<std::string>& keys : adversarial_key_sets()) {
        std::printf("keys such as %s\n", keys.front().c_str());
        for (const std::string& pattern : worst_accepted_patterns()) {
            const double best = best_cpu_ms(pattern, keys, kDesignMs * kSlowdown);
            EXPECT_LT(best, bound_ms) << pattern << " over keys such as " << keys.front();
            worst = std::max(worst, best);
            std::printf("%8.2f ms  %s\n", best, pattern.c_str());
        }
    }
    std::printf("slowest: %.2f ms\n", worst);
}

namespace {

// Patterns the C library takes more than 50 ms of CPU over some set of 10,000 keys of 64 bytes for
// (up to about 190 ms), each with the nearest pattern of its family that stays accepted.
struct CSlowFamily {
    std::string refused;
    const char* key;  // a key the C library finds the refused pattern in
    std::string neighbour;
};

std::vector<CSlowFamily> slow_families() {
    return {
        // Each byte costs a scan of every node of a matcher state that may end at "$" (glibc's
        // check_halt_state_context), so a "$" behind many live positions is slow in one pass too.
        {filled("", "a\\{0,32\\}b", "$"), "bbbbbbbbbbbbbbbbbbbbbbbbbbbbbb", "a\\{0,16\\}ba\\{0,16\\}b$"},
        {"^[ab]\\{1,32\\}[ab]\\{1,32\\}[ab]\\{1,32\\}$", "aaa", "^[ab]\\{1,32\\}[ab]\\{0,4\\}$"},
        {"\\(a\\|b\\|c\\|d\\|e\\|f\\|g\\|h\\)\\{1,32\\}$", "xh", "\\(a\\|b\\)\\{1,8\\}$"},
        {repeated("\\(a\\|b\\)\\{1,32\\}", 4) + "$", "xabab", "\\(a\\|b\\)\\{1,8\\}$"},
        {"\\(a\\|b\\)\\{1,9\\}$", "xab", "\\(a\\|b\\)\\{1,8\\}$"},
        {repeated(".\\{0,32\\}", 9) + "$", "", ".\\{0,32\\}.\\{0,2\\}$"},
        {".\\{0,32\\}.\\{0,3\\}$", "", ".\\{0,32\\}.\\{0,2\\}$"},
        // Kept as written (a "^" that can hold before the pattern's first byte, or a single-pass
        // matcher too large): glibc runs the pattern again from every byte it may begin at, and each
        // run goes on to the end of a key of "a".
        {"\\(^b\\|a\\).*q", "xaq", "\\(^b\\|a\\).\\{19\\}q"},
        {"\\(^b\\|a\\).\\{20\\}q", "xa01234567890123456789q", "\\(^b\\|a\\).\\{19\\}q"},
        {"a.\\{10\\}.*q", "a0123456789q", "\\(^b\\|a\\)[ab]\\{19\\}q"},
        {"a\\{0,21\\}\\(^b\\)", "b", "a\\{0,20\\}\\(^b\\)"},
    };
}

}  // namespace

TEST(TheWorstAcceptedPatterns, IncludingTheKnownSlowOnesMatchTenThousandKeysWithinTheirDesignedCpuTime) {
    std::vector<std::vector<std::string>> key_sets = adversarial_key_sets();
    key_sets.push_back(query_keys());
    key_sets.push_back(std::vector<std::string>(10000, std::string(64, 'b')));
    const double bound_ms = kAssertedMs * kSlowdown;
    for (const CSlowFamily& family : slow_families()) {
        CKeyPattern refused(family.refused);
        EXPECT_FALSE(refused.accepted()) << family.refused;
        EXPECT_EQ(refused.refusal(), "matcher could be too slow") << family.refused;
        // The refusal is what keeps the C library's answer from the caller.
        EXPECT_TRUE(CRawRegex(family.refused).matches(family.key)) << family.refused;
        EXPECT_FALSE(refused.matches(family.key)) << family.refused;

        double slowest = 0;
        for (const std::vector<std::string>& keys : key_sets) {
            const double best = best_cpu_ms(family.neighbour, keys, kDesignMs * kSlowdown);
            EXPECT_LT(best, bound_ms) << family.neighbour << " over keys such as " << keys.front();
            slowest = std::max(slowest, best);
        }
        std::printf("%8.2f ms  %s, refused: %s\n", slowest, family.neighbour.c_str(), family.refused.c_str());
    }
}

TEST(AKeyPattern, AcceptsEverydayPatternsThatEndAtTheEndOfTheKey) {
    const std::vector<std::string> keys = {"gw_eth0_level",
                                           "gw_level",
                                           "gw_x_level_2",
                                           "k",
                                           "bk",
                                           "kb",
                                           "sensor.123",
                                           "12",
                                           "ab",
                                           "ac",
                                           "abc",
                                           "ad",
                                           "wifi.enabled",
                                           "enabled",
                                           "a.enabled.x",
                                           "sensor.12.value",
                                           "value.sensor",
                                           "eth.mac",
                                           "wifi.ssid",
                                           "x.y_z",
                                           "aaa",
                                           "net."};
    for (const char* pattern :
         {"^gw_.*_level$", "k$", "[0-9]\\{3\\}$", "^a\\(b\\|c\\)$", "\\.enabled$", "^sensor\\.[0-9]\\{1,3\\}\\.value$",
          "_level$", "^[a-z_]\\{1,32\\}$", "\\(wifi\\|eth\\)\\.[a-z]*$", "[[:alnum:]_]\\{1,32\\}$",
          "\\.\\(enabled\\|ssid\\)$", "[0-9]\\{1,5\\}$", "^[^.]*$", "^a\\{0,32\\}$"})
        expect_the_c_library_answers(pattern, keys);
}
