// The text format's reader: a scanner and a recursive descent parser over one text.
#include "TextNumbers.h"

#include <ostrevik/io.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <unordered_map>
#include <unordered_set>

namespace ostrevik {

namespace {

// ---------------------------------------------------------------------------------------------
// Scanner

enum class Tok : std::uint8_t {
    End = 0,
    Ident = 1,
    String = 2,
    Char = 3,
    Number = 4,
    PathLit = 5,
    LBrace = 6,
    RBrace = 7,
    LParen = 8,
    RParen = 9,
    LBracket = 10,
    RBracket = 11,
    Equals = 12,
    Comma = 13,
    Colon = 14,
    Dot = 15,
};

struct Token {
    Tok kind = Tok::End;
    bool bad = false;      // End standing for bytes that can't be scanned
    bool escaped = false;  // String or Char text still holds backslash escapes
    std::size_t start = 0;
    // Ident, Number, PathLit: the bytes. String, Char: the bytes between the quotes.
    std::string_view text;
};

enum ByteClass : std::uint8_t { Other, Space, NameStart, Digit, Sign, Punct };

struct ByteTable {
    ByteClass cls[256] = {};
    Tok punct[256] = {};
    constexpr ByteTable() {
        for (int c = 'a'; c <= 'z'; ++c) cls[c] = NameStart;
        for (int c = 'A'; c <= 'Z'; ++c) cls[c] = NameStart;
        cls[static_cast<unsigned char>('_')] = NameStart;
        for (int c = '0'; c <= '9'; ++c) cls[c] = Digit;
        cls[static_cast<unsigned char>('+')] = Sign;
        cls[static_cast<unsigned char>('-')] = Sign;
        for (char c : {' ', '\t', '\n', '\r'}) cls[static_cast<unsigned char>(c)] = Space;
        const char marks[] = "{}()[]=,:.";
        const Tok kinds[] = {Tok::LBrace,   Tok::RBrace,   Tok::LParen, Tok::RParen, Tok::LBracket,
                             Tok::RBracket, Tok::Equals, Tok::Comma,  Tok::Colon,  Tok::Dot};
        for (int i = 0; i < 10; ++i) {
            cls[static_cast<unsigned char>(marks[i])] = Punct;
            punct[static_cast<unsigned char>(marks[i])] = kinds[i];
        }
    }
};

constexpr ByteTable kBytes;

ByteClass classOf(char c) {
    return kBytes.cls[static_cast<unsigned char>(c)];
}

bool isNameByte(char c) {
    const ByteClass k = classOf(c);
    return k == NameStart || k == Digit;
}

char unescaped(char c) {
    return c == 'n' ? '\n' : c == 't' ? '\t' : c;
}

// The bytes a String token stands for.
std::string stringValue(const Token& t) {
    if (!t.escaped) return std::string(t.text);
    std::string out;
    out.reserve(t.text.size());
    for (std::size_t i = 0; i < t.text.size(); ++i) {
        if (t.text[i] == '\\' && i + 1 < t.text.size())
            out += unescaped(t.text[++i]);
        else
            out += t.text[i];
    }
    return out;
}

class Lexer {
public:
    struct State {
        std::size_t pos;
        bool failed;
    };

    explicit Lexer(std::string_view text) : text_(text) {}

    Token next() {
        Token t;
        if (cached_ && cacheFrom_ == pos_) {
            t = cache_;
            pos_ = cacheTo_;
        } else {
            t = scan();
        }
        if (t.bad) failed_ = true;
        return t;
    }

    // The next token without consuming it. The parser looks ahead at almost every step, so the
    // last look is kept and the following next() takes it instead of scanning again.
    Token peek() {
        if (!(cached_ && cacheFrom_ == pos_)) {
            const std::size_t from = pos_;
            cache_ = scan();
            cacheFrom_ = from;
            cacheTo_ = pos_;
            cached_ = true;
            pos_ = from;
        }
        return cache_;
    }

    bool expect(Tok kind, Token* out = nullptr) {
        Token t = next();
        if (out) *out = t;
        if (t.kind == kind) return true;
        failed_ = true;
        return false;
    }

    State save() const { return {pos_, failed_}; }
    void restore(State s) {
        pos_ = s.pos;
        failed_ = s.failed;
    }

    std::size_t pos() const { return pos_; }
    void setPos(std::size_t pos) { pos_ = pos; }
    std::string_view text() const { return text_; }
    std::size_t left() const { return text_.size() - pos_; }

    // True when an LF stands between the current position and `t`, a token looked at by peek.
    bool lineBreakBefore(const Token& t) const {
        return std::memchr(text_.data() + pos_, '\n', t.start - pos_) != nullptr;
    }

private:
    void skipSpace() {
        const char* p = text_.data() + pos_;
        const char* const end = text_.data() + text_.size();
        while (p < end) {
            const char c = *p;
            if (classOf(c) == Space) {
                ++p;
            } else if (c == '#') {
                const void* lf = std::memchr(p, '\n', static_cast<std::size_t>(end - p));
                p = lf ? static_cast<const char*>(lf) + 1 : end;
            } else {
                break;
            }
        }
        pos_ = static_cast<std::size_t>(p - text_.data());
    }

    Token fail(std::size_t start, std::size_t at) {
        pos_ = at;
        Token t;
        t.bad = true;
        t.start = start;
        return t;
    }

    Token scan() {
        skipSpace();
        const std::size_t n = text_.size();
        const std::size_t start = pos_;
        Token t;
        t.start = start;
        if (pos_ >= n) return t;
        const char c = text_[pos_];
        switch (classOf(c)) {
            case Punct:
                t.kind = kBytes.punct[static_cast<unsigned char>(c)];
                ++pos_;
                return t;
            case NameStart: {
                const char* const begin = text_.data() + start;
                const char* const end = text_.data() + n;
                const char* p = begin + 1;
                while (p < end && isNameByte(*p)) ++p;
                t.kind = Tok::Ident;
                t.text = std::string_view(begin, static_cast<std::size_t>(p - begin));
                pos_ = start + t.text.size();
                return t;
            }
            case Digit:
            case Sign: return scanNumber(start);
            default: break;
        }
        if (c == '"') {
            std::size_t i = pos_ + 1;
            for (;;) {
                const char* p = text_.data() + i;
                const char* const end = text_.data() + n;
                while (p < end && *p != '"' && *p != '\\') ++p;
                i = static_cast<std::size_t>(p - text_.data());
                if (i >= n) return fail(start, n);
                if (text_[i] == '"') break;
                if (i + 1 >= n) return fail(start, n);
                t.escaped = true;
                i += 2;
            }
            t.kind = Tok::String;
            t.text = text_.substr(start + 1, i - start - 1);
            pos_ = i + 1;
            return t;
        }
        if (c == '\'') {
            std::size_t i = pos_ + 1;
            if (i >= n) return fail(start, i);
            if (text_[i] == '\\') {
                if (i + 1 >= n) return fail(start, i + 1);
                t.escaped = true;
                i += 2;
            } else {
                i += 1;
            }
            if (i >= n || text_[i] != '\'') return fail(start, i);
            t.kind = Tok::Char;
            t.text = text_.substr(start + 1, i - start - 1);
            pos_ = i + 1;
            return t;
        }
        if (c == '<') {
            const void* gt = std::memchr(text_.data() + start + 1, '>', n - start - 1);
            if (!gt) return fail(start, n);
            const std::size_t end = static_cast<std::size_t>(static_cast<const char*>(gt) - text_.data());
            t.kind = Tok::PathLit;
            t.text = text_.substr(start + 1, end - start - 1);
            pos_ = end + 1;
            return t;
        }
        return fail(start, start);
    }

