// The text format's writer: the whole document in one pass into one string.
#include "TextNumbers.h"

#include <ostrevik/io.h>

#include <charconv>
#include <cmath>
#include <algorithm>
#include <cstring>

namespace ostrevik {

namespace {

// ---------------------------------------------------------------------------------------------
// Number forms. printf is correct but slow, so the digits are computed exactly in 128-bit
// integers and only values outside that range go through the library's general formatting.

using U128 = unsigned __int128;

constexpr std::uint64_t kPow10[20] = {
    1ull,
    10ull,
    100ull,
    1000ull,
    10000ull,
    100000ull,
    1000000ull,
    10000000ull,
    100000000ull,
    1000000000ull,
    10000000000ull,
    100000000000ull,
    1000000000000ull,
    10000000000000ull,
    100000000000000ull,
    1000000000000000ull,
    10000000000000000ull,
    100000000000000000ull,
    1000000000000000000ull,
    10000000000000000000ull,
};

constexpr int kMaxPow5 = 27;  // 5^27 is the largest power of five below 2^63

constexpr std::uint64_t pow5(int n) {
    std::uint64_t v = 1;
    for (int i = 0; i < n; ++i) v *= 5;
    return v;
}

int bitLength(std::uint64_t v) {
    return 64 - __builtin_clzll(v);
}

// The first `precision` significant digits of x (finite, positive), rounded half to even as
// printf rounds, and the decimal exponent of the first digit. False when the exact arithmetic
// would not fit in 128 bits.
bool exactDigits(double x, int precision, std::uint64_t& digits, int& exponent) {
    int e2 = 0;
    const double fraction = std::frexp(x, &e2);
    std::uint64_t m = static_cast<std::uint64_t>(std::ldexp(fraction, 53));
    int e = e2 - 53;
    const int zeros = __builtin_ctzll(m);
    m >>= zeros;
    e += zeros;
    const int mBits = bitLength(m);
    // floor(log10(x)) or one less; the digit count below settles which.
    int k = static_cast<int>(std::floor((e2 - 1) * 0.30102999566398120));
    for (int attempt = 0; attempt < 2; ++attempt, ++k) {
        const int p = precision - 1 - k;  // scale x by 10^p = 2^p * 5^p
        if (p > kMaxPow5 || p < -kMaxPow5) return false;
        const int t = e + p;
        const std::uint64_t five = pow5(p < 0 ? -p : p);
        U128 num = m;
        U128 den = 1;
        int numBits = mBits;
        int denBits = 1;
        if (p >= 0) {
            num *= five;
            numBits += bitLength(five);
        } else {
            den = five;
            denBits = bitLength(five);
        }
        if (t >= 0) {
            numBits += t;
            if (numBits > 127) return false;
            num <<= t;
        } else {
            denBits += -t;
            if (denBits > 127) return false;
            den <<= -t;
        }
        if (numBits > 127) return false;
        U128 q;
        U128 r;
        if (p >= 0) {
            const int shift = t < 0 ? -t : 0;
            q = num >> shift;
            r = num - (q << shift);
        } else {
            q = num / den;
            r = num % den;
        }
        if (q >= kPow10[precision]) continue;
        const U128 twice = r << 1;
        if (twice > den || (twice == den && (q & 1) != 0)) ++q;
        if (q == kPow10[precision]) {
            q = kPow10[precision - 1];
            ++k;
        }
        digits = static_cast<std::uint64_t>(q);
        exponent = k;
        return true;
    }
    return false;
}

// printf("%.*g", precision, x) for a finite, non-zero x.
char* writeGeneral(char* out, double x, int precision) {
    if (x < 0) {
        *out++ = '-';
        x = -x;
    }
    std::uint64_t q = 0;
    int k = 0;
    if (!exactDigits(x, precision, q, k))
        return std::to_chars(out, out + kNumberTextMax - 1, x, std::chars_format::general, precision).ptr;
    char d[20];
    for (int i = precision - 1; i >= 0; --i) {
        d[i] = static_cast<char>('0' + q % 10);
        q /= 10;
    }
    int len = precision;
    while (len > 1 && d[len - 1] == '0') --len;
    if (k < -4 || k >= precision) {
        *out++ = d[0];
        if (len > 1) {
            *out++ = '.';
            std::memcpy(out, d + 1, static_cast<std::size_t>(len - 1));
            out += len - 1;
        }
        *out++ = 'e';
        *out++ = k < 0 ? '-' : '+';
        const int a = k < 0 ? -k : k;
        if (a < 10) *out++ = '0';
        return std::to_chars(out, out + 4, a).ptr;
    }
    if (k >= 0) {
        const int whole = k + 1;
        for (int i = 0; i < whole; ++i) *out++ = i < len ? d[i] : '0';
        if (len > whole) {
            *out++ = '.';
            std::memcpy(out, d + whole, static_cast<std::size_t>(len - whole));
            out += len - whole;
        }
        return out;
    }
    *out++ = '0';
    *out++ = '.';
    for (int i = 0; i < -k - 1; ++i) *out++ = '0';
    std::memcpy(out, d, static_cast<std::size_t>(len));
    return out + len;
}

char* writeNumber(char* out, double x, double bound, int precision) {
    if (!std::isfinite(x) || x == 0) {
        *out = '0';
        return out + 1;
    }
    if (x == std::trunc(x) && std::fabs(x) < bound)
        return std::to_chars(out, out + kNumberTextMax, static_cast<long long>(x)).ptr;
    return writeGeneral(out, x, precision);
}

// ---------------------------------------------------------------------------------------------
// Tokens

constexpr std::string_view kDTypeTokens[] = {"bool",   "char",   "int8",   "int16",   "int32",
                                        "int64",  "uint8",  "uint16", "uint32",  "uint64",
                                        "float32", "float64", "str",   "float16"};

constexpr std::string_view kTypeTokens[] = {"float",  "int",      "bool",     "float2", "float3", "matrix",
                                       "spectrum", "float2[]", "int[]", "float[]"};

constexpr std::string_view kInterpTokens[] = {"held", "linear", "bezier"};
constexpr std::string_view kHandleTokens[] = {"auto", "vector", "aligned", "free"};

bool isNameStart(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}

bool isNameByte(unsigned char c) {
    return isNameStart(c) || (c >= '0' && c <= '9');
}

bool isBareName(std::string_view s, bool dots) {
    if (s.empty() || !isNameStart(static_cast<unsigned char>(s[0]))) return false;
    for (std::size_t i = 1; i < s.size(); ++i) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (!isNameByte(c) && !(dots && c == '.')) return false;
    }
    return true;
}

template <class T>
T load(const std::uint8_t* p) {
    T v;
    std::memcpy(&v, p, sizeof(T));
    return v;
}

std::string_view dtypeToken(DType d) {
    const auto i = static_cast<std::size_t>(d);
    return i < std::size(kDTypeTokens) ? kDTypeTokens[i] : "float32";
}

// ---------------------------------------------------------------------------------------------
// The writer

// The output: a string written through a cursor, grown by doubling, cut to size at the end.
// Most pieces are a few bytes long, and this keeps each one a bounds check and a copy.
class Out {
public:
    explicit Out(std::size_t expected) { buf_.resize(std::max<std::size_t>(expected, 64)); }

