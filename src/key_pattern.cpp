#include "key_pattern.h"

#include <time.h>

#include <algorithm>
#include <bitset>
#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

namespace Quorel {
namespace Iot {
namespace Configmanager {

namespace {

using CByteSet = std::bitset<256>;

constexpr unsigned kUnbounded = ~0u;

// What glibc keeps per DFA state, in bytes: the state with its bookkeeping, a transition table of
// 256 pointers once a key passed through it, and a few arrays of node indices. glibc's node sets also
// hold the group and alternation nodes around the character positions, hence two nodes a position.
// Measured with mallinfo2 over keys built to visit many states, glibc held from 1.06 times to a
// seventeenth of this estimate; the cap on it keeps the real use far below 16 MiB.
constexpr size_t kStateBytes = 256 + 256 * sizeof(void*);
constexpr size_t kBytesPerPositionInState = 3 * 2 * sizeof(long);
// A state of a pattern with anchors exists once per context (plain, after a newline, in a word).
constexpr size_t kAnchorContexts = 3;
// The subset check must stay cheap next to what it guards; a pattern that needs more 64-bit word
// operations than this to explore is refused.
constexpr size_t kMaxCheckWork = 32 * 1024 * 1024;

// What a query may cost in regexec over one key of up to kCostedKeyBytes bytes, in tenths of a
// nanosecond of one core: 10,000 keys must take less than 50 ms, and the cap keeps a margin for a busy
// machine. Measured with glibc on x86-64:
//   - a step of a run (one byte through a cached transition) takes about 3 ns;
//   - a state that can end at "$" holds END_OF_RE under a constraint, and glibc's
//     check_halt_state_context scans all of its nodes on every byte read there: 1 to 2 ns a live
//     position, more inside groups (".\{0,32\}" nine times and "$" keeps 288 live: 155 ms);
//   - a pattern compiled as written runs again from every byte it may begin at, each run going on
//     while it neither matches nor dies ("\(^b\|a\).*q" over 64 "a": 2,080 steps a key, 61 ms).
constexpr size_t kCostedKeyBytes = 64;
constexpr size_t kMaxCostPerKey = 38000;
constexpr size_t kCostPerStep = 33;
constexpr size_t kCostPerNodeAtEnd = 16;

// The parse tree of an accepted pattern, as glibc reads it.
enum class ENodeKind { Empty, Atom, AnchorBegin, AnchorEnd, Concat, Alt, Group, Repeat };

struct CNode {
    ENodeKind kind = ENodeKind::Empty;
    CByteSet bytes;  // Atom
    std::vector<size_t> children;
    unsigned min = 0;  // Repeat
    unsigned max = 0;  // Repeat; kUnbounded for "*", "\+", "\{m,\}"
    bool nullable = true;
    bool has_repeat = false;
};

enum class ETokenKind {
    End,
    Char,
    Set,
    Open,
    Close,
    Alt,
    Star,
    Plus,
    Question,
    OpenInterval,
    CloseInterval,
    AnchorBegin,
    AnchorEnd,
    BackReference,
    WordAnchor,
    TrailingBackslash,
    Bad,  // a malformed bracket expression; m_refusal says why
};

struct CToken {
    ETokenKind kind = ETokenKind::End;
    unsigned char ch = 0;  // the character the token stands for where it is a literal
    CByteSet bytes;
};

CByteSet bytes_where(const std::function<bool(unsigned)>& in_set) {
    CByteSet set;
    for (unsigned c = 0; c < 256; ++c) set[c] = in_set(c);
    return set;
}

// The C locale's classes, written out so that a process locale cannot change what the check sees.
bool class_bytes(const std::string& name, CByteSet& out) {
    auto upper = [](unsigned c) { return c >= 'A' && c <= 'Z'; };
    auto lower = [](unsigned c) { return c >= 'a' && c <= 'z'; };
    auto digit = [](unsigned c) { return c >= '0' && c <= '9'; };
    auto space = [](unsigned c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
    auto print = [](unsigned c) { return c >= 0x20 && c <= 0x7e; };
    auto alnum = [&](unsigned c) { return upper(c) || lower(c) || digit(c); };
    if (name == "alpha") {
        out = bytes_where([&](unsigned c) { return upper(c) || lower(c); });
    } else if (name == "upper") {
        out = bytes_where(upper);
    } else if (name == "lower") {
        out = bytes_where(lower);
    } else if (name == "digit") {
        out = bytes_where(digit);
    } else if (name == "xdigit") {
        out = bytes_where([&](unsigned c) { return digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); });
    } else if (name == "space") {
        out = bytes_where(space);
    } else if (name == "print") {
        out = bytes_where(print);
    } else if (name == "graph") {
        out = bytes_where([&](unsigned c) { return print(c) && c != ' '; });
    } else if (name == "punct") {
        out = bytes_where([&](unsigned c) { return print(c) && c != ' ' && !alnum(c); });
    } else if (name == "cntrl") {
        out = bytes_where([](unsigned c) { return c < 0x20 || c == 0x7f; });
    } else if (name == "blank") {
        out = bytes_where([](unsigned c) { return c == ' ' || c == '\t'; });
    } else if (name == "alnum") {
        out = bytes_where(alnum);
    } else {
        return false;
    }
    return true;
}

// Reads a pattern the way glibc's regcomp reads a basic expression without flags (its tokenizer
// and its recursive descent), builds the tree, and refuses what lies outside the subset.
class CPatternParser {
public:
    explicit CPatternParser(const std::string& pattern) : m_pattern(pattern) {}

    // The root node, or false with refusal() set.
    bool parse(size_t& root) {
        fetch(true);
        // At the top a "\)" does not end a branch: parse_expression refuses it, so this ends at the end.
        return parse_alternation(0, root);
    }

    const std::string& refusal() const { return m_refusal; }
    const std::vector<CNode>& nodes() const { return m_nodes; }
    bool has_anchor() const { return m_has_anchor; }
    // The text of each alternative at the top, in the order of the root's children.
    const std::vector<std::string>& top_alternatives() const { return m_top_alternatives; }

private:
    bool refuse(const std::string& reason) {
        if (m_refusal.empty()) m_refusal = reason;
        return false;
    }