    // Sign, digits, an optional "." with digits, an optional exponent; a digit must stand
    // before the exponent. The scan stops at the first byte that doesn't fit.
    Token scanNumber(std::size_t start) {
        const std::size_t n = text_.size();
        std::size_t i = start;
        if (classOf(text_[i]) == Sign && ++i >= n) return fail(start, i);
        const std::size_t digitsFrom = i;
        while (i < n && classOf(text_[i]) == Digit) ++i;
        bool mantissa = i != digitsFrom;
        if (i < n && text_[i] == '.') {
            const std::size_t fractionFrom = ++i;
            while (i < n && classOf(text_[i]) == Digit) ++i;
            mantissa = mantissa || i != fractionFrom;
        }
        if (i < n && (text_[i] == 'e' || text_[i] == 'E')) {
            ++i;
            if (i < n && classOf(text_[i]) == Sign) ++i;
            if (i >= n || classOf(text_[i]) != Digit) return fail(start, i);
            while (i < n && classOf(text_[i]) == Digit) ++i;
        }
        if (!mantissa) return fail(start, i);
        Token t;
        t.kind = Tok::Number;
        t.start = start;
        t.text = std::string_view(text_.data() + start, i - start);
        pos_ = i;
        return t;
    }

    std::string_view text_;
    std::size_t pos_ = 0;
    bool failed_ = false;

    bool cached_ = false;
    std::size_t cacheFrom_ = 0;
    std::size_t cacheTo_ = 0;
    Token cache_;
};

// ---------------------------------------------------------------------------------------------
// Number conversion, with the semantics of strtod, strtoll and strtoull on a Number token.

// Powers of ten that a double holds exactly.
constexpr double kExactPowers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                   1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

// The common short forms: when the digits make an integer below 2^53 and the decimal exponent is
// within 22, one correctly rounded multiplication or division of two exact doubles gives the
// nearest double, as the general conversion would. False leaves the rest to it.
bool shortDecimal(std::string_view s, double& out) {
    std::size_t i = 0;
    const bool negative = s[0] == '-';
    if (s[0] == '-' || s[0] == '+') ++i;
    std::uint64_t mantissa = 0;
    int digits = 0;
    int exponent = 0;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i, ++digits) mantissa = mantissa * 10 + static_cast<unsigned>(s[i] - '0');
    if (i < s.size() && s[i] == '.') {
        for (++i; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i, ++digits, --exponent)
            mantissa = mantissa * 10 + static_cast<unsigned>(s[i] - '0');
    }
    if (digits > 19) return false;  // the mantissa may have wrapped
    if (i < s.size()) {  // an exponent: the scanner has checked its form
        ++i;
        const bool down = s[i] == '-';
        if (s[i] == '-' || s[i] == '+') ++i;
        int e = 0;
        for (; i < s.size(); ++i) {
            e = e * 10 + (s[i] - '0');
            if (e > 1000) return false;
        }
        exponent += down ? -e : e;
    }
    if (mantissa > (std::uint64_t{1} << 53) || exponent < -22 || exponent > 22) return false;
    double v = static_cast<double>(mantissa);
    v = exponent < 0 ? v / kExactPowers[-exponent] : v * kExactPowers[exponent];
    out = negative ? -v : v;
    return true;
}

double toDouble(std::string_view s) {
    double v = 0;
    if (shortDecimal(s, v)) return v;
    if (!s.empty() && s[0] == '+') s.remove_prefix(1);
    const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
    if (r.ec != std::errc() || r.ptr != s.data() + s.size()) {
        // Out of range or a form the fast path refuses: the C library decides.
        const std::string copy(s);
        v = std::strtod(copy.c_str(), nullptr);
    }
    return std::isfinite(v) ? v : 0.0;
}

// The magnitude of the leading digits, saturating; `overflow` tells that it did.
std::uint64_t leadingDigits(std::string_view s, bool& negative, bool& overflow) {
    std::size_t i = 0;
    negative = false;
    overflow = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
    std::uint64_t v = 0;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
        const unsigned d = static_cast<unsigned>(s[i] - '0');
        if (v > (std::numeric_limits<std::uint64_t>::max() - d) / 10) {
            overflow = true;
            v = std::numeric_limits<std::uint64_t>::max();
        } else if (!overflow) {
            v = v * 10 + d;
        }
    }
    return v;
}

std::int64_t toInt(std::string_view s) {
    bool negative = false;
    bool overflow = false;
    const std::uint64_t m = leadingDigits(s, negative, overflow);
    constexpr std::uint64_t limit = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    if (negative) {
        if (overflow || m > limit + 1) return std::numeric_limits<std::int64_t>::min();
        return m == limit + 1 ? std::numeric_limits<std::int64_t>::min() : -static_cast<std::int64_t>(m);
    }
    return overflow || m > limit ? std::numeric_limits<std::int64_t>::max() : static_cast<std::int64_t>(m);
}

std::uint64_t toUInt(std::string_view s) {
    bool negative = false;
    bool overflow = false;
    const std::uint64_t m = leadingDigits(s, negative, overflow);
    if (overflow) return std::numeric_limits<std::uint64_t>::max();
    return negative ? std::uint64_t{0} - m : m;
}

// A keyframe time or handle number as its text will be written (nine digits): equal texts must
// be equal keys, and what is read must write as it will read back, or a second read and write
// would change the text again.
double writtenScalar(double t) {
    if (t == std::trunc(t) && std::fabs(t) < 1e16) return t == 0 ? 0.0 : t;
    char buf[kNumberTextMax];
    char* end = writeScalarText(buf, t);
    return toDouble(std::string_view(buf, static_cast<std::size_t>(end - buf)));
}

template <class T>
void append(std::vector<std::uint8_t>& data, T v) {
    const std::size_t at = data.size();
    data.resize(at + sizeof(T));
    std::memcpy(data.data() + at, &v, sizeof(T));
}

// Gives `out` its dtype and shape and sizes its data, in place: the Value constructors would
// build a temporary (and the float it starts as) first.
void setNumeric(Value& out, DType dtype, std::initializer_list<std::uint32_t> shape, std::size_t bytes) {
    out.dtype = dtype;
    out.shape.assign(shape);
    out.data.resize(bytes);
    out.strings.clear();
}

void setFloats(Value& out, std::initializer_list<std::uint32_t> shape, const double* numbers, std::size_t n) {
    setNumeric(out, DType::Float32, shape, n * sizeof(float));
    for (std::size_t i = 0; i < n; ++i) {
        const float f = static_cast<float>(numbers[i]);
        std::memcpy(out.data.data() + i * sizeof f, &f, sizeof f);
    }
}

bool isPlainName(std::string_view s) {
    if (s.empty()) return false;
    for (char c : s)
        if (!isNameByte(c)) return false;
    return true;
}

// Type words are matched by length first, so that each word meets few candidates: a property
// statement begins with one.
std::optional<DType> dtypeFromToken(std::string_view w) {
    auto among = [&](std::initializer_list<std::pair<std::string_view, DType>> tokens) -> std::optional<DType> {
        for (const auto& [token, d] : tokens)
            if (token == w) return d;
        return std::nullopt;
    };
    switch (w.size()) {
        case 3: return among({{"str", DType::Str}});
        case 4: return among({{"bool", DType::Bool}, {"char", DType::Char}, {"int8", DType::Int8}});
        case 5:
            return among({{"int16", DType::Int16}, {"int32", DType::Int32}, {"int64", DType::Int64}, {"uint8", DType::UInt8}});
        case 6: return among({{"uint16", DType::UInt16}, {"uint32", DType::UInt32}, {"uint64", DType::UInt64}});
        case 7:
            return among({{"float32", DType::Float32}, {"float64", DType::Float64}, {"float16", DType::Float16}});
        default: return std::nullopt;
    }
}

std::optional<Type> simpleTypeFromToken(std::string_view w) {
    std::string_view token;
    Type type = Type::General;
    switch (w.size()) {
        case 3: token = "int", type = Type::Int; break;
        case 4: token = "bool", type = Type::Bool; break;
        case 5: token = "float", type = Type::Float; break;
        case 6:
            if (w[0] == 'm')
                token = "matrix", type = Type::Matrix;
            else if (w[5] == '2')
                token = "float2", type = Type::Float2;
            else
                token = "float3", type = Type::Float3;
            break;
        case 8: token = "spectrum", type = Type::Spectrum; break;
        default: return std::nullopt;
    }
    if (w != token) return std::nullopt;
    return type;
}