    void put(char c) {
        *room(1) = c;
        ++len_;
    }
    void put(std::string_view s) {
        std::memcpy(room(s.size()), s.data(), s.size());
        len_ += s.size();
    }
    void put(const char* from, const char* to) { put(std::string_view(from, static_cast<std::size_t>(to - from))); }
    void fill(std::size_t n, char c) {
        std::memset(room(n), c, n);
        len_ += n;
    }
    std::string take() {
        buf_.resize(len_);
        return std::move(buf_);
    }

private:
    char* room(std::size_t n) {
        if (buf_.size() - len_ < n) buf_.resize(std::max(buf_.size() * 2, len_ + n));
        return buf_.data() + len_;
    }

    std::string buf_;
    std::size_t len_ = 0;
};

class Writer {
public:
    Writer(Out& out, const Document& doc, int indent) : out_(out), doc_(doc), indent_(indent) {}

    void document();

private:
    void spaces(std::size_t depth) { out_.fill(depth * static_cast<std::size_t>(indent_), ' '); }

    void number(double x) {
        char buf[kNumberTextMax];
        out_.put(buf, writeScalarText(buf, x));
    }
    void doubleLeaf(double x) {
        char buf[kNumberTextMax];
        out_.put(buf, writeDoubleText(buf, x));
    }
    template <class I>
    void integer(I v) {
        char buf[24];
        out_.put(buf, std::to_chars(buf, buf + sizeof buf, v).ptr);
    }