    size_t add(CNode node) {
        m_nodes.push_back(std::move(node));
        return m_nodes.size() - 1;
    }

    unsigned char at(size_t i) const { return static_cast<unsigned char>(m_pattern[i]); }
    bool has(size_t i) const { return i < m_pattern.size(); }

    // The next token. caret_here: "^" is an anchor here even though it is not the first byte (right
    // after "\(" and "\|"), as glibc's RE_CARET_ANCHORS_HERE.
    void fetch(bool caret_here = false) {
        m_token = CToken{};
        if (!has(m_pos)) return;
        const unsigned char c = at(m_pos);
        m_token.ch = c;
        if (c == '\\') {
            if (!has(m_pos + 1)) {
                m_token.kind = ETokenKind::TrailingBackslash;
                ++m_pos;
                return;
            }
            const unsigned char c2 = at(m_pos + 1);
            m_pos += 2;
            m_token.ch = c2;
            m_token.kind = ETokenKind::Char;
            switch (c2) {
                case '|':
                    m_token.kind = ETokenKind::Alt;
                    break;
                case '(':
                    m_token.kind = ETokenKind::Open;
                    break;
                case ')':
                    m_token.kind = ETokenKind::Close;
                    break;
                case '{':
                    m_token.kind = ETokenKind::OpenInterval;
                    break;
                case '}':
                    m_token.kind = ETokenKind::CloseInterval;
                    break;
                case '+':
                    m_token.kind = ETokenKind::Plus;
                    break;
                case '?':
                    m_token.kind = ETokenKind::Question;
                    break;
                case '<':
                case '>':
                case 'b':
                case 'B':
                case '`':
                case '\'':
                    m_token.kind = ETokenKind::WordAnchor;
                    break;
                case 'w':
                case 'W':
                    m_token.kind = ETokenKind::Set;
                    class_bytes("alnum", m_token.bytes);
                    m_token.bytes.set('_');
                    if (c2 == 'W') m_token.bytes.flip();
                    break;
                case 's':
                case 'S':
                    m_token.kind = ETokenKind::Set;
                    class_bytes("space", m_token.bytes);
                    if (c2 == 'S') m_token.bytes.flip();
                    break;
                default:
                    if (c2 >= '1' && c2 <= '9') m_token.kind = ETokenKind::BackReference;
                    break;
            }
            return;
        }
        ++m_pos;
        switch (c) {
            case '*':
                m_token.kind = ETokenKind::Star;
                break;
            case '.':
                m_token.kind = ETokenKind::Set;
                m_token.bytes.set();
                break;
            case '[':
                m_token.kind = parse_bracket(m_token.bytes) ? ETokenKind::Set : ETokenKind::Bad;
                break;
            case '^':
                m_token.kind = m_pos == 1 || caret_here ? ETokenKind::AnchorBegin : ETokenKind::Char;
                break;
            case '$': {
                const bool last = !has(m_pos);
                const bool before_close_or_alt =
                    has(m_pos + 1) && at(m_pos) == '\\' && (at(m_pos + 1) == ')' || at(m_pos + 1) == '|');
                m_token.kind = last || before_close_or_alt ? ETokenKind::AnchorEnd : ETokenKind::Char;
                break;
            }
            default:
                m_token.kind = ETokenKind::Char;
                break;
        }
    }

    // Tokens inside a bracket expression, as glibc's peek_token_bracket (backslash is a literal).
    enum class EBracketKind { End, Char, Range, Close, OpenCollating, OpenEquivalence, OpenClass };
    struct CBracketToken {
        EBracketKind kind;
        unsigned char ch;
        size_t length;
    };
    CBracketToken peek_bracket(size_t i) const {
        if (!has(i)) return {EBracketKind::End, 0, 0};
        const unsigned char c = at(i);
        if (c == '[' && has(i + 1)) {
            switch (at(i + 1)) {
                case '.':
                    return {EBracketKind::OpenCollating, '.', 2};
                case '=':
                    return {EBracketKind::OpenEquivalence, '=', 2};
                case ':':
                    return {EBracketKind::OpenClass, ':', 2};
                default:
                    break;
            }
        }
        if (c == '-') return {EBracketKind::Range, c, 1};
        if (c == ']') return {EBracketKind::Close, c, 1};
        return {EBracketKind::Char, c, 1};
    }

    struct CBracketElement {
        EBracketKind kind;  // Char, OpenCollating, OpenEquivalence or OpenClass
        unsigned char ch;
        std::string name;
    };

    // One element at m_pos (which the token starts at); advances past it.
    bool read_bracket_element(const CBracketToken& token, bool accept_hyphen, CBracketElement& element) {
        m_pos += token.length;
        element = {token.kind, token.ch, {}};
        if (token.kind == EBracketKind::OpenCollating || token.kind == EBracketKind::OpenEquivalence ||
            token.kind == EBracketKind::OpenClass) {
            // The name ends at the delimiter followed by "]"; glibc gives up past 32 bytes.
            for (;;) {
                if (!has(m_pos + 1) || element.name.size() >= 32) return refuse("unterminated bracket expression");
                if (at(m_pos) == token.ch && at(m_pos + 1) == ']') break;
                element.name += m_pattern[m_pos++];
            }
            m_pos += 2;
            return true;
        }
        if (token.kind == EBracketKind::Range && !accept_hyphen && peek_bracket(m_pos).kind != EBracketKind::Close)
            return refuse("misplaced - in bracket expression");
        element.kind = EBracketKind::Char;
        return true;
    }

    bool element_char(const CBracketElement& element, unsigned char& c) {
        if (element.kind == EBracketKind::Char) {
            c = element.ch;
            return true;
        }
        // The C locale knows no collating element longer than one character.
        if (element.name.size() != 1) {
            const char* open = element.kind == EBracketKind::OpenCollating ? "[." : "[=";
            const char* close = element.kind == EBracketKind::OpenCollating ? ".]" : "=]";
            return refuse(std::string("unknown collating element ") + open + element.name + close);
        }
        c = static_cast<unsigned char>(element.name[0]);
        return true;
    }