// The words that open a statement in an element body other than a property.
enum class Keyword { None, Def, Delete, Disconnect, Connect, Unset, Metadata, Reference };

// Nearly every statement is a property, whose type word is none of these: the length alone
// rules most of them out, so each word is compared with one keyword at most.
Keyword bodyKeyword(std::string_view w) {
    auto is = [&](Keyword k, std::string_view keyword) { return w == keyword ? k : Keyword::None; };
    switch (w.size()) {
        case 3: return is(Keyword::Def, "def");
        case 4: return is(Keyword::Def, "over");
        case 5: return is(Keyword::Unset, "unset");
        case 6: return w[0] == 'd' ? is(Keyword::Delete, "delete") : is(Keyword::Metadata, "string");
        case 7: return is(Keyword::Connect, "connect");
        case 9: return is(Keyword::Reference, "reference");
        case 10: return is(Keyword::Disconnect, "disconnect");
        default: return Keyword::None;
    }
}

// What the type token of a property statement declares.
struct Decl {
    enum Kind { Untyped, Simple, General } kind = Untyped;
    Type type = Type::Float;
    DType dtype = DType::Float32;
    std::vector<std::uint32_t> shape;
    bool dynamic = false;
    std::string typeName;

    // Back to a fresh declaration, keeping the storage of the shape and the type name.
    void reset() {
        kind = Untyped;
        type = Type::Float;
        dtype = DType::Float32;
        shape.clear();
        dynamic = false;
        typeName.clear();
    }
};

// A keyframe as read, before it joins the curve.
struct KeyStatement {
    explicit KeyStatement(Value v) : value(std::move(v)) {}
    double time = 0;
    Value value;
    Interp interp = Interp::Linear;
    bool handles = false;  // handle type or lists were given
    HandleType handle = HandleType::Auto;
    std::vector<std::pair<double, double>> left;
    std::vector<std::pair<double, double>> right;
};

std::vector<std::pair<double, double>> pairsOf(const std::vector<double>& numbers) {
    std::vector<std::pair<double, double>> out;
    out.reserve(numbers.size() / 2);
    for (std::size_t i = 0; i + 1 < numbers.size(); i += 2) out.emplace_back(numbers[i], numbers[i + 1]);
    return out;
}

// ---------------------------------------------------------------------------------------------
// Parser

class Parser {
public:
    Parser(std::string_view body, Document& doc)
        : lex_(body), doc_(&doc), segmentsLeft_((std::size_t(1) << 20) + body.size()), unbackedLeft_(body.size()) {
        // Every block opens with a brace: counting them sizes the element list in one step
        // rather than by repeated doubling. A block takes at least five bytes ("def{}").
        std::size_t blocks = 0;
        const char* const end = body.data() + body.size();
        for (const char* p = body.data(); (p = static_cast<const char*>(std::memchr(p, '{', static_cast<std::size_t>(end - p))));
             ++p)
            ++blocks;
        elements_.reserve(std::min(blocks, body.size() / 5));
        blockOffsets_.reserve(elements_.capacity());
    }

    bool parseTop();
    // Hands the elements read to the document; false (and the message set) when two share a path.
    bool finish();
    const std::string& message() const { return message_; }
    std::size_t failOffset() const { return failOffset_; }
    void failGeneral() {
        if (message_.empty()) {
            message_ = "syntax error";
            failOffset_ = lex_.pos();
        }
    }

private:
    void fail(const char* message) {
        if (!message_.empty()) return;
        message_ = message;
        failOffset_ = lex_.pos();
    }

    // The element whose body is being read, by its place in elements_ (which may move as it grows).
    struct Current {
        std::size_t index = 0;
    };
    Element& current(Current& c) { return elements_[c.index]; }
    bool reportDuplicate(const std::vector<Element>& elements);

    // An element block whose body is being read: nesting is walked with a stack of these, not
    // by recursion, so any depth the writer writes reads back.
    struct Frame {
        Path path;
        Current c;
        std::size_t children = 0;
    };
    bool parseDef(const Path& parent, std::size_t& siblings);
    bool openDef(const Path& parent, std::size_t& siblings, std::vector<Frame>& open);
    bool parseConnect(const Path& element);
    bool parseDelete();
    bool parseDisconnect();
    bool parseReorder();
    bool parseUnset(Current& c);
    bool parseMetadata(Current& c);
    bool parseReference(Current& c);
    bool parseProperty(Current& c);
    bool parseDecl(std::string_view word, Decl& decl);
    bool parseDims(Decl& decl);
    bool nameTail(std::string& name, bool samplesWord, bool& samples);
    bool parseSamples(Current& c, const Decl& decl, const std::string& name);
    bool parseKeyframe(const Decl& decl, KeyStatement& key);
    bool zeroValue(const Decl& decl, Value& out);

    bool parseValue(const Decl& decl, Value& out, bool keyframe);
    bool parseTypedValue(Type type, Value& out);
    bool parseGeneralValue(DType dtype, const std::vector<std::uint32_t>& shape, bool dynamic, Value& out);
    bool parseNumNested(DType dtype, const std::vector<std::uint32_t>& shape, Value& out);
    bool parseInferred(DType dtype, Value& out);
    bool parseNumLeaf(DType dtype, std::vector<std::uint8_t>& out);
    bool parseStringLeaf(std::vector<std::string>& out);
    bool parseLeaf(DType dtype, Value& out) {
        return dtype == DType::Str ? parseStringLeaf(out.strings) : parseNumLeaf(dtype, out.data);
    }
    bool parseNumbers(std::size_t exact, Tok close, bool trailingComma);
    bool parseNumber(double& out);
    bool takeUnbacked(std::size_t count);
    // A value owning no storage, for a place that is filled before it is read: Value() would
    // allocate the float it starts as. spare_ is always moved out between uses, so it is empty.
    Value hollowValue() { return Value(std::move(spare_)); }
    const TypeAlias* cachedAlias(std::string_view word);

    std::string message_;
    std::size_t failOffset_ = 0;
    Lexer lex_;
    Document* doc_;
    std::vector<std::pair<Path, Path>> pendingConnections_;  // source, target
    // Every element holds its whole path, so deep nesting costs its depth in segments per
    // element. The total is held to a multiple of the input, which indented text of any depth
    // stays well within, so that a short text can't ask for quadratic memory.
    std::size_t segmentsLeft_;

    // Elements in the order of their blocks, indexed by the document in one pass at the end. A
    // path read twice is found then; its block's offset tells where to report it.
    std::vector<Element> elements_;
    std::vector<std::size_t> blockOffsets_;

    // Records are gathered and handed over sorted at the end, so that each lands at the end of
    // its sorted vector instead of being inserted in the middle.
    std::vector<Path> deletions_;
    std::vector<Path> connectionDeletions_;
    std::vector<Reorder> reorders_;

    // Elements that a declared shape asks for without the text spelling them out (the zero value
    // of a new animated property, the strings that fill a declared shape) are limited in all to
    // the size of the input, so that a short text can't ask for a huge allocation.
    std::size_t unbackedLeft_;

    std::vector<double> numbers_;      // scratch for number lists
    std::vector<double> pairNumbers_;  // scratch for the numbers of a float2 array
    Decl decl_;                        // scratch for the declaration of a property
    std::vector<std::pair<std::string, TypeAlias>> aliases_;  // the aliases met so far
    Value spare_;                  // scratch for property values; moved out after each use
};

bool Parser::takeUnbacked(std::size_t count) {
    if (count > unbackedLeft_) return false;
    unbackedLeft_ -= count;
    return true;
}

// A document uses a handful of aliases many times: each is looked up once.
const TypeAlias* Parser::cachedAlias(std::string_view word) {
    for (const auto& [name, alias] : aliases_)
        if (name == word) return &alias;
    auto alias = aliasFromName(word);
    if (!alias) return nullptr;
    return &aliases_.emplace_back(std::string(word), std::move(*alias)).second;
}