    void quoted(std::string_view s);
    void nameToken(std::string_view s, bool dots) {
        if (isBareName(s, dots))
            out_.put(s);
        else
            quoted(s);
    }
    void pathText(const Path& p);

    void typeToken(const Property& p);
    void valueForm(const Value& v);
    void generalForm(const Value& v);
    void leaf(const Value& v, std::size_t i);
    void floatsAt(const Value& v, std::size_t first, std::size_t n, char open, char close);

    void property(const std::string& name, const Property& p, std::size_t depth);
    void keyframe(const Keyframe& k, const Property& p, std::size_t depth);
    void handleList(const char* key, const std::vector<std::pair<double, double>>& list);
    void elementHead(const Element& e, std::size_t depth);

    void groupConnections();
    std::vector<std::uint8_t> markParents() const;

    Out& out_;
    const Document& doc_;
    int indent_;

    // Connections by the position of their target element: element i owns
    // order_[groupStart_[i], groupStart_[i + 1]), indexes into `connections` in their order. So
    // each element finds its own without scanning them all or hashing its path.
    std::vector<std::uint32_t> groupStart_;
    std::vector<std::uint32_t> order_;
};

void Writer::quoted(std::string_view s) {
    out_.put('"');
    std::size_t start = 0;
    for (std::size_t i = 0; i < s.size(); ++i) {
        const char* escape = nullptr;
        switch (s[i]) {
            case '"': escape = "\\\""; break;
            case '\\': escape = "\\\\"; break;
            case '\n': escape = "\\n"; break;
            case '\t': escape = "\\t"; break;
            default: continue;
        }
        out_.put(s.substr(start, i - start));
        out_.put(escape);
        start = i + 1;
    }
    out_.put(s.substr(start));
    out_.put('"');
}

void Writer::pathText(const Path& p) {
    if (p.segments.empty() && !p.property) {
        out_.put('/');
        return;
    }
    for (const auto& s : p.segments) {
        out_.put('/');
        out_.put(s);
    }
    if (p.property) {
        out_.put('.');
        out_.put(*p.property);
    }
}

void Writer::typeToken(const Property& p) {
    if (!p.typeName.empty()) {
        out_.put(p.typeName);
        return;
    }
    const Type t = p.value.type();
    if (t != Type::General) {
        out_.put(kTypeTokens[static_cast<std::size_t>(t)]);
        return;
    }
    out_.put(dtypeToken(p.value.dtype));
    if (p.value.shape.empty()) return;
    out_.put('[');
    for (std::size_t i = 0; i < p.value.shape.size(); ++i) {
        if (i) out_.put(',');
        integer(p.value.shape[i]);
    }
    out_.put(']');
}

// `n` floats from element `first` on, between `open` and `close`; all zero when the data is
// shorter than the whole run, as the typed reads of a value behave.
void Writer::floatsAt(const Value& v, std::size_t first, std::size_t n, char open, char close) {
    const bool whole = v.data.size() >= (first + n) * sizeof(float);
    out_.put(open);
    for (std::size_t i = 0; i < n; ++i) {
        if (i) out_.put(", ");
        number(whole ? load<float>(v.data.data() + (first + i) * sizeof(float)) : 0.0f);
    }
    out_.put(close);
}

void Writer::valueForm(const Value& v) {
    const auto* d = v.data.data();
    switch (v.type()) {
        case Type::Float: number(v.data.size() >= 4 ? load<float>(d) : 0.0f); return;
        case Type::Int: integer(v.data.size() >= 8 ? load<std::int64_t>(d) : 0); return;
        case Type::Bool: out_.put((!v.data.empty() && d[0] != 0) ? "true" : "false"); return;
        case Type::Float2: floatsAt(v, 0, 2, '(', ')'); return;
        case Type::Float3: floatsAt(v, 0, 3, '(', ')'); return;
        case Type::Matrix: floatsAt(v, 0, 6, '(', ')'); return;
        case Type::Spectrum: floatsAt(v, 0, 32, '[', ']'); return;
        case Type::Float2Array: {
            std::size_t n = std::min<std::size_t>(v.shape[0], v.data.size() / (2 * sizeof(float)));
            out_.put('[');
            for (std::size_t i = 0; i < n; ++i) {
                if (i) out_.put(", ");
                floatsAt(v, 2 * i, 2, '(', ')');
            }
            out_.put(']');
            return;
        }
        case Type::IntArray: {
            std::size_t n = v.data.size() / sizeof(std::int64_t);
            out_.put('[');
            for (std::size_t i = 0; i < n; ++i) {
                if (i) out_.put(", ");
                integer(load<std::int64_t>(d + i * sizeof(std::int64_t)));
            }
            out_.put(']');
            return;
        }
        case Type::FloatArray: {
            std::size_t n = v.data.size() / sizeof(float);
            out_.put('[');
            for (std::size_t i = 0; i < n; ++i) {
                if (i) out_.put(", ");
                number(load<float>(d + i * sizeof(float)));
            }
            out_.put(']');
            return;
        }
        case Type::General: generalForm(v); return;
    }
}

// Element i of the value's storage as a leaf; the caller has checked that it exists.
void Writer::leaf(const Value& v, std::size_t i) {
    const std::uint8_t* p = v.data.data() + i * dtypeWidth(v.dtype);
    switch (v.dtype) {
        case DType::Bool: out_.put(*p != 0 ? "true" : "false"); return;
        case DType::Char: {
            out_.put('\'');
            switch (*p) {
                case '\'': out_.put("\\'"); break;
                case '\\': out_.put("\\\\"); break;
                case '\n': out_.put("\\n"); break;
                case '\t': out_.put("\\t"); break;
                default: out_.put(static_cast<char>(*p));
            }
            out_.put('\'');
            return;
        }
        case DType::Int8: integer(load<std::int8_t>(p)); return;
        case DType::Int16: integer(load<std::int16_t>(p)); return;
        case DType::Int32: integer(load<std::int32_t>(p)); return;
        case DType::Int64: integer(load<std::int64_t>(p)); return;
        case DType::UInt8: integer(load<std::uint8_t>(p)); return;
        case DType::UInt16: integer(load<std::uint16_t>(p)); return;
        case DType::UInt32: integer(load<std::uint32_t>(p)); return;
        case DType::UInt64: integer(load<std::uint64_t>(p)); return;
        case DType::Float32: number(load<float>(p)); return;
        case DType::Float16: number(halfToFloat(load<std::uint16_t>(p))); return;
        case DType::Float64: doubleLeaf(load<double>(p)); return;
        case DType::Str: quoted(v.strings[i]); return;
    }
}

// Nested brackets over the shape, walked with a counter per dimension rather than by recursion,
// since a value's rank is not bounded.
void Writer::generalForm(const Value& v) {
    const std::size_t width = dtypeWidth(v.dtype);
    const std::size_t leaves = v.dtype == DType::Str ? v.strings.size() : (width ? v.data.size() / width : 0);
    std::size_t next = 0;
    auto nextLeaf = [&] {
        if (next < leaves)
            leaf(v, next++);
        else
            out_.put('0');
    };
    if (v.shape.empty()) {
        nextLeaf();
        return;
    }
    const std::size_t rank = v.shape.size();
    std::uint32_t few[8];
    std::vector<std::uint32_t> many;
    std::uint32_t* done = few;
    if (rank > std::size(few)) {
        many.resize(rank);
        done = many.data();
    }
    done[0] = 0;
    std::size_t dim = 0;
    out_.put('[');
    for (;;) {
        if (done[dim] == v.shape[dim]) {
            out_.put(']');
            if (dim == 0) return;
            ++done[--dim];
            continue;
        }
        if (done[dim]) out_.put(", ");
        if (dim + 1 == rank) {
            nextLeaf();
            ++done[dim];
        } else {
            done[++dim] = 0;
            out_.put('[');
        }
    }
}

void Writer::handleList(const char* key, const std::vector<std::pair<double, double>>& list) {
    if (list.empty()) return;
    out_.put(key);
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (i) out_.put(", ");
        number(list[i].first);
        out_.put(", ");
        number(list[i].second);
    }
    out_.put(']');
}