    // A bracket expression, m_pos just past its "[", as glibc's parse_bracket_exp.
    bool parse_bracket(CByteSet& out) {
        out.reset();
        bool negate = false;
        CBracketToken token = peek_bracket(m_pos);
        if (token.kind == EBracketKind::Char && token.ch == '^') {
            negate = true;
            m_pos += 1;
            token = peek_bracket(m_pos);
        }
        if (token.kind == EBracketKind::Close) token.kind = EBracketKind::Char;  // "]" first is a literal
        bool first = true;
        for (;;) {
            if (token.kind == EBracketKind::End) return refuse("unterminated bracket expression");
            CBracketElement start;
            if (!read_bracket_element(token, first, start)) return false;
            first = false;
            token = peek_bracket(m_pos);
            bool range = false;
            CBracketToken end_token{};
            if (start.kind != EBracketKind::OpenClass && start.kind != EBracketKind::OpenEquivalence) {
                if (token.kind == EBracketKind::End) return refuse("unterminated bracket expression");
                if (token.kind == EBracketKind::Range) {
                    end_token = peek_bracket(m_pos + 1);
                    if (end_token.kind == EBracketKind::End) return refuse("unterminated bracket expression");
                    if (end_token.kind == EBracketKind::Close) {
                        token.kind = EBracketKind::Char;  // "-" last is a literal
                    } else {
                        m_pos += 1;
                        range = true;
                    }
                }
            }
            if (range) {
                CBracketElement end;
                if (!read_bracket_element(end_token, true, end)) return false;
                token = peek_bracket(m_pos);
                if (end.kind == EBracketKind::OpenClass || end.kind == EBracketKind::OpenEquivalence)
                    return refuse("misplaced - in bracket expression");
                unsigned char low = 0;
                unsigned char high = 0;
                if (!element_char(start, low) || !element_char(end, high)) return false;
                if (low > high) return refuse(std::string("reversed range ") + char(low) + "-" + char(high));
                for (unsigned c = low; c <= high; ++c) out.set(c);
            } else if (start.kind == EBracketKind::OpenClass) {
                CByteSet class_set;
                if (!class_bytes(start.name, class_set))
                    return refuse("unknown character class [:" + start.name + ":]");
                out |= class_set;
            } else {
                unsigned char c = 0;
                if (!element_char(start, c)) return false;
                out.set(c);
            }
            if (token.kind == EBracketKind::End) return refuse("unterminated bracket expression");
            if (token.kind == EBracketKind::Close) break;
        }
        m_pos += 1;  // "]"
        if (negate) out.flip();
        return true;
    }

    bool at_branch_end(size_t depth) const {
        return m_token.kind == ETokenKind::Alt || m_token.kind == ETokenKind::End ||
               (depth > 0 && m_token.kind == ETokenKind::Close);
    }

    // Alternatives separated by "\|", up to the end of the pattern or of the group.
    bool parse_alternation(size_t depth, size_t& out) {
        CNode alt;
        alt.kind = ENodeKind::Alt;
        alt.nullable = false;
        size_t text_begin = 0;
        for (;;) {
            size_t branch = 0;
            if (!parse_branch(depth, branch)) return false;
            alt.children.push_back(branch);
            alt.nullable = alt.nullable || m_nodes[branch].nullable;
            alt.has_repeat = alt.has_repeat || m_nodes[branch].has_repeat;
            // The token that ended the branch has been read: m_pos is just past it.
            const size_t text_end = m_token.kind == ETokenKind::Alt ? m_pos - 2 : m_pos;
            if (depth == 0) m_top_alternatives.push_back(m_pattern.substr(text_begin, text_end - text_begin));
            text_begin = m_pos;
            if (m_token.kind != ETokenKind::Alt) break;
            fetch(true);
        }
        out = alt.children.size() == 1 ? alt.children[0] : add(std::move(alt));
        return true;
    }

    bool parse_branch(size_t depth, size_t& out) {
        CNode concat;
        concat.kind = ENodeKind::Concat;
        while (!at_branch_end(depth)) {
            size_t item = 0;
            if (!parse_expression(depth, item)) return false;
            concat.children.push_back(item);
            concat.nullable = concat.nullable && m_nodes[item].nullable;
            concat.has_repeat = concat.has_repeat || m_nodes[item].has_repeat;
        }
        out = add(std::move(concat));
        return true;
    }