bool Parser::parseTop() {
    const Path root;
    std::size_t topLevel = 0;
    for (;;) {
        const Token t = lex_.peek();
        if (t.kind == Tok::End) {
            if (t.bad) {
                fail("malformed token");
                return false;
            }
            break;
        }
        bool ok = false;
        if (t.kind == Tok::Ident) {
            if (t.text == "def" || t.text == "over")
                ok = parseDef(root, topLevel);
            else if (t.text == "delete")
                ok = parseDelete();
            else if (t.text == "disconnect")
                ok = parseDisconnect();
            else if (t.text == "connect")
                ok = parseConnect(root);
            else if (t.text == "reorder")
                ok = parseReorder();
            else {
                fail("expected 'def', 'over', or 'delete' at the top level");
                return false;
            }
        } else {
            fail("expected 'def', 'over', or 'delete' at the top level");
            return false;
        }
        if (!ok) {
            // A path read twice earlier is the first failure, though found only now.
            reportDuplicate(elements_);
            return false;
        }
    }
    return finish();
}

// The first element whose path an earlier one already has, reported at its block; false if none.
bool Parser::reportDuplicate(const std::vector<Element>& elements) {
    std::unordered_set<Path> seen;  // only ever on the way to an error: copies are fine
    seen.reserve(elements.size());
    for (std::size_t i = 0; i < elements.size(); ++i) {
        if (seen.insert(elements[i].path).second) continue;
        message_ = "duplicate element path";
        failOffset_ = blockOffsets_[i];
        return true;
    }
    return false;
}

bool Parser::finish() {
    if (!doc_->insertAll(std::move(elements_))) {
        reportDuplicate(doc_->elements());
        return false;
    }

    // Only the last wire into a target survives, at the place of its statement; giving just
    // those to connect keeps the result and spares the replaced ones. A statement that connect
    // would refuse (a side without a property) replaces nothing.
    if (!pendingConnections_.empty()) {
        // Targets are told apart by a hash of their segments' own hashes, far cheaper than the
        // byte by byte hash of a whole path.
        struct TargetHash {
            std::size_t operator()(const Path* p) const {
                std::size_t h = p->segments.size();
                for (const auto& s : p->segments) h = h * 0x9E3779B97F4A7C15ULL + std::hash<std::string>()(s);
                return p->property ? h * 0x9E3779B97F4A7C15ULL + std::hash<std::string>()(*p->property) + 1 : h;
            }
        };
        struct SamePath {
            bool operator()(const Path* a, const Path* b) const { return *a == *b; }
        };
        const std::size_t n = pendingConnections_.size();
        std::unordered_set<const Path*, TargetHash, SamePath> later;
        later.reserve(n);
        std::vector<char> last(n, 0);
        for (std::size_t i = n; i-- > 0;) {
            const auto& [source, target] = pendingConnections_[i];
            if (source.property && target.property && later.insert(&target).second) last[i] = 1;
        }
        for (std::size_t i = 0; i < n; ++i)
            if (last[i]) doc_->connect(pendingConnections_[i].first, pendingConnections_[i].second);
    }
    std::stable_sort(deletions_.begin(), deletions_.end());
    for (const auto& p : deletions_) doc_->addDeletion(p);
    std::stable_sort(connectionDeletions_.begin(), connectionDeletions_.end());
    for (const auto& p : connectionDeletions_) doc_->addConnectionDeletion(p);
    std::stable_sort(reorders_.begin(), reorders_.end(),
                     [](const Reorder& a, const Reorder& b) { return a.parent < b.parent; });
    for (auto& r : reorders_) doc_->addReorder(r.parent, std::move(r.order));
    return true;
}

bool Parser::parseDelete() {
    lex_.next();
    Token t;
    if (!lex_.expect(Tok::String, &t)) {
        fail("expected a quoted path after 'delete'");
        return false;
    }
    auto path = Path::parse(stringValue(t));
    if (!path) {
        fail("invalid path in 'delete'");
        return false;
    }
    deletions_.push_back(path->elementPath());
    return true;
}

bool Parser::parseDisconnect() {
    lex_.next();
    Token t;
    if (!lex_.expect(Tok::String, &t)) {
        fail("expected a quoted target slot after 'disconnect'");
        return false;
    }
    auto path = Path::parse(stringValue(t));
    if (!path) {
        fail("invalid path in 'disconnect'");
        return false;
    }
    connectionDeletions_.push_back(std::move(*path));
    return true;
}

bool Parser::parseReorder() {
    lex_.next();
    Token t;
    if (!lex_.expect(Tok::String, &t)) {
        fail("expected a quoted parent path after 'reorder'");
        return false;
    }
    auto parent = Path::parse(stringValue(t));
    if (!parent) {
        fail("invalid parent path in 'reorder'");
        return false;
    }
    if (!lex_.expect(Tok::Equals)) {
        fail("expected '=' after the reorder parent");
        return false;
    }
    if (!lex_.expect(Tok::LBracket)) {
        fail("expected '[' to open the reorder child list");
        return false;
    }
    std::vector<Path> children;
    for (;;) {
        if (lex_.peek().kind == Tok::RBracket) {
            lex_.next();
            break;
        }
        if (!lex_.expect(Tok::String, &t)) {
            fail("expected a quoted child path in 'reorder'");
            return false;
        }
        auto child = Path::parse(stringValue(t));
        if (!child) {
            fail("invalid child path in 'reorder'");
            return false;
        }
        children.push_back(child->elementPath());
        if (lex_.peek().kind == Tok::Comma) lex_.next();
    }
    reorders_.push_back(Reorder{parent->elementPath(), std::move(children)});
    return true;
}

bool Parser::parseConnect(const Path& element) {
    lex_.next();
    const Token t = lex_.next();
    Path target;
    std::string spec;
    bool glob = false;
    if (t.kind == Tok::Ident) {
        std::string name(t.text);
        bool unused = false;
        if (!nameTail(name, false, unused)) return false;
        target = element.appendingProperty(name);
    } else if (t.kind == Tok::String) {
        target = element.appendingProperty(stringValue(t));
    } else if (t.kind == Tok::PathLit) {
        if (t.text.find('*') != std::string_view::npos) {
            glob = true;
            spec = std::string(t.text);
        } else {
            auto parsed = Path::parse(t.text);
            if (!parsed) {
                fail("invalid connect target path");
                return false;
            }
            target = std::move(*parsed);
        }
    } else {
        fail("expected a slot name or <path> after 'connect'");
        return false;
    }
    if (!lex_.expect(Tok::Equals)) {
        fail("expected '=' in a connect directive");
        return false;
    }
    Token s;
    if (!lex_.expect(Tok::PathLit, &s)) {
        fail("expected a <source> path in a connect directive");
        return false;
    }
    auto source = Path::parse(s.text);
    if (!source) {
        fail("invalid connect source path");
        return false;
    }
    if (glob)
        doc_->addGlobLink(*source, spec);
    else
        pendingConnections_.emplace_back(std::move(*source), std::move(target));
    return true;
}

bool Parser::parseDef(const Path& parent, std::size_t& siblings) {
    std::vector<Frame> open;
    // Each path joins its element when its body ends, failed or not, before anything compares
    // paths.
    auto close = [this](Frame& f) { elements_[f.c.index].path = std::move(f.path); };
    bool ok = openDef(parent, siblings, open);
    while (ok && !open.empty()) {
        Frame& f = open.back();
        const Token t = lex_.peek();
        if (t.kind == Tok::RBrace) {
            lex_.next();
            close(f);
            open.pop_back();
            continue;
        }
        if (t.kind != Tok::Ident) {
            ok = false;
            break;
        }
        switch (bodyKeyword(t.text)) {
            case Keyword::Def: ok = openDef(f.path, f.children, open); break;
            case Keyword::Delete: ok = parseDelete(); break;
            case Keyword::Disconnect: ok = parseDisconnect(); break;
            case Keyword::Connect: ok = parseConnect(f.path); break;
            case Keyword::Unset: ok = parseUnset(f.c); break;
            case Keyword::Metadata: ok = parseMetadata(f.c); break;
            case Keyword::Reference: ok = parseReference(f.c); break;
            case Keyword::None: ok = parseProperty(f.c); break;
        }
    }
    for (Frame& f : open) close(f);
    return ok;
}

