// The JSON value tree: a small recursive-descent parser and a compact writer.
#include <ostrevik/codecs.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

namespace ostrevik::codecs {

namespace {

constexpr int kMaxDepth = 200;
// Below this many members a linear scan beats building a hash index.
constexpr std::size_t kIndexThreshold = 16;

bool isHex(unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

unsigned hexValue(unsigned char c) {
    if (c <= '9') return c - '0';
    if (c >= 'a') return c - 'a' + 10;
    return c - 'A' + 10;
}

void appendUtf8(std::string& out, std::uint32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

// Open-addressing index from key to member position, for objects too large to scan. It
// stores hashes beside positions so that growing it never rehashes a key.
class KeyIndex {
public:
    using Members = std::vector<std::pair<std::string, Json>>;
    static constexpr std::size_t npos = static_cast<std::size_t>(-1);

    bool empty() const { return used_ == 0; }

    void build(const Members& members) {
        grow(members.size() * 2);
        for (std::size_t i = 0; i < members.size(); ++i) insertNew(hashOf(members[i].first), i);
    }

    // The position of `key` if present; otherwise records it at `position` and gives npos.
    std::size_t findOrAdd(const Members& members, std::string_view key, std::size_t position) {
        if ((used_ + 1) * 2 > slots_.size()) grow(slots_.size() * 2);
        const std::size_t h = hashOf(key);
        const std::size_t mask = slots_.size() - 1;
        for (std::size_t i = h & mask;; i = (i + 1) & mask) {
            Slot& slot = slots_[i];
            if (slot.position == npos) {
                slot = {h, position};
                ++used_;
                return npos;
            }
            if (slot.hash == h && members[slot.position].first == key) return slot.position;
        }
    }

private:
    struct Slot {
        std::size_t hash = 0;
        std::size_t position = npos;
    };

    static std::size_t hashOf(std::string_view key) { return std::hash<std::string_view>()(key); }

    void grow(std::size_t atLeast) {
        std::size_t size = 64;
        while (size < atLeast) size *= 2;
        if (size <= slots_.size()) return;
        std::vector<Slot> old = std::move(slots_);
        slots_.assign(size, Slot());
        used_ = 0;
        for (const Slot& slot : old)
            if (slot.position != npos) insertNew(slot.hash, slot.position);
    }

    void insertNew(std::size_t h, std::size_t position) {
        const std::size_t mask = slots_.size() - 1;
        std::size_t i = h & mask;
        while (slots_[i].position != npos) i = (i + 1) & mask;
        slots_[i] = {h, position};
        ++used_;
    }

    std::vector<Slot> slots_;
    std::size_t used_ = 0;
};

class Parser {
public:
    explicit Parser(std::string_view text) : text_(text) {}

    bool value(Json& out, int depth) {
        if (depth > kMaxDepth) return false;
        skipSpace();
        if (atEnd()) return false;
        const char c = text_[pos_];
        if (c == '{') return object(out, depth);
        if (c == '[') return array(out, depth);
        if (c == '"') {
            out.kind = Json::Kind::String;
            return string(out.text);
        }
        if (c == '-' || (c >= '0' && c <= '9')) return number(out);
        if (literal("true")) {
            out.kind = Json::Kind::Boolean;
            out.flag = true;
            return true;
        }
        if (literal("false")) {
            out.kind = Json::Kind::Boolean;
            out.flag = false;
            return true;
        }
        if (literal("null")) {
            out.kind = Json::Kind::Null;
            return true;
        }
        return false;
    }

    // Entered on the opening quote; leaves the position after the closing one.
    bool string(std::string& out) {
        ++pos_;
        const std::size_t n = text_.size();
        while (true) {
            // Copy the run of plain bytes up to the next quote or backslash in one go.
            std::size_t run = pos_;
            while (run < n && text_[run] != '"' && text_[run] != '\\') ++run;
            out.append(text_.data() + pos_, run - pos_);
            pos_ = run;
            if (pos_ >= n) return false;
            if (text_[pos_] == '"') {
                ++pos_;
                return true;
            }
            if (++pos_ >= n) return false;
            const char e = text_[pos_++];
            switch (e) {
                case '"': out += '"'; break;
                case '\\': out += '\\'; break;
                case '/': out += '/'; break;
                case 'b': out += '\b'; break;
                case 'f': out += '\f'; break;
                case 'n': out += '\n'; break;
                case 'r': out += '\r'; break;
                case 't': out += '\t'; break;
                case 'u': {
                    std::uint32_t c = 0;
                    if (!hex4(pos_, c)) return false;
                    pos_ += 4;
                    if (c >= 0xD800 && c <= 0xDBFF && pos_ + 6 <= n && text_[pos_] == '\\' &&
                        text_[pos_ + 1] == 'u') {
                        std::uint32_t low = 0;
                        if (hex4(pos_ + 2, low) && low >= 0xDC00 && low <= 0xDFFF) {
                            c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
                            pos_ += 6;
                        }
                    }
                    appendUtf8(out, c);
                    break;
                }
                default: return false;
            }
        }
    }

    bool finish() {
        skipSpace();
        return atEnd();
    }

private:
    bool atEnd() const { return pos_ >= text_.size(); }

    void skipSpace() {
        while (pos_ < text_.size()) {
            const char c = text_[pos_];
            if (c != ' ' && c != '\t' && c != '\n' && c != '\r') break;
            ++pos_;
        }
    }

    bool literal(std::string_view word) {
        if (text_.substr(pos_, word.size()) != word) return false;
        pos_ += word.size();
        return true;
    }

    bool hex4(std::size_t at, std::uint32_t& out) const {
        if (at + 4 > text_.size()) return false;
        std::uint32_t v = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            const auto c = static_cast<unsigned char>(text_[at + i]);
            if (!isHex(c)) return false;
            v = (v << 4) | hexValue(c);
        }
        out = v;
        return true;
    }

    std::size_t digits() {
        const std::size_t start = pos_;
        while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9') ++pos_;
        return pos_ - start;
    }

    bool number(Json& out) {
        const std::size_t start = pos_;
        if (text_[pos_] == '-') ++pos_;
        std::size_t count = digits();
        if (pos_ < text_.size() && text_[pos_] == '.') {
            ++pos_;
            count += digits();
        }
        if (count == 0) return false;
        if (pos_ < text_.size() && (text_[pos_] == 'e' || text_[pos_] == 'E')) {
            ++pos_;
            if (pos_ < text_.size() && (text_[pos_] == '+' || text_[pos_] == '-')) ++pos_;
            if (digits() == 0) return false;
        }
        // strtod wants a terminated string; most numbers fit on the stack.
        const std::size_t len = pos_ - start;
        char small[64];
        std::string large;
        char* buf = small;
        if (len >= sizeof small) {
            large.assign(text_.data() + start, len);
            buf = large.data();
        } else {
            std::memcpy(small, text_.data() + start, len);
            small[len] = '\0';
        }
        out.kind = Json::Kind::Number;
        out.number = std::strtod(buf, nullptr);
        return true;
    }

    bool object(Json& out, int depth) {
        out.kind = Json::Kind::Object;
        ++pos_;
        skipSpace();
        if (!atEnd() && text_[pos_] == '}') {
            ++pos_;
            return true;
        }
        // Built only once the object is large, so that small objects stay cheap and
        // large ones don't turn duplicate detection quadratic.
        KeyIndex index;
        while (true) {
            skipSpace();
            if (atEnd() || text_[pos_] != '"') return false;
            std::string key;
            if (!string(key)) return false;
            skipSpace();
            if (atEnd() || text_[pos_] != ':') return false;
            ++pos_;
            Json item;
            if (!value(item, depth + 1)) return false;

            auto& members = out.members;
            std::size_t found = members.size();
            if (index.empty() && members.size() < kIndexThreshold) {
                for (std::size_t i = 0; i < members.size(); ++i) {
                    if (members[i].first == key) {
                        found = i;
                        break;
                    }
                }
            } else {
                if (index.empty()) index.build(members);
                const std::size_t at = index.findOrAdd(members, key, members.size());
                if (at != KeyIndex::npos) found = at;
            }
            if (found < members.size()) {
                members[found].second = std::move(item);
            } else {
                members.emplace_back(std::move(key), std::move(item));
            }

            skipSpace();
            if (atEnd()) return false;
            const char c = text_[pos_++];
            if (c == '}') return true;
            if (c != ',') return false;
        }
    }

    bool array(Json& out, int depth) {
        out.kind = Json::Kind::Array;
        ++pos_;
        skipSpace();
        if (!atEnd() && text_[pos_] == ']') {
            ++pos_;
            return true;
        }
        while (true) {
            if (!value(out.items.emplace_back(), depth + 1)) return false;
            skipSpace();
            if (atEnd()) return false;
            const char c = text_[pos_++];
            if (c == ']') return true;
            if (c != ',') return false;
        }
    }

    std::string_view text_;
    std::size_t pos_ = 0;
};

// Bytes that cannot stand raw inside a JSON string.
constexpr bool needsEscape(unsigned char c) { return c < 0x20 || c == '"' || c == '\\'; }

void escapeTo(std::string& out, std::string_view s) {
    out += '"';
    std::size_t i = 0;
    const std::size_t n = s.size();
    while (i < n) {
        std::size_t run = i;
        while (run < n && !needsEscape(static_cast<unsigned char>(s[run]))) ++run;
        out.append(s.data() + i, run - i);
        if (run >= n) break;
        const auto c = static_cast<unsigned char>(s[run]);
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case 8: out += "\\b"; break;
            case 9: out += "\\t"; break;
            case 10: out += "\\n"; break;
            case 12: out += "\\f"; break;
            case 13: out += "\\r"; break;
            default: {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(c));
                out += buf;
            }
        }
        i = run + 1;
    }
    out += '"';
}

void numberTo(std::string& out, double v) {
    if (!std::isfinite(v)) {
        out += '0';
        return;
    }
    char buf[40];
    int len;
    if (std::fabs(v) < 1e15 && std::floor(v) == v) {
        len = std::snprintf(buf, sizeof buf, "%lld", static_cast<long long>(v));
    } else {
        len = std::snprintf(buf, sizeof buf, "%.17g", v);
    }
    out.append(buf, static_cast<std::size_t>(len));
}

void dumpTo(std::string& out, const Json& j) {
    switch (j.kind) {
        case Json::Kind::Null: out += "null"; break;
        case Json::Kind::Boolean: out += j.flag ? "true" : "false"; break;
        case Json::Kind::Number: numberTo(out, j.number); break;
        case Json::Kind::String: escapeTo(out, j.text); break;
        case Json::Kind::Array: {
            out += '[';
            bool first = true;
            for (const Json& item : j.items) {
                if (!first) out += ',';
                first = false;
                dumpTo(out, item);
            }
            out += ']';
            break;
        }
        case Json::Kind::Object: {
            out += '{';
            bool first = true;
            for (const auto& [key, item] : j.members) {
                if (!first) out += ',';
                first = false;
                escapeTo(out, key);
                out += ':';
                dumpTo(out, item);
            }
            out += '}';
            break;
        }
    }
}

// A rough upper bound for most outputs, so the writer rarely reallocates.
std::size_t sizeHint(const Json& j) {
    switch (j.kind) {
        case Json::Kind::String: return j.text.size() + 2;
        case Json::Kind::Array: {
            std::size_t n = 2;
            for (const Json& item : j.items) n += sizeHint(item) + 1;
            return n;
        }
        case Json::Kind::Object: {
            std::size_t n = 2;
            for (const auto& [key, item] : j.members) n += key.size() + 4 + sizeHint(item);
            return n;
        }
        default: return 8;
    }
}

}  // namespace

Json::Json() = default;
Json::Json(const Json&) = default;
Json::Json(Json&&) noexcept = default;
Json& Json::operator=(const Json&) = default;
Json& Json::operator=(Json&&) noexcept = default;
Json::~Json() = default;

std::optional<Json> Json::parse(std::string_view text) {
    Parser parser(text);
    Json out;
    if (!parser.value(out, 0) || !parser.finish()) return std::nullopt;
    return out;
}

std::string Json::dump() const {
    std::string out;
    out.reserve(sizeHint(*this));
    dumpTo(out, *this);
    return out;
}

void Json::set(const std::string& key, Json value) {
    for (auto& member : members) {
        if (member.first == key) {
            member.second = std::move(value);
            return;
        }
    }
    members.emplace_back(key, std::move(value));
}

}  // namespace ostrevik::codecs