void Writer::keyframe(const Keyframe& k, const Property& p, std::size_t depth) {
    spaces(depth);
    number(k.time);
    out_.put(": ");
    if (p.typeName.empty())
        valueForm(k.value);
    else
        generalForm(k.value);
    const bool autoHandles = k.handle == HandleType::Auto && k.left.empty() && k.right.empty();
    if (!autoHandles || k.interp != Interp::Linear) {
        const auto interp = static_cast<std::size_t>(k.interp);
        out_.put(" (interp = ");
        out_.put(interp < std::size(kInterpTokens) ? kInterpTokens[interp] : "linear");
        if (!autoHandles) {
            const auto handle = static_cast<std::size_t>(k.handle);
            out_.put(", handle = ");
            out_.put(handle < std::size(kHandleTokens) ? kHandleTokens[handle] : "auto");
            handleList(", left = [", k.left);
            handleList(", right = [", k.right);
        }
        out_.put(')');
    }
    out_.put(",\n");
}

void Writer::property(const std::string& name, const Property& p, std::size_t depth) {
    spaces(depth);
    typeToken(p);
    out_.put(' ');
    nameToken(name, true);
    out_.put(" = ");
    if (p.typeName.empty())
        valueForm(p.value);
    else
        generalForm(p.value);
    out_.put('\n');
    if (!p.samples || p.samples->keys.empty()) return;
    spaces(depth);
    typeToken(p);
    out_.put(' ');
    nameToken(name, true);
    out_.put(".timeSamples = {\n");
    for (const auto& k : p.samples->keys) keyframe(k, p, depth + 1);
    spaces(depth);
    out_.put("}\n");
}