// Reads a block's head up to its brace and opens its frame; `parent` and `siblings` may live in
// `open`, so they are used before it grows.
bool Parser::openDef(const Path& parent, std::size_t& siblings, std::vector<Frame>& open) {
    const Token keyword = lex_.next();
    if (keyword.kind != Tok::Ident || (keyword.text != "def" && keyword.text != "over")) {
        fail("expected 'def' or 'over'");
        return false;
    }

    std::string type;
    std::optional<std::string> name;
    const Token head = lex_.next();
    if (head.kind == Tok::Ident) {
        type = std::string(head.text);
        const Token after = lex_.next();
        if (after.kind == Tok::String) {
            name = stringValue(after);
            if (!lex_.expect(Tok::LBrace)) {
                fail("expected '{' to open the element body");
                return false;
            }
        } else if (after.kind != Tok::LBrace) {
            fail("expected a quoted element name or '{' after the element type");
            return false;
        }
    } else if (head.kind == Tok::String) {
        const Token after = lex_.next();
        if (after.kind == Tok::String) {
            type = stringValue(head);
            name = stringValue(after);
            if (!lex_.expect(Tok::LBrace)) {
                fail("expected '{' to open the element body");
                return false;
            }
        } else if (after.kind == Tok::LBrace) {
            // A quoted word alone names the element when it could be a name, else types it.
            std::string word = stringValue(head);
            if (isPlainName(word))
                name = std::move(word);
            else
                type = std::move(word);
        } else {
            fail("expected '{' to open the element body");
            return false;
        }
    } else if (head.kind != Tok::LBrace) {
        fail("expected an element type, a quoted name, or '{'");
        return false;
    }

    Path path;
    if (name) {
        // Names are path segments: anything else could not be addressed, nor written back.
        if (!isPlainName(*name) && !Path::isAnonymousSegment(*name)) {
            fail("invalid element name");
            return false;
        }
        path = parent.child(*name);
    } else {
        // An unnamed block is named by its place among the blocks before it in its parent.
        path = parent.child(static_cast<std::uint64_t>(siblings));
    }
    if (path.segments.size() > segmentsLeft_) {
        fail("element nesting too deep");
        return false;
    }
    segmentsLeft_ -= path.segments.size();
    ++siblings;
    Element& e = elements_.emplace_back();
    blockOffsets_.push_back(lex_.pos());
    e.type = std::move(type);
    if (keyword.text == "over") e.specifier = Specifier::Over;
    open.push_back(Frame{std::move(path), Current{elements_.size() - 1}});
    return true;
}

bool Parser::parseUnset(Current& c) {
    lex_.next();
    const Token first = lex_.next();
    if (first.kind == Tok::Ident && first.text == "string") {
        // "unset string" ending its line unsets the property named "string": the writer puts
        // every statement on a line of its own and doesn't quote that name.
        const Token key = lex_.peek();
        if (lex_.lineBreakBefore(key)) {
            current(c).unsetProperties.insert("string");
            return true;
        }
        lex_.next();
        if (key.kind == Tok::Ident) {
            current(c).unsetMetadata.emplace(key.text);
            return true;
        }
        if (key.kind == Tok::String) {
            current(c).unsetMetadata.insert(stringValue(key));
            return true;
        }
        fail("expected a name after 'unset'");
        return false;
    }
    if (first.kind == Tok::Ident) {
        current(c).unsetProperties.emplace(first.text);
        return true;
    }
    if (first.kind == Tok::String) {
        current(c).unsetProperties.insert(stringValue(first));
        return true;
    }
    fail("expected a name after 'unset'");
    return false;
}

bool Parser::parseMetadata(Current& c) {
    lex_.next();
    const Token key = lex_.next();
    if (key.kind != Tok::Ident && key.kind != Tok::String) {
        fail("expected a metadata key");
        return false;
    }
    if (!lex_.expect(Tok::Equals)) {
        fail("expected '=' after the property name");
        return false;
    }
    Token value;
    if (!lex_.expect(Tok::String, &value)) return false;
    std::string k = key.kind == Tok::String ? stringValue(key) : std::string(key.text);
    current(c).metadata.insert_or_assign(std::move(k), stringValue(value));
    return true;
}

bool Parser::parseReference(Current& c) {
    // "reference" is a statement only with a string after it; otherwise it starts a property.
    const Lexer::State before = lex_.save();
    lex_.next();
    const Token path = lex_.peek();
    if (path.kind != Tok::String) {
        lex_.restore(before);
        return parseProperty(c);
    }
    lex_.next();
    Element& e = current(c);
    e.metadata.insert_or_assign("reference", stringValue(path));
    const Token inside = lex_.peek();
    if (inside.kind == Tok::String) {
        lex_.next();
        e.metadata.insert_or_assign("referencePath", stringValue(inside));
    }
    return true;
}

bool Parser::parseDims(Decl& decl) {
    std::size_t count = 1;
    for (;;) {
        const Token t = lex_.next();
        if (t.kind != Tok::Number) return false;
        const std::int64_t d = toInt(t.text);
        if (d < 0 || d > 4294967295LL) return false;
        // A declared shape may not ask for more elements than the text has bytes left; after a
        // zero dimension there are no elements at all.
        const auto dim = static_cast<std::size_t>(d);
        if (dim != 0 && count > lex_.left() / dim) return false;
        count *= dim;
        decl.shape.push_back(static_cast<std::uint32_t>(dim));
        const Token sep = lex_.next();
        if (sep.kind == Tok::RBracket) return true;
        if (sep.kind != Tok::Comma) return false;
    }
}

// Reads the type token `word` (already consumed) and what belongs to it.
bool Parser::parseDecl(std::string_view word, Decl& decl) {
    if (auto simple = simpleTypeFromToken(word)) {
        decl.kind = Decl::Simple;
        decl.type = *simple;
        if (lex_.peek().kind != Tok::LBracket) return true;
        lex_.next();
        if (*simple == Type::Bool) {
            decl.kind = Decl::General;
            decl.dtype = DType::Bool;
            return parseDims(decl);
        }
        if (*simple != Type::Float2 && *simple != Type::Int && *simple != Type::Float) return false;
        if (!lex_.expect(Tok::RBracket)) return false;
        decl.type = *simple == Type::Float2 ? Type::Float2Array : *simple == Type::Int ? Type::IntArray : Type::FloatArray;
        return true;
    }
    if (auto dtype = dtypeFromToken(word)) {
        decl.kind = Decl::General;
        decl.dtype = *dtype;
        if (lex_.peek().kind != Tok::LBracket) return true;
        lex_.next();
        if (lex_.peek().kind == Tok::RBracket) {
            lex_.next();
            decl.dynamic = true;
            return true;
        }
        return parseDims(decl);
    }
    if (const TypeAlias* alias = cachedAlias(word)) {
        decl.kind = Decl::General;
        decl.dtype = alias->dtype;
        decl.shape.assign(alias->shape.begin(), alias->shape.end());
        decl.typeName.assign(word);
        return true;
    }
    decl.kind = Decl::Untyped;
    return true;
}

// Extends a bare name over its ".word" parts. Parts are taken byte by byte, so that every name
// the writer leaves bare reads back: "a.1x", "a..b" and "a." included. With `samplesWord` the
// part "timeSamples" ends the name and marks a time samples block.
bool Parser::nameTail(std::string& name, bool samplesWord, bool& samples) {
    const std::string_view text = lex_.text();
    for (;;) {
        if (lex_.peek().kind != Tok::Dot) return true;
        lex_.next();
        std::size_t p = lex_.pos();
        std::string_view word;
        if (p < text.size() && isNameByte(text[p])) {
            const std::size_t from = p;
            while (p < text.size() && isNameByte(text[p])) ++p;
            word = text.substr(from, p - from);
            lex_.setPos(p);
        } else if (p < text.size() && text[p] == '.') {
            name += '.';
            continue;
        } else {
            const Token t = lex_.peek();
            if (t.kind == Tok::Equals) {
                name += '.';
                return true;
            }
            if (t.kind != Tok::Ident) {
                lex_.next();
                return false;
            }
            lex_.next();
            word = t.text;
        }
        if (samplesWord && word == "timeSamples") {
            samples = true;
            return true;
        }
        name += '.';
        name += word;
    }
}