    bool parse_expression(size_t depth, size_t& out) {
        CNode node;
        switch (m_token.kind) {
            case ETokenKind::Char:
            case ETokenKind::Star:  // "*", "\+", "\?" and "\}" with nothing before them are literals
            case ETokenKind::Plus:
            case ETokenKind::Question:
            case ETokenKind::CloseInterval:
                node.kind = ENodeKind::Atom;
                node.bytes.set(m_token.ch);
                node.nullable = false;
                break;
            case ETokenKind::Set:
                node.kind = ENodeKind::Atom;
                node.bytes = m_token.bytes;
                node.nullable = false;
                break;
            case ETokenKind::AnchorBegin:
            case ETokenKind::AnchorEnd:
                // An anchor takes no repeat: a "*" after it is a literal, read by the next expression.
                node.kind = m_token.kind == ETokenKind::AnchorBegin ? ENodeKind::AnchorBegin : ENodeKind::AnchorEnd;
                m_has_anchor = true;
                out = add(std::move(node));
                fetch();
                return true;
            case ETokenKind::Open: {
                if (++m_groups > CKeyPattern::kMaxGroups) return refuse("more than 9 groups");
                if (depth + 1 > CKeyPattern::kMaxGroupDepth) return refuse("groups nested deeper than 4");
                fetch(true);
                size_t body = 0;
                if (m_token.kind == ETokenKind::Close) {
                    body = add(CNode{});
                } else if (!parse_alternation(depth + 1, body)) {
                    return false;
                }
                if (m_token.kind != ETokenKind::Close) return refuse("unmatched \\(");
                node.kind = ENodeKind::Group;
                node.children.push_back(body);
                node.nullable = m_nodes[body].nullable;
                node.has_repeat = m_nodes[body].has_repeat;
                break;
            }
            case ETokenKind::Close:
                return refuse("unmatched \\)");
            case ETokenKind::OpenInterval:
                return refuse("interval with nothing to repeat");
            case ETokenKind::BackReference:
                return refuse(std::string("back-reference \\") + char(m_token.ch));
            case ETokenKind::WordAnchor:
                return refuse(std::string("word or buffer anchor \\") + char(m_token.ch));
            case ETokenKind::TrailingBackslash:
                return refuse("trailing backslash");
            case ETokenKind::Bad:
                return false;
            case ETokenKind::End:
            case ETokenKind::Alt:
                assert(!"parse_branch ends a branch on these");
                return refuse("does not compile");
        }
        fetch();
        bool repeated = false;
        while (m_token.kind == ETokenKind::Star || m_token.kind == ETokenKind::Plus ||
               m_token.kind == ETokenKind::Question || m_token.kind == ETokenKind::OpenInterval) {
            unsigned min = 0;
            unsigned max = kUnbounded;
            if (m_token.kind == ETokenKind::Plus) min = 1;
            if (m_token.kind == ETokenKind::Question) max = 1;
            if (m_token.kind == ETokenKind::OpenInterval && !parse_interval(min, max)) return false;
            // glibc nests one repeat in another; a loop of a loop is where its matcher runs away.
            if (repeated) return refuse("repeat of a repeat");
            if (node.kind == ENodeKind::Group && node.has_repeat) return refuse("repeat of a group that repeats");
            if (node.kind == ENodeKind::Group && node.nullable) return refuse("repeat of a group that can match empty");
            repeated = true;
            CNode repeat;
            repeat.kind = ENodeKind::Repeat;
            repeat.min = min;
            repeat.max = max;
            repeat.nullable = min == 0;
            repeat.has_repeat = true;
            repeat.children.push_back(add(std::move(node)));
            node = std::move(repeat);
            fetch();
        }
        out = add(std::move(node));
        return true;
    }

    // "\{m\}", "\{m,\}", "\{,n\}", "\{m,n\}" with m_pos just past "\{"; leaves m_pos on its "\}".
    bool parse_interval(unsigned& min, unsigned& max) {
        auto digits = [this](std::string& text) {
            while (has(m_pos) && at(m_pos) >= '0' && at(m_pos) <= '9') text += m_pattern[m_pos++];
        };
        std::string low;
        std::string high;
        digits(low);
        const bool comma = has(m_pos) && at(m_pos) == ',';
        if (comma) {
            ++m_pos;
            digits(high);
        }
        if ((low.empty() && !comma) || !has(m_pos + 1) || at(m_pos) != '\\' || at(m_pos + 1) != '}')
            return refuse("malformed interval");
        m_pos += 2;
        for (const std::string* bound : {&low, &high}) {
            if (bound->empty()) continue;
            // Compared as text first: a bound may not fit any integer.
            const size_t first_digit = std::min(bound->find_first_not_of('0'), bound->size());
            const std::string significant = bound->substr(first_digit);
            if (significant.size() > 2 ||
                (significant.empty() ? 0u : std::stoul(significant)) > Limits::kMaxRepeatBound)
                return refuse("bound " + *bound + " above " + std::to_string(Limits::kMaxRepeatBound));
        }
        min = low.empty() ? 0 : static_cast<unsigned>(std::stoul(low));
        max = !comma ? min : high.empty() ? kUnbounded : static_cast<unsigned>(std::stoul(high));
        if (max < min) return refuse("reversed interval " + low + "," + high);
        return true;
    }

    const std::string& m_pattern;
    size_t m_pos = 0;
    CToken m_token;
    std::vector<CNode> m_nodes;
    std::string m_refusal;
    size_t m_groups = 0;
    bool m_has_anchor = false;
    std::vector<std::string> m_top_alternatives;
};

// Glushkov's position automaton of the tree, with bounded repeats expanded the way glibc expands
// them ("x\{2,4\}" is "xx((x)?x)?"), and the subset construction over it. A DFA state of glibc's
// matcher is the set of positions a run has just matched (with the group and alternation nodes
// around them); glibc runs the DFA from every start position, so the states it can create are the
// subsets reachable from the start, whatever the keys. Counting them bounds its memory.
class CMatcherEstimate {
public:
    explicit CMatcherEstimate(const std::vector<CNode>& nodes) : m_nodes(nodes) {}

    static size_t positions(const std::vector<CNode>& nodes, size_t index) {
        const CNode& node = nodes[index];
        size_t sum = 0;
        switch (node.kind) {
            case ENodeKind::Atom:
                return 1;
            case ENodeKind::Repeat: {
                const size_t copies = node.max == kUnbounded ? node.min + 1 : node.max;
                return copies * positions(nodes, node.children[0]);
            }
            default:
                for (size_t child : node.children) sum += positions(nodes, child);
                return sum;
        }
    }

    // A "$" that ends the pattern, a group or an alternative, counted as the positions are.
    static size_t end_anchors(const std::vector<CNode>& nodes, size_t index) {
        const CNode& node = nodes[index];
        size_t sum = 0;
        switch (node.kind) {
            case ENodeKind::AnchorEnd:
                return 1;
            case ENodeKind::Repeat: {
                const size_t copies = node.max == kUnbounded ? node.min + 1 : node.max;
                return copies * end_anchors(nodes, node.children[0]);
            }
            default:
                for (size_t child : node.children) sum += end_anchors(nodes, child);
                return sum;
        }
    }