void Writer::elementHead(const Element& e, std::size_t depth) {
    spaces(depth);
    out_.put(e.specifier == Specifier::Over ? "over" : "def");
    if (!e.type.empty()) {
        out_.put(' ');
        nameToken(e.type, false);
    }
    if (!e.path.segments.empty() && !Path::isAnonymousSegment(e.path.segments.back())) {
        out_.put(" \"");
        out_.put(e.path.segments.back());
        out_.put('"');
    }
    out_.put(" {\n");

    const std::size_t inner = depth + 1;
    for (const auto& [name, p] : e.properties) property(name, p, inner);

    const auto reference = e.metadata.find("reference");
    if (reference != e.metadata.end()) {
        spaces(inner);
        out_.put("reference ");
        quoted(reference->second);
        const auto referencePath = e.metadata.find("referencePath");
        if (referencePath != e.metadata.end()) {
            out_.put(' ');
            quoted(referencePath->second);
        }
        out_.put('\n');
    }
    for (const auto& [key, value] : e.metadata) {
        if (key == "reference" || key == "referencePath") continue;
        spaces(inner);
        out_.put("string ");
        nameToken(key, false);
        out_.put(" = ");
        quoted(value);
        out_.put('\n');
    }
    for (const auto& name : e.unsetProperties) {
        spaces(inner);
        out_.put("unset ");
        nameToken(name, false);
        out_.put('\n');
    }
    for (const auto& key : e.unsetMetadata) {
        spaces(inner);
        out_.put("unset string ");
        nameToken(key, false);
        out_.put('\n');
    }

    if (groupStart_.empty()) return;
    const auto position = static_cast<std::size_t>(&e - doc_.elements().data());
    const auto& connections = doc_.connections();
    for (std::uint32_t i = groupStart_[position]; i < groupStart_[position + 1]; ++i) {
        const Connection& c = connections[order_[i]];
        spaces(inner);
        out_.put("connect ");
        nameToken(c.target.property ? std::string_view(*c.target.property) : std::string_view(), true);
        out_.put(" = <");
        pathText(c.source);
        out_.put(">\n");
    }
}