bool Parser::parseProperty(Current& c) {
    const Token first = lex_.next();
    // The scratch declaration keeps its shape's storage from one property to the next.
    Decl& decl = decl_;
    decl.reset();
    if (!parseDecl(first.text, decl)) return false;

    std::string name;
    bool samples = false;
    if (decl.kind == Decl::Untyped) {
        name = std::string(first.text);
        if (!nameTail(name, true, samples)) return false;
    } else {
        const Token n = lex_.next();
        if (n.kind == Tok::String) {
            name = stringValue(n);
            // A quoted name may carry the time samples suffix too: the writer quotes the names
            // of animated properties like any other.
            if (lex_.peek().kind == Tok::Dot) {
                const Lexer::State before = lex_.save();
                lex_.next();
                const Token word = lex_.peek();
                if (word.kind == Tok::Ident && word.text == "timeSamples") {
                    lex_.next();
                    samples = true;
                } else {
                    lex_.restore(before);
                }
            }
        } else if (n.kind == Tok::Ident) {
            name = std::string(n.text);
            if (!nameTail(name, true, samples)) return false;
        } else {
            fail("expected a property name");
            return false;
        }
    }

    if (!lex_.expect(Tok::Equals)) {
        fail("expected '=' after the property name");
        return false;
    }
    if (decl.kind == Decl::Untyped) {
        fail("unknown type or untyped property");
        return false;
    }
    if (samples) return parseSamples(c, decl, name);

    // Read into the spare value: a fresh Value() would allocate the float it starts as.
    Value& value = spare_;
    if (!parseValue(decl, value, false)) {
        fail("invalid value for its declared type");
        return false;
    }
    auto& properties = current(c).properties;
    // Writers emit properties in key order, so the new one usually belongs at the end.
    auto at = properties.end();
    if (!properties.empty() && !(std::prev(at)->first < name)) at = properties.lower_bound(name);
    if (at != properties.end() && at->first == name) {
        at->second.value = std::move(value);
        if (!decl.typeName.empty()) at->second.typeName = std::move(decl.typeName);
    } else {
        properties.emplace_hint(at, std::move(name), Property{std::move(value), std::nullopt, std::move(decl.typeName)});
    }
    return true;
}

bool Parser::zeroValue(const Decl& decl, Value& out) {
    if (decl.kind == Decl::Simple) {
        switch (decl.type) {
            case Type::Float: out = Value(0.0f); return true;
            case Type::Int: out = Value(std::int64_t{0}); return true;
            case Type::Bool: out = Value(false); return true;
            case Type::Float2: out = Value(std::array<float, 2>{}); return true;
            case Type::Float3: out = Value(std::array<float, 3>{}); return true;
            case Type::Matrix: out = Value(std::array<float, 6>{1, 0, 0, 1, 0, 0}); return true;
            case Type::Spectrum: out = Value(std::array<float, 32>{}); return true;
            case Type::Float2Array: out = Value(std::vector<std::array<float, 2>>{}); return true;
            case Type::IntArray: out = Value(std::vector<std::int64_t>{}); return true;
            case Type::FloatArray: out = Value(std::vector<float>{}); return true;
            case Type::General: break;
        }
        return false;
    }
    out.dtype = decl.dtype;
    out.data.clear();
    out.strings.clear();
    if (decl.dynamic)
        out.shape.assign({0});
    else
        out.shape = decl.shape;
    const std::size_t n = out.count();
    if (!takeUnbacked(n)) return false;
    if (decl.dtype == DType::Str)
        out.strings.resize(n);
    else
        out.data.assign(n * dtypeWidth(decl.dtype), 0);
    return true;
}

bool Parser::parseSamples(Current& c, const Decl& decl, const std::string& name) {
    if (!lex_.expect(Tok::LBrace)) return false;
    std::optional<Value> zero;
    if (!current(c).properties.count(name)) {
        zero.emplace(hollowValue());
        if (!zeroValue(decl, *zero)) return false;
    }

    std::vector<KeyStatement> keys;
    bool sorted = true;
    for (;;) {
        if (lex_.peek().kind == Tok::RBrace) {
            lex_.next();
            break;
        }
        KeyStatement key(hollowValue());
        if (!parseKeyframe(decl, key)) return false;
        if (!keys.empty() && !(keys.back().time < key.time)) sorted = false;
        keys.push_back(std::move(key));
        if (lex_.peek().kind == Tok::Comma) lex_.next();
    }

    auto& properties = current(c).properties;
    auto it = properties.find(name);
    if (it == properties.end()) it = properties.emplace(name, Property{std::move(*zero), std::nullopt, {}}).first;
    Property& p = it->second;
    if (!decl.typeName.empty()) p.typeName = decl.typeName;
    if (keys.empty()) return true;
    if (!p.samples) p.samples.emplace();

    // Each statement sets its time as TimeSamples::set and setHandles would, one after the
    // other: the last value and interpolation win, handles stay unless a statement gives some.
    // Sorting and merging does the same without inserting into the middle of the curve.
    if (!sorted)
        std::stable_sort(keys.begin(), keys.end(),
                         [](const KeyStatement& a, const KeyStatement& b) { return a.time < b.time; });
    std::vector<Keyframe>& old = p.samples->keys;
    std::vector<Keyframe> merged;
    merged.reserve(old.size() + keys.size());
    std::size_t o = 0;
    for (std::size_t i = 0; i < keys.size();) {
        const double t = keys[i].time;
        while (o < old.size() && old[o].time < t) merged.push_back(std::move(old[o++]));
        Keyframe k = o < old.size() && old[o].time == t
                         ? std::move(old[o++])
                         : Keyframe{t, hollowValue(), Interp::Linear, HandleType::Auto, {}, {}};
        k.time = t;
        for (; i < keys.size() && keys[i].time == t; ++i) {
            KeyStatement& s = keys[i];
            k.value = std::move(s.value);
            k.interp = s.interp;
            if (s.handles) {
                k.handle = s.handle;
                k.left = std::move(s.left);
                k.right = std::move(s.right);
            }
        }
        merged.push_back(std::move(k));
    }
    while (o < old.size()) merged.push_back(std::move(old[o++]));
    old = std::move(merged);
    return true;
}

bool Parser::parseKeyframe(const Decl& decl, KeyStatement& key) {
    Token t;
    if (!lex_.expect(Tok::Number, &t)) return false;
    key.time = writtenScalar(toDouble(t.text));
    if (!lex_.expect(Tok::Colon)) return false;
    if (!parseValue(decl, key.value, true)) {
        fail("invalid value for its declared type");
        return false;
    }
    if (lex_.peek().kind != Tok::LParen) return true;
    lex_.next();
    if (!lex_.expect(Tok::Ident, &t) || t.text != "interp") return false;
    if (!lex_.expect(Tok::Equals)) {
        fail("expected '=' after the property name");
        return false;
    }
    if (!lex_.expect(Tok::Ident, &t)) return false;
    if (t.text == "held")
        key.interp = Interp::Held;
    else if (t.text == "linear")
        key.interp = Interp::Linear;
    else if (t.text == "bezier")
        key.interp = Interp::Bezier;
    else
        return false;
    std::vector<double> left;
    std::vector<double> right;
    for (;;) {
        t = lex_.next();
        if (t.kind == Tok::RParen) break;
        if (t.kind != Tok::Comma) return false;
        Token k;
        if (!lex_.expect(Tok::Ident, &k) || !lex_.expect(Tok::Equals)) return false;
        if (k.text == "handle") {
            if (!lex_.expect(Tok::Ident, &t)) return false;
            if (t.text == "auto")
                key.handle = HandleType::Auto;
            else if (t.text == "vector")
                key.handle = HandleType::Vector;
            else if (t.text == "aligned")
                key.handle = HandleType::Aligned;
            else if (t.text == "free")
                key.handle = HandleType::Free;
            else
                return false;
        } else if (k.text == "left" || k.text == "right") {
            std::vector<double>& list = k.text == "left" ? left : right;
            if (!lex_.expect(Tok::LBracket)) return false;
            for (;;) {
                t = lex_.next();
                if (t.kind == Tok::RBracket) break;
                if (t.kind != Tok::Number) return false;
                list.push_back(writtenScalar(toDouble(t.text)));
                if (lex_.peek().kind == Tok::Comma) lex_.next();
            }
        } else {
            return false;
        }
    }
    key.left = pairsOf(left);
    key.right = pairsOf(right);
    key.handles = key.handle != HandleType::Auto || !key.left.empty() || !key.right.empty();
    return true;
}