    // Builds the automaton for the tree at root with count positions, then explores it. False when
    // the exploration needs more work than kMaxCheckWork. end_live: the most positions live in a state
    // that a "$" could end a match in (0 when none can); longest_run: the most bytes a run from one
    // start can read, kUnbounded when a loop lets it read on to the end of any key.
    bool estimate(size_t root, size_t count, size_t contexts, size_t& bytes, size_t& end_live, size_t& longest_run,
                  bool& same_kills) {
        // Each "$" is a position no byte matches: a state whose successors hold one can end at "$".
        const size_t total = count + end_anchors(m_nodes, root);
        m_words = (total + 2 + 63) / 64;  // two more positions: the start at the key's first byte, and later
        m_follow.assign((total + 2) * m_words, 0);
        m_atom.assign(total, nullptr);
        m_weight.assign(total, 0);
        m_group_depth = 0;
        m_end.assign(m_words, 0);
        m_next = 0;
        const CInfo info = build(root);
        assert(m_next == total);
        const size_t start_first = total;
        const size_t start_later = total + 1;
        or_into(follow(start_first), info.first_at_start.data());
        or_into(follow(start_later), info.first.data());
        if (!explore(total, start_first, start_later, contexts, bytes, end_live)) return false;
        same_kills = false;
        longest_run = bytes > CKeyPattern::kMaxMatcherBytes ? kUnbounded : longest_run_of(info.last, same_kills);
        return true;
    }

private:
    using CBits = std::vector<uint64_t>;

    // first: positions a run can match first when it is past the key's first byte (where "^" never
    // holds); first_at_start: the same at the first byte. last: positions after which the rest of
    // the node can match empty. A "$" lets nothing follow it.
    struct CInfo {
        bool nullable;
        bool nullable_at_start;
        CBits first;
        CBits first_at_start;
        CBits last;
    };

    uint64_t* follow(size_t position) { return &m_follow[position * m_words]; }
    void or_into(uint64_t* to, const uint64_t* from) {
        for (size_t w = 0; w < m_words; ++w) to[w] |= from[w];
        m_work += m_words;
    }
    CInfo empty_info(bool nullable) const {
        return {nullable, nullable, CBits(m_words, 0), CBits(m_words, 0), CBits(m_words, 0)};
    }

    // Every position of a.last is followed by b.first; returns the info of a then b.
    CInfo concat(CInfo a, const CInfo& b) {
        for (size_t w = 0; w < m_words; ++w) {
            for (uint64_t bits = a.last[w]; bits != 0; bits &= bits - 1)
                or_into(follow(w * 64 + static_cast<size_t>(__builtin_ctzll(bits))), b.first.data());
        }
        CInfo out = empty_info(a.nullable && b.nullable);
        out.nullable_at_start = a.nullable_at_start && b.nullable_at_start;
        for (size_t w = 0; w < m_words; ++w) {
            out.first[w] = a.first[w] | (a.nullable ? b.first[w] : 0);
            out.first_at_start[w] = a.first_at_start[w] | (a.nullable_at_start ? b.first_at_start[w] : 0);
            out.last[w] = b.last[w] | (b.nullable ? a.last[w] : 0);
        }
        return out;
    }

    CInfo optional(CInfo a) {
        a.nullable = true;
        a.nullable_at_start = true;
        return a;
    }

    CInfo star(CInfo a) {
        for (size_t w = 0; w < m_words; ++w) {
            for (uint64_t bits = a.last[w]; bits != 0; bits &= bits - 1)
                or_into(follow(w * 64 + static_cast<size_t>(__builtin_ctzll(bits))), a.first.data());
        }
        return optional(std::move(a));
    }

    CInfo build(size_t index) {
        const CNode& node = m_nodes[index];
        switch (node.kind) {
            case ENodeKind::Empty:
                return empty_info(true);
            case ENodeKind::AnchorBegin: {
                CInfo info = empty_info(false);
                info.nullable_at_start = true;
                return info;
            }
            case ENodeKind::AnchorEnd: {
                static const CByteSet kNoByte;
                const size_t position = m_next++;
                m_atom[position] = &kNoByte;
                CInfo info = empty_info(false);
                info.first[position / 64] |= uint64_t{1} << (position % 64);
                m_end[position / 64] |= uint64_t{1} << (position % 64);
                info.first_at_start = info.first;
                // Nothing follows a "$": a run can never stand on it, so it has no successors.
                return info;
            }
            case ENodeKind::Atom: {
                const size_t position = m_next++;
                m_atom[position] = &node.bytes;
                m_weight[position] = 1 + m_group_depth;
                CInfo info = empty_info(false);
                info.first[position / 64] |= uint64_t{1} << (position % 64);
                info.first_at_start = info.first;
                info.last = info.first;
                return info;
            }
            case ENodeKind::Group: {
                ++m_group_depth;
                CInfo info = build(node.children[0]);
                --m_group_depth;
                return info;
            }
            case ENodeKind::Concat: {
                CInfo info = empty_info(true);
                for (size_t child : node.children) info = concat(std::move(info), build(child));
                return info;
            }
            case ENodeKind::Alt: {
                CInfo info = empty_info(false);
                info.nullable_at_start = false;
                for (size_t child : node.children) {
                    const CInfo branch = build(child);
                    info.nullable = info.nullable || branch.nullable;
                    info.nullable_at_start = info.nullable_at_start || branch.nullable_at_start;
                    for (size_t w = 0; w < m_words; ++w) {
                        info.first[w] |= branch.first[w];
                        info.first_at_start[w] |= branch.first_at_start[w];
                        info.last[w] |= branch.last[w];
                    }
                }
                return info;
            }
            case ENodeKind::Repeat: {
                const size_t child = node.children[0];
                CInfo info = empty_info(true);
                for (unsigned i = 0; i < node.min; ++i) info = concat(std::move(info), build(child));
                if (node.max == kUnbounded) return concat(std::move(info), star(build(child)));
                if (node.max == node.min) return info;
                CInfo tail = optional(build(child));
                for (unsigned i = node.min + 2; i <= node.max; ++i)
                    tail = optional(concat(std::move(tail), build(child)));
                return concat(std::move(info), tail);
            }
        }
        return empty_info(true);
    }

    struct CHash {
        size_t operator()(const CBits& bits) const {
            size_t hash = 1469598103934665603ull;
            for (uint64_t word : bits) hash = (hash ^ word) * 1099511628211ull;
            return hash;
        }
    };