// A connection belongs to the element that the document's index names for its target. (Only
// a raw insert can put two elements on one path; the later one then gets the connections.)
void Writer::groupConnections() {
    const auto& connections = doc_.connections();
    if (connections.empty()) return;
    const Element* first = doc_.elements().data();
    constexpr std::uint32_t kNone = ~std::uint32_t{0};
    std::vector<std::uint32_t> owner(connections.size(), kNone);
    groupStart_.assign(doc_.elements().size() + 1, 0);
    for (std::size_t i = 0; i < connections.size(); ++i) {
        if (const Element* e = doc_.element(connections[i].target)) {
            owner[i] = static_cast<std::uint32_t>(e - first);
            ++groupStart_[owner[i] + 1];
        }
    }
    for (std::size_t p = 1; p < groupStart_.size(); ++p) groupStart_[p] += groupStart_[p - 1];
    std::vector<std::uint32_t> fill(groupStart_.begin(), groupStart_.end() - 1);
    order_.resize(groupStart_.back());
    for (std::size_t i = 0; i < connections.size(); ++i)
        if (owner[i] != kNone) order_[fill[owner[i]]++] = static_cast<std::uint32_t>(i);
}

// A rough size of the text, so that the output is allocated about once.
std::size_t estimateSize(const Document& doc, int indent) {
    std::size_t total = 64;
    auto valueSize = [](const Value& v) {
        if (v.dtype != DType::Str) return 16 + v.data.size() * 3;
        std::size_t n = 16;
        for (const auto& s : v.strings) n += s.size() + 4;
        return n;
    };
    for (const auto& e : doc.elements()) {
        const std::size_t margin = (e.path.segments.size() + 1) * static_cast<std::size_t>(indent);
        std::size_t lines = 2;
        total += 16 + e.type.size() + (e.path.segments.empty() ? 0 : e.path.segments.back().size());
        for (const auto& [name, p] : e.properties) {
            total += 16 + name.size() + valueSize(p.value);
            ++lines;
            if (!p.samples) continue;
            total += 32 + name.size();
            lines += 2;
            for (const auto& k : p.samples->keys) total += 24 + margin + valueSize(k.value);
        }
        for (const auto& [key, value] : e.metadata) total += 16 + key.size() + value.size();
        for (const auto& name : e.unsetProperties) total += 8 + name.size();
        for (const auto& key : e.unsetMetadata) total += 16 + key.size();
        lines += e.metadata.size() + e.unsetProperties.size() + e.unsetMetadata.size();
        total += lines * margin;
    }
    total += doc.connections().size() * 48;
    total += (doc.deletions().size() + doc.connectionDeletions().size() + doc.globLinks().size()) * 48;
    for (const auto& r : doc.reorders()) total += 32 + r.order.size() * 32;
    return total;
}