// ---------------------------------------------------------------------------------------------
// Values

bool Parser::parseValue(const Decl& decl, Value& out, bool keyframe) {
    if (decl.kind == Decl::Simple) return parseTypedValue(decl.type, out);
    // A keyframe's value is written in its own shape, which may differ from the property's,
    // so its brackets decide the shape.
    if (keyframe) return parseInferred(decl.dtype, out);
    return parseGeneralValue(decl.dtype, decl.shape, decl.dynamic, out);
}

bool Parser::parseNumber(double& out) {
    Token t;
    if (!lex_.expect(Tok::Number, &t)) return false;
    out = toDouble(t.text);
    return true;
}

// Numbers into numbers_, up to `close`, commas required between them. `exact` (0 for any)
// fixes the count; a comma may follow the last one when `trailingComma` allows.
bool Parser::parseNumbers(std::size_t exact, Tok close, bool trailingComma) {
    numbers_.clear();
    if (exact == 0 && lex_.peek().kind == close) {
        lex_.next();
        return true;
    }
    for (;;) {
        double d = 0;
        if (!parseNumber(d)) return false;
        numbers_.push_back(d);
        if (exact != 0 && numbers_.size() == exact) {
            if (trailingComma && lex_.peek().kind == Tok::Comma) lex_.next();
            return lex_.expect(close);
        }
        const Token t = lex_.next();
        if (t.kind == close) return exact == 0;
        if (t.kind != Tok::Comma) return false;
        if (exact == 0 && trailingComma && lex_.peek().kind == close) {
            lex_.next();
            return true;
        }
    }
}

bool Parser::parseTypedValue(Type type, Value& out) {
    switch (type) {
        case Type::Float: {
            double d = 0;
            if (!parseNumber(d)) return false;
            setFloats(out, {}, &d, 1);
            return true;
        }
        case Type::Int: {
            Token t;
            if (!lex_.expect(Tok::Number, &t)) return false;
            setNumeric(out, DType::Int64, {}, 0);
            append(out.data, toInt(t.text));
            return true;
        }
        case Type::Bool: {
            Token t;
            if (!lex_.expect(Tok::Ident, &t) || (t.text != "true" && t.text != "false")) return false;
            setNumeric(out, DType::Bool, {}, 0);
            out.data.push_back(t.text == "true" ? 1 : 0);
            return true;
        }
        case Type::Float2:
            if (!lex_.expect(Tok::LParen) || !parseNumbers(2, Tok::RParen, true)) return false;
            setFloats(out, {2}, numbers_.data(), 2);
            return true;
        case Type::Float3:
            if (!lex_.expect(Tok::LParen) || !parseNumbers(3, Tok::RParen, true)) return false;
            setFloats(out, {3}, numbers_.data(), 3);
            return true;
        case Type::Matrix:
            if (!lex_.expect(Tok::LParen) || !parseNumbers(6, Tok::RParen, true)) return false;
            setFloats(out, {2, 3}, numbers_.data(), 6);
            return true;
        case Type::Spectrum:
            if (!lex_.expect(Tok::LBracket) || !parseNumbers(32, Tok::RBracket, true)) return false;
            setFloats(out, {32}, numbers_.data(), 32);
            return true;
        case Type::Float2Array: {
            if (!lex_.expect(Tok::LBracket)) return false;
            std::vector<double>& pairs = pairNumbers_;  // parseNumbers reuses numbers_ per pair
            pairs.clear();
            if (lex_.peek().kind == Tok::RBracket) {
                lex_.next();
            } else {
                for (;;) {
                    if (!lex_.expect(Tok::LParen) || !parseNumbers(2, Tok::RParen, true)) return false;
                    pairs.insert(pairs.end(), numbers_.begin(), numbers_.end());
                    const Token t = lex_.next();
                    if (t.kind == Tok::RBracket) break;
                    if (t.kind != Tok::Comma) return false;
                    if (lex_.peek().kind == Tok::RBracket) {
                        lex_.next();
                        break;
                    }
                }
            }
            setFloats(out, {static_cast<std::uint32_t>(pairs.size() / 2), 2}, pairs.data(), pairs.size());
            return true;
        }
        case Type::IntArray: {
            if (!lex_.expect(Tok::LBracket)) return false;
            out.data.clear();
            if (lex_.peek().kind == Tok::RBracket) {
                lex_.next();
            } else {
                for (;;) {
                    Token t;
                    if (!lex_.expect(Tok::Number, &t)) return false;
                    append(out.data, toInt(t.text));
                    t = lex_.next();
                    if (t.kind == Tok::RBracket) break;
                    if (t.kind != Tok::Comma) return false;
                    if (lex_.peek().kind == Tok::RBracket) {
                        lex_.next();
                        break;
                    }
                }
            }
            const std::size_t n = out.data.size() / sizeof(std::int64_t);
            out.dtype = DType::Int64;
            out.shape.assign({static_cast<std::uint32_t>(n)});
            out.strings.clear();
            return true;
        }
        case Type::FloatArray: {
            // An array of two or three floats is written as a tuple, since that is its type.
            const Token open = lex_.next();
            if (open.kind == Tok::LParen) {
                if (!parseNumbers(0, Tok::RParen, true) || (numbers_.size() != 2 && numbers_.size() != 3))
                    return false;
            } else if (open.kind != Tok::LBracket || !parseNumbers(0, Tok::RBracket, true)) {
                return false;
            }
            setFloats(out, {static_cast<std::uint32_t>(numbers_.size())}, numbers_.data(), numbers_.size());
            return true;
        }
        case Type::General: break;
    }
    return false;
}

bool Parser::parseNumLeaf(DType dtype, std::vector<std::uint8_t>& out) {
    Token t = lex_.next();
    switch (dtype) {
        case DType::Bool:
            if (t.kind != Tok::Ident || (t.text != "true" && t.text != "false")) return false;
            out.push_back(t.text == "true" ? 1 : 0);
            return true;
        case DType::Char:
            if (t.kind != Tok::Char) return false;
            out.push_back(static_cast<std::uint8_t>(t.escaped ? unescaped(t.text[1]) : t.text[0]));
            return true;
        case DType::Str: return false;
        default: break;
    }
    if (t.kind != Tok::Number) return false;
    switch (dtype) {
        case DType::Int8: append(out, static_cast<std::uint8_t>(toInt(t.text))); return true;
        case DType::Int16: append(out, static_cast<std::uint16_t>(toInt(t.text))); return true;
        case DType::Int32: append(out, static_cast<std::uint32_t>(toInt(t.text))); return true;
        case DType::Int64: append(out, toInt(t.text)); return true;
        case DType::UInt8: append(out, static_cast<std::uint8_t>(toUInt(t.text))); return true;
        case DType::UInt16: append(out, static_cast<std::uint16_t>(toUInt(t.text))); return true;
        case DType::UInt32: append(out, static_cast<std::uint32_t>(toUInt(t.text))); return true;
        case DType::UInt64: append(out, toUInt(t.text)); return true;
        case DType::Float32: append(out, static_cast<float>(toDouble(t.text))); return true;
        case DType::Float64: append(out, toDouble(t.text)); return true;
        case DType::Float16: append(out, floatToHalf(static_cast<float>(toDouble(t.text)))); return true;
        default: return false;
    }
}

bool Parser::parseStringLeaf(std::vector<std::string>& out) {
    Token t;
    if (!lex_.expect(Tok::String, &t)) return false;
    out.push_back(stringValue(t));
    return true;
}

bool Parser::parseGeneralValue(DType dtype, const std::vector<std::uint32_t>& shape, bool dynamic, Value& out) {
    out.dtype = dtype;
    out.shape = shape;
    out.data.clear();
    out.strings.clear();
    if (shape.empty() && !dynamic) return parseLeaf(dtype, out);

    if (dtype == DType::Str) {
        if (!lex_.expect(Tok::LBracket)) return false;
        if (!dynamic && shape.size() >= 2 && lex_.peek().kind == Tok::LBracket) {
            // Nested, as the writer puts a string array of rank two or more.
            return parseNumNested(dtype, shape, out);
        }
        for (;;) {
            const Token t = lex_.next();
            if (t.kind == Tok::RBracket) break;
            if (t.kind != Tok::String) return false;
            out.strings.push_back(stringValue(t));
            if (lex_.peek().kind == Tok::Comma) lex_.next();
        }
        if (dynamic) {
            if (out.strings.size() > std::numeric_limits<std::uint32_t>::max()) return false;
            out.shape = {static_cast<std::uint32_t>(out.strings.size())};
            return true;
        }
        // The declared shape stands; the strings are fitted to it so the value stays whole.
        const std::size_t n = out.count();
        if (out.strings.size() < n && !takeUnbacked(n - out.strings.size())) return false;
        out.strings.resize(n);
        return true;
    }

    if (dynamic) {
        if (!lex_.expect(Tok::LBracket)) return false;
        for (;;) {
            if (lex_.peek().kind == Tok::RBracket) {
                lex_.next();
                break;
            }
            if (!parseNumLeaf(dtype, out.data)) return false;
            if (lex_.peek().kind == Tok::Comma) lex_.next();
        }
        const std::size_t n = out.data.size() / dtypeWidth(dtype);
        if (n > std::numeric_limits<std::uint32_t>::max()) return false;
        out.shape = {static_cast<std::uint32_t>(n)};
        return true;
    }
    if (!lex_.expect(Tok::LBracket)) return false;
    return parseNumNested(dtype, shape, out);
}

// The bracketed form of a declared shape, the first "[" already consumed: exactly shape[d]
// items in each dimension, commas between, an optional trailing comma. Walked with a counter
// per dimension, since the rank comes from the text and is not bounded.
bool Parser::parseNumNested(DType dtype, const std::vector<std::uint32_t>& shape, Value& out) {
    const std::size_t rank = shape.size();
    if (dtype != DType::Str) out.data.reserve(out.count() * dtypeWidth(dtype));
    // Items done so far in each open dimension; ranks up to eight need no allocation.
    std::array<std::uint32_t, 8> fixed{};
    std::vector<std::uint32_t> more;
    if (rank > fixed.size()) more.assign(rank, 0);
    std::uint32_t* const done = rank > fixed.size() ? more.data() : fixed.data();
    std::size_t dim = 0;
    for (;;) {
        if (done[dim] == shape[dim]) {
            if (shape[dim] != 0 && lex_.peek().kind == Tok::Comma) lex_.next();
            if (!lex_.expect(Tok::RBracket)) return false;
            if (dim == 0) return true;
            ++done[--dim];
            continue;
        }
        if (done[dim] != 0 && !lex_.expect(Tok::Comma)) return false;
        if (dim + 1 == rank) {
            if (!parseLeaf(dtype, out)) return false;
            ++done[dim];
        } else {
            if (!lex_.expect(Tok::LBracket)) return false;
            done[++dim] = 0;
        }
    }
}

// A value whose shape its brackets tell: a leaf alone is a scalar, and nested lists must be
// regular. Commas between items are optional.
bool Parser::parseInferred(DType dtype, Value& out) {
    out.dtype = dtype;
    out.shape.clear();
    out.data.clear();
    out.strings.clear();
    if (lex_.peek().kind != Tok::LBracket) return parseLeaf(dtype, out);
    lex_.next();

    constexpr std::int64_t kUnknown = -1;
    std::vector<std::int64_t> dims{kUnknown};  // size of each dimension once a list closed there
    std::vector<std::uint64_t> items{0};       // items so far in the open list at each depth
    std::size_t rank = 0;                      // 0 while no leaf or empty list fixed it
    std::size_t depth = 0;
    for (;;) {
        const Token t = lex_.peek();
        if (t.kind == Tok::RBracket) {
            lex_.next();
            const std::uint64_t n = items[depth];
            if (n == 0) {
                if (rank == 0) rank = depth + 1;
                if (rank != depth + 1) return false;
            }
            if (n > std::numeric_limits<std::uint32_t>::max()) return false;
            if (dims[depth] == kUnknown)
                dims[depth] = static_cast<std::int64_t>(n);
            else if (dims[depth] != static_cast<std::int64_t>(n))
                return false;
            if (depth == 0) break;
            ++items[--depth];
        } else if (t.kind == Tok::LBracket) {
            lex_.next();
            if (rank != 0 && depth + 1 >= rank) return false;
            ++depth;
            if (dims.size() <= depth) {
                dims.push_back(kUnknown);
                items.push_back(0);
            }
            items[depth] = 0;
        } else {
            if (rank == 0) rank = depth + 1;
            if (rank != depth + 1) return false;
            if (!parseLeaf(dtype, out)) return false;
            ++items[depth];
        }
        if (lex_.peek().kind == Tok::Comma) lex_.next();
    }
    out.shape.reserve(rank);
    for (std::size_t d = 0; d < rank; ++d) out.shape.push_back(static_cast<std::uint32_t>(dims[d]));
    return true;
}

}  // namespace

std::optional<Document> parseZelthaText(std::string_view text, ParseError* error) {
    auto headerFailure = [&]() -> std::optional<Document> {
        if (error) {
            error->line = 1;
            error->column = 1;
            error->message = "missing or unsupported '#zeltha <version>' header";
        }
        return std::nullopt;
    };
    auto isSpace = [](char c) { return c == '\t' || c == '\n' || c == '\r' || c == ' '; };

    const std::size_t n = text.size();
    std::size_t i = 0;
    while (i < n && isSpace(text[i])) ++i;
    if (i == n || n - i <= 7 || text.substr(i, 7) != "#zeltha") return headerFailure();
    i += 7;
    while (i < n && (text[i] == ' ' || text[i] == '\t')) ++i;
    if (i == n) return headerFailure();
    std::size_t end = i;
    while (end < n && !isSpace(text[end])) ++end;
    const std::string_view version = text.substr(i, end - i);
    if (version != "1.0" && version != "2.0" && version != "3.0" && version != "4.0") return headerFailure();
    const std::size_t lf = text.find('\n', end);
    const std::size_t bodyStart = lf == std::string_view::npos ? n : lf + 1;
    const std::string_view body = text.substr(bodyStart);

    Document doc;
    Parser parser(body, doc);
    if (parser.parseTop()) return doc;
    parser.failGeneral();
    if (error) {
        // Positions are counted only now, once, from the start of the text.
        const std::size_t at = bodyStart + parser.failOffset();
        std::size_t line = 1;
        std::size_t lineStart = 0;
        for (const char* p = text.data(); (p = static_cast<const char*>(std::memchr(p, '\n', at - (p - text.data())))); ++p) {
            ++line;
            lineStart = static_cast<std::size_t>(p - text.data()) + 1;
        }
        error->line = static_cast<unsigned>(line);
        error->column = static_cast<unsigned>(at - lineStart + 1);
        error->message = parser.message();
    }
    return std::nullopt;
}

}  // namespace ostrevik