    // The most bytes one run can read without matching, kUnbounded when a loop lets it read on to
    // the end of any key. With nmatch 0 regexec returns once a run stands on a position of
    // accepting (a "$" keeps it going), so a run that keeps costing never enters such a state. While a
    // run stays in the state it began in, glibc's check_matching moves the next start along with it
    // (its at_init_state), so those bytes are read once for all starts and a loop there is free.
    //
    // same_kills: every state a run can be in past its start ends the run on the same bytes. Then a
    // byte that ends one run ends all that are under way, and no two runs overlap past it.
    size_t longest_run_of(const CBits& accepting, bool& same_kills) {
        const size_t n = m_states.size();
        std::vector<bool> stops(n, false);
        for (size_t id = 0; id < n; ++id) {
            for (size_t w = 0; w < m_words; ++w) stops[id] = stops[id] || (m_states[id][w] & accepting[w]) != 0;
        }
        same_kills = true;
        const std::string* kills = nullptr;
        for (size_t id = 2; id < n; ++id) {
            if (stops[id] || m_reach_is_start[id]) continue;
            if (kills != nullptr && *kills != m_kills[id]) same_kills = false;
            kills = &m_kills[id];
        }
        enum EMark : unsigned char { New, Open, Done };
        std::vector<EMark> mark(n, New);
        std::vector<size_t> depth(n, 0);  // the most bytes read after this state, the killing one included
        // Iterative: a chain of 1,024 positions must not exhaust the stack.
        std::vector<std::pair<size_t, size_t>> stack;  // state, index of the next edge to follow
        for (size_t start : {size_t{0}, size_t{1}}) {
            if (start >= n || mark[start] != New) continue;
            mark[start] = Open;
            stack.push_back({start, 0});
            while (!stack.empty()) {
                const size_t id = stack.back().first;
                const std::vector<size_t>& edges = m_edges[id];
                if (stack.back().second < edges.size()) {
                    const size_t to = edges[stack.back().second++];
                    ++m_work;
                    if (stops[to] || (m_reach_is_start[id] && m_reach_is_start[to])) continue;
                    if (mark[to] == Open) return kUnbounded;
                    if (mark[to] == New) {
                        mark[to] = Open;
                        stack.push_back({to, 0});
                    }
                    continue;
                }
                depth[id] = 1;
                for (size_t to : edges) {
                    if (!stops[to] && !(m_reach_is_start[id] && m_reach_is_start[to]))
                        depth[id] = std::max(depth[id], depth[to] + 1);
                }
                mark[id] = Done;
                stack.pop_back();
            }
        }
        return std::max(depth[0], n > 1 ? depth[1] : 0);
    }

    bool explore(size_t count, size_t start_first, size_t start_later, size_t contexts, size_t& bytes,
                 size_t& end_live) {
        // Bytes that every position treats alike make one input class; a key is a word over them.
        std::vector<std::vector<size_t>> by_class;
        {
            std::unordered_map<std::string, size_t> class_of;
            std::vector<CBits> masks;
            for (unsigned c = 1; c < 256; ++c) {
                std::string signature(count, '0');
                CBits mask(m_words, 0);
                for (size_t p = 0; p < count; ++p) {
                    if ((*m_atom[p])[c]) {
                        signature[p] = '1';
                        mask[p / 64] |= uint64_t{1} << (p % 64);
                    }
                }
                m_work += count / 8;
                if (class_of.emplace(signature, masks.size()).second) masks.push_back(mask);
            }
            m_masks = std::move(masks);
        }
        std::unordered_map<CBits, size_t, CHash> seen;
        std::deque<CBits> queue;
        m_states.clear();
        m_edges.clear();
        auto visit = [&](const CBits& state) {
            const auto inserted = seen.emplace(state, m_states.size());
            if (inserted.second) {
                queue.push_back(state);
                m_states.push_back(state);
                m_edges.emplace_back();
            }
            return inserted.first->second;
        };
        CBits start(m_words, 0);
        start[start_first / 64] |= uint64_t{1} << (start_first % 64);
        visit(start);
        start.assign(m_words, 0);
        start[start_later / 64] |= uint64_t{1} << (start_later % 64);
        visit(start);
        bytes = 0;
        end_live = 0;
        CBits reach(m_words, 0);
        CBits next(m_words, 0);
        m_start_reach.clear();
        m_reach_is_start.clear();
        m_kills.clear();
        while (!queue.empty()) {
            const CBits state = std::move(queue.front());
            queue.pop_front();
            const size_t id = seen.at(state);
            std::fill(reach.begin(), reach.end(), 0);
            for (size_t w = 0; w < m_words; ++w) {
                for (uint64_t bits = state[w]; bits != 0; bits &= bits - 1)
                    or_into(reach.data(), follow(w * 64 + static_cast<size_t>(__builtin_ctzll(bits))));
            }
            size_t reach_count = 0;
            bool can_end_at_dollar = false;
            for (size_t w = 0; w < m_words; ++w) {
                reach_count += static_cast<size_t>(__builtin_popcountll(reach[w] & ~m_end[w]));
                can_end_at_dollar = can_end_at_dollar || (reach[w] & m_end[w]) != 0;
            }
            if (can_end_at_dollar) {
                size_t nodes = 0;
                for (size_t w = 0; w < m_words; ++w) {
                    for (uint64_t bits = reach[w] & ~m_end[w]; bits != 0; bits &= bits - 1)
                        nodes += m_weight[w * 64 + static_cast<size_t>(__builtin_ctzll(bits))];
                }
                end_live = std::max(end_live, nodes);
            }
            if (id == 1) m_start_reach = reach;  // the run from a later byte begins in this one
            m_reach_is_start.push_back(reach == m_start_reach);
            bytes += contexts * (kStateBytes + kBytesPerPositionInState * reach_count);
            if (bytes > CKeyPattern::kMaxMatcherBytes) return true;
            std::string& kills = m_kills.emplace_back(m_masks.size(), '0');
            for (size_t m = 0; m < m_masks.size(); ++m) {
                const CBits& mask = m_masks[m];
                bool any = false;
                for (size_t w = 0; w < m_words; ++w) {
                    next[w] = reach[w] & mask[w];
                    any = any || next[w] != 0;
                }
                m_work += m_words;
                if (!any) kills[m] = '1';
                if (any) {
                    const size_t to = visit(next);  // may grow m_edges
                    m_edges[id].push_back(to);
                }
            }
            if (m_work > kMaxCheckWork) return false;
        }
        return true;
    }