// Which elements have children, so that only those look up their child list. Documents come
// mostly in preorder, so the chain of the latest element at each depth usually holds an
// element's parent; the index is asked only when it doesn't. (Should a raw insert have put two
// elements on one path, the one found here writes the children.)
std::vector<std::uint8_t> Writer::markParents() const {
    const auto& elements = doc_.elements();
    std::vector<std::uint8_t> marks(elements.size(), 0);
    std::vector<std::size_t> chain;  // chain[k]: the latest element with k + 1 segments
    for (std::size_t j = 0; j < elements.size(); ++j) {
        const auto& segments = elements[j].path.segments;
        const std::size_t depth = segments.size();
        if (depth == 0) continue;
        if (depth >= 2) {
            bool found = false;
            if (chain.size() >= depth - 1) {
                const auto& candidate = elements[chain[depth - 2]].path.segments;
                found = candidate.size() + 1 == depth && std::equal(candidate.begin(), candidate.end(), segments.begin());
                if (found) marks[chain[depth - 2]] = 1;
            }
            if (!found) {
                if (const Element* parent = doc_.element(Path(std::vector<std::string>(segments.begin(), segments.end() - 1), std::nullopt)))
                    marks[static_cast<std::size_t>(parent - elements.data())] = 1;
            }
        }
        chain.resize(depth - 1);
        chain.push_back(j);
    }
    return marks;
}

void Writer::document() {
    out_.put("#zeltha 4.0\n");
    groupConnections();
    const auto& elements = doc_.elements();

    struct Frame {
        const std::vector<std::size_t>* children;
        std::size_t next;
        std::size_t depth;
    };
    std::vector<Frame> stack;
    const std::vector<std::uint8_t> parents = markParents();
    auto open = [&](std::size_t position, std::size_t depth) {
        const Element& e = elements[position];
        elementHead(e, depth);
        stack.push_back(Frame{parents[position] ? doc_.childPositions(e.path) : nullptr, 0, depth});
    };

    if (const auto* top = doc_.childPositions(Path())) {
        for (std::size_t i = 0; i < top->size(); ++i) {
            if (i) out_.put('\n');
            open((*top)[i], 0);
            while (!stack.empty()) {
                Frame& f = stack.back();
                if (f.children && f.next < f.children->size()) {
                    const std::size_t child = (*f.children)[f.next++];
                    open(child, f.depth + 1);
                    continue;
                }
                spaces(f.depth);
                out_.put("}\n");
                stack.pop_back();
            }
        }
    }

    for (const auto& p : doc_.deletions()) {
        out_.put("delete ");
        quoted(p.str());
        out_.put('\n');
    }
    for (const auto& p : doc_.connectionDeletions()) {
        out_.put("disconnect ");
        quoted(p.str());
        out_.put('\n');
    }
    for (const auto& link : doc_.globLinks()) {
        out_.put("connect <");
        out_.put(link.targetSpec);
        out_.put("> = <");
        pathText(link.source);
        out_.put(">\n");
    }
    for (const auto& r : doc_.reorders()) {
        out_.put("reorder ");
        quoted(r.parent.str());
        out_.put(" = [");
        for (std::size_t i = 0; i < r.order.size(); ++i) {
            out_.put(i ? ", " : " ");
            quoted(r.order[i].str());
        }
        out_.put(r.order.empty() ? "]\n" : " ]\n");
    }
}

}  // namespace

char* writeScalarText(char* out, double x) {
    return writeNumber(out, x, 1e16, 9);
}

char* writeDoubleText(char* out, double x) {
    return writeNumber(out, x, 1e15, 17);
}

std::string serialize(const Document& doc, int indent) {
    if (indent < 0) indent = 0;
    Out out(estimateSize(doc, indent));
    Writer(out, doc, indent).document();
    return out.take();
}

}  // namespace ostrevik