    const std::vector<CNode>& m_nodes;
    size_t m_words = 0;
    CBits m_follow;
    std::vector<const CByteSet*> m_atom;
    std::vector<CBits> m_masks;
    CBits m_end;  // the positions that stand for a "$"
    // glibc's states also hold the nodes that open and close the groups around a position.
    std::vector<size_t> m_weight;
    size_t m_group_depth = 0;
    // The explored states in the order of their ids (0 and 1: the starts), the ids each byte class
    // leads to, and whether a state offers what the start of a later run offers.
    std::vector<CBits> m_states;
    std::vector<std::vector<size_t>> m_edges;
    std::vector<bool> m_reach_is_start;
    std::vector<std::string> m_kills;  // per state, '1' for each byte class that ends a run there
    CBits m_start_reach;
    size_t m_next = 0;
    size_t m_work = 0;
};

bool begins_with_anchor(const std::vector<CNode>& nodes, size_t branch) {
    const CNode& concat = nodes[branch];
    return concat.kind == ENodeKind::Concat && !concat.children.empty() &&
           nodes[concat.children.front()].kind == ENodeKind::AnchorBegin;
}

// Whether a "^" of the tree at index can be met before the tree has matched a byte.
bool has_leading_caret(const std::vector<CNode>& nodes, size_t index) {
    const CNode& node = nodes[index];
    switch (node.kind) {
        case ENodeKind::AnchorBegin:
            return true;
        case ENodeKind::Concat:
            for (size_t child : node.children) {
                if (has_leading_caret(nodes, child)) return true;
                if (!nodes[child].nullable) return false;
            }
            return false;
        case ENodeKind::Alt:
        case ENodeKind::Group:
        case ENodeKind::Repeat:
            return std::any_of(node.children.begin(), node.children.end(),
                               [&nodes](size_t child) { return has_leading_caret(nodes, child); });
        default:
            return false;
    }
}

size_t add_node(std::vector<CNode>& nodes, CNode node) {
    nodes.push_back(std::move(node));
    return nodes.size() - 1;
}

// The tree of "A\|...\|^.*\(B\|...\)" for the alternatives anchored (A) and not (B), added to nodes.
size_t add_single_pass_tree(std::vector<CNode>& nodes, const std::vector<size_t>& anchored,
                            const std::vector<size_t>& floating) {
    CNode body;
    if (floating.size() == 1) {
        body = nodes[floating.front()];
    } else {
        body.kind = ENodeKind::Alt;
        body.children = floating;
    }
    // The group of the text only keeps the alternatives together; glibc holds its nodes at its two
    // ends, not around every position, so the cost estimate does not see it.
    CNode any;
    any.kind = ENodeKind::Atom;
    any.bytes.set();
    any.nullable = false;
    CNode star;
    star.kind = ENodeKind::Repeat;
    star.max = kUnbounded;
    star.children.push_back(add_node(nodes, std::move(any)));
    CNode anchor;
    anchor.kind = ENodeKind::AnchorBegin;
    CNode wrapped;
    wrapped.kind = ENodeKind::Concat;
    wrapped.children = {add_node(nodes, std::move(anchor)), add_node(nodes, std::move(star)),
                        add_node(nodes, std::move(body))};
    if (anchored.empty()) return add_node(nodes, std::move(wrapped));
    CNode top;
    top.kind = ENodeKind::Alt;
    top.children = anchored;
    top.children.push_back(add_node(nodes, std::move(wrapped)));
    return add_node(nodes, std::move(top));
}

// The text regcomp gets for an accepted pattern, so that regexec reads a key once instead of once
// from every byte a match may begin at.
//
// glibc's regexec tries the pattern from each such byte, every run going on while its matcher
// lives: up to 64 * 64 / 2 steps for a 64-byte key and "a.*b". Behind "^.*" one run reads each
// byte once; with nmatch 0 it stops at the first match. The group keeps each alternative as it reads
// alone: under the "^", and with a "*" or "^" that opens it keeping its meaning after "\(" (a
// literal, and an anchor). Alternatives that begin with "^" stay at the top as they are: they are
// tried at the first byte only.
//
// Kept as written:
//   - a pattern whose alternatives all begin with "^": it is already one run that ends early;
//   - a "^" that the pattern can meet before its first byte (after "\(", "\|", or anything that can
//     match empty): once ".*" has read a newline, glibc's matcher lets such a "^" hold there (its
//     transition on "\n" takes the after-newline context even without REG_NEWLINE), where a search
//     that starts after the newline would not;
//   - a multibyte locale, where "." does not match a byte that is no valid character;
//   - a single-pass matcher too large: one run holds the sets of positions of the runs from every
//     byte together ("a.\{20\}" becomes ".*a.\{20\}"), checked against kMaxMatcherBytes as the
//     pattern itself is.
//
// single_pass_end_live: for the single-pass form, the most positions live in one of its states that
// can end at "$"; left alone when the pattern is kept as written.
std::string single_pass_form(const std::string& pattern, const CPatternParser& parser, size_t root, size_t count,
                             size_t contexts, size_t& single_pass_end_live) {
    const std::vector<CNode>& nodes = parser.nodes();
    const std::vector<size_t> alternatives =
        nodes[root].kind == ENodeKind::Alt ? nodes[root].children : std::vector<size_t>{root};
    const std::vector<std::string>& texts = parser.top_alternatives();
    assert(texts.size() == alternatives.size());
    std::vector<size_t> anchored;
    std::vector<size_t> floating;
    std::string anchored_text;
    std::string floating_text;
    auto append = [](std::string& text, bool first, const std::string& alternative) {
        text += (first ? "" : "\\|") + alternative;
    };
    for (size_t i = 0; i < alternatives.size(); ++i) {
        if (begins_with_anchor(nodes, alternatives[i])) {
            append(anchored_text, anchored.empty(), texts[i]);
            anchored.push_back(alternatives[i]);
        } else {
            append(floating_text, floating.empty(), texts[i]);
            floating.push_back(alternatives[i]);
        }
    }
    if (floating.empty() || MB_CUR_MAX != 1) return pattern;
    for (size_t alternative : floating) {
        if (has_leading_caret(nodes, alternative)) return pattern;
    }
    std::vector<CNode> single_pass_nodes = nodes;
    const size_t single_pass_root = add_single_pass_tree(single_pass_nodes, anchored, floating);
    // The "^" in front constrains the first state only (glibc keeps four of it, a few KiB), so the
    // contexts are the pattern's own.
    size_t bytes = 0;
    size_t end_live = 0;
    size_t longest_run = 0;
    bool same_kills = false;
    if (!CMatcherEstimate(single_pass_nodes)
             .estimate(single_pass_root, count + 1, contexts, bytes, end_live, longest_run, same_kills) ||
        bytes > CKeyPattern::kMaxMatcherBytes)
        return pattern;
    single_pass_end_live = end_live;
    return anchored_text + (anchored.empty() ? "" : "\\|") + "^.*\\(" + floating_text + "\\)";
}

// An upper bound of regexec's work over one key of kCostedKeyBytes, in kMaxCostPerKey's units.
// starts_everywhere: glibc runs the compiled text again from every byte, each run reading at most
// longest_run bytes; otherwise one run reads the key. end_live: see CMatcherEstimate::estimate.
size_t cost_per_key(bool starts_everywhere, size_t longest_run, bool same_kills, size_t end_live) {
    size_t steps = std::min(kCostedKeyBytes, longest_run);
    if (starts_everywhere) {
        // The run from the byte k before the key's end reads at most min(k, longest_run) bytes.
        steps = 0;
        for (size_t k = 1; k <= kCostedKeyBytes; ++k) steps += std::min(k, longest_run);
        // When a byte that ends one run ends them all, the runs between two such bytes (at most
        // longest_run apart, or one would have matched) read (longest_run + 1) / 2 bytes a key byte on
        // average, and the last, matching run at most longest_run.
        if (same_kills && longest_run != kUnbounded)
            steps = std::min(steps, kCostedKeyBytes * (longest_run + 1) / 2 + longest_run);
    }
    return steps * (kCostPerStep + kCostPerNodeAtEnd * end_live);
}

bool all_alternatives_anchored(const std::vector<CNode>& nodes, size_t root) {
    if (nodes[root].kind != ENodeKind::Alt) return begins_with_anchor(nodes, root);
    return std::all_of(nodes[root].children.begin(), nodes[root].children.end(),
                       [&nodes](size_t branch) { return begins_with_anchor(nodes, branch); });
}

struct CCheck {
    std::string refusal;  // empty when the pattern lies in the subset
    std::string form;     // then the text for regcomp: the pattern, or its single-pass form
};

CCheck check(const std::string& pattern) {
    if (pattern.size() > Limits::kMaxPatternBytes)
        return {"pattern longer than " + std::to_string(Limits::kMaxPatternBytes) + " bytes", {}};
    // regcomp would see only the text before it.
    if (pattern.find('\0') != std::string::npos) return {"NUL byte in pattern", {}};
    CPatternParser parser(pattern);
    size_t root = 0;
    if (!parser.parse(root)) return {parser.refusal(), {}};
    const size_t count = CMatcherEstimate::positions(parser.nodes(), root);
    if (count > CKeyPattern::kMaxPositions)
        return {"more than " + std::to_string(CKeyPattern::kMaxPositions) + " positions once repeats are expanded", {}};
    const size_t contexts = parser.has_anchor() ? kAnchorContexts : 1;
    size_t bytes = 0;
    size_t end_live = 0;
    size_t longest_run = 0;
    bool same_kills = false;
    if (!CMatcherEstimate(parser.nodes()).estimate(root, count, contexts, bytes, end_live, longest_run, same_kills))
        return {"too complex to check", {}};
    if (bytes > CKeyPattern::kMaxMatcherBytes)
        return {"matcher could need more than " + std::to_string(CKeyPattern::kMaxMatcherBytes >> 20) + " MiB", {}};
    size_t single_pass_end_live = 0;
    const std::string form = single_pass_form(pattern, parser, root, count, contexts, single_pass_end_live);
    // glibc tries a pattern whose alternatives all begin with "^" at the first byte only.
    const size_t cost = form != pattern ? cost_per_key(false, kCostedKeyBytes, false, single_pass_end_live)
                                        : cost_per_key(!all_alternatives_anchored(parser.nodes(), root), longest_run,
                                                       same_kills, end_live);
    if (cost > kMaxCostPerKey) return {"matcher could be too slow", {}};
    return {{}, form};
}

int64_t monotonic_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

}  // namespace

CKeyPattern::CKeyPattern(const std::string& pattern, uint32_t budget_ms)
    : m_budget_ns(static_cast<int64_t>(budget_ms) * 1000000) {
    const CCheck checked = check(pattern);
    m_refusal = checked.refusal;
    if (!m_refusal.empty()) return;
    m_compiled = regcomp(&m_regex, checked.form.c_str(), 0) == 0;
    // Never seen; the pattern as written answers the same, only slower.
    if (!m_compiled && checked.form != pattern) m_compiled = regcomp(&m_regex, pattern.c_str(), 0) == 0;
    if (!m_compiled) m_refusal = "does not compile";
    // "." is how clients ask for every key: in a single-byte locale it matches exactly the keys
    // that have a first byte, which needs no regexec per key.
    m_any_byte = m_compiled && pattern == "." && MB_CUR_MAX == 1;
}

CKeyPattern::~CKeyPattern() {
    if (m_compiled) regfree(&m_regex);
}

bool CKeyPattern::matches(const std::string& key) {
    if (!m_compiled || m_over_budget) return false;
    if (m_any_byte) return !key.empty() && key[0] != '\0';
    const int64_t start = monotonic_ns();
    const bool found = regexec(&m_regex, key.c_str(), 0, nullptr, 0) == 0;
    m_spent_ns += monotonic_ns() - start;
    if (m_spent_ns > m_budget_ns) m_over_budget = true;
    return found;
}

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel
