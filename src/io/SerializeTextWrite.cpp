// The text format's writer: the whole document in one pass into one string.
#include "TextNumbers.h"
#include "Prefetch.h"

#include <ostrevik/io.h>

#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <algorithm>
#include <cstring>
#include <functional>
#include <optional>
#include <span>
#include <utility>

namespace ostrevik {

namespace {

// ---------------------------------------------------------------------------------------------
// Number forms. printf is correct but slow, so the digits are computed exactly in 128-bit
// integers (in 64 bits where they fit) and only values outside that range go through the
// library's general formatting.

__extension__ typedef unsigned __int128 U128;  // a compiler extension, on purpose

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

// The powers of ten that a double holds exactly.
constexpr double kExactPow10[23] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                    1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

constexpr int kMaxPow5 = 27;  // 5^27 is the largest power of five below 2^63

constexpr auto kPow5 = [] {
    std::array<std::uint64_t, kMaxPow5 + 1> powers{};
    powers[0] = 1;
    for (int i = 1; i <= kMaxPow5; ++i) powers[i] = powers[i - 1] * 5;
    return powers;
}();

int bitLength(std::uint64_t v) {
    return 64 - __builtin_clzll(v);
}

// The first `precision` significant digits of x (finite, positive), rounded half to even as
// printf rounds, and the decimal exponent of the first digit. False when the exact arithmetic
// would not fit in 128 bits.
bool exactDigits(double x, int precision, std::uint64_t& digits, int& exponent) {
    // x = m * 2^e exactly, taken from the bits rather than through the library.
    std::uint64_t bits = 0;
    std::memcpy(&bits, &x, sizeof bits);
    const int biased = static_cast<int>(bits >> 52);
    std::uint64_t m = bits & ((std::uint64_t{1} << 52) - 1);
    int e = -1074;
    if (biased != 0) {
        m |= std::uint64_t{1} << 52;
        e = biased - 1075;
    }
    const int e2 = e + bitLength(m);  // 2^(e2 - 1) <= x < 2^e2
    const int zeros = __builtin_ctzll(m);
    m >>= zeros;
    e += zeros;
    const int mBits = bitLength(m);
    // floor((e2 - 1) * log10(2)), exact in this range: floor(log10(x)) or one less. A power of
    // ten that a double holds settles which at once; elsewhere the digit count below does.
    int k = ((e2 - 1) * 78913) >> 18;
    if (k >= -1 && k < 22 && x >= kExactPow10[k + 1]) ++k;
    for (int attempt = 0; attempt < 2; ++attempt, ++k) {
        const int p = precision - 1 - k;  // scale x by 10^p = 2^p * 5^p
        if (p > kMaxPow5 || p < -kMaxPow5) return false;
        const int t = e + p;
        const std::uint64_t five = kPow5[static_cast<std::size_t>(p < 0 ? -p : p)];
        std::uint64_t q = 0;
        bool up = false;  // whether the dropped part rounds q up
        if (p >= 0 && t < 0 && t > -64 && mBits + bitLength(five) <= 64) {
            // Most numbers: m * 5^p / 2^-t all in 64 bits, rounded without a branch, since
            // which way the rounding goes is anyone's guess.
            const std::uint64_t num = m * five;
            const int shift = -t;
            q = num >> shift;
            const std::uint64_t twice = (num & ((std::uint64_t{1} << shift) - 1)) << 1;
            const std::uint64_t den = std::uint64_t{1} << shift;
            up = (twice > den) | ((twice == den) & ((q & 1) != 0));
        } else {
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
            U128 wide;
            U128 r;
            if (p >= 0) {
                const int shift = t < 0 ? -t : 0;
                wide = num >> shift;
                r = num - (wide << shift);
            } else {
                wide = num / den;
                r = num % den;
            }
            if (wide >= kPow10[precision]) continue;
            q = static_cast<std::uint64_t>(wide);
            const U128 twice = r << 1;
            up = twice > den || (twice == den && (q & 1) != 0);
        }
        if (q >= kPow10[precision]) continue;
        q += up;
        if (q == kPow10[precision]) {
            q = kPow10[precision - 1];
            ++k;
        }
        digits = q;
        exponent = k;
        return true;
    }
    return false;
}

// The eight decimal digits of v < 10^8, leading zeros included, as values 0 to 9 in the bytes
// of a word, the first digit in the lowest byte. Each step divides all lanes of the word at once:
// two groups of four digits, four of two, eight of one.
std::uint64_t eightDigits(std::uint32_t v) {
    std::uint64_t x = v / 10000 | std::uint64_t{v % 10000} << 32;
    std::uint64_t q = (x * 10486 >> 20) & 0x0000007f0000007full;  // x / 100 in 32-bit lanes
    x = q | (x - q * 100) << 16;
    q = (x * 103 >> 10) & 0x000f000f000f000full;  // x / 10 in 16-bit lanes
    return q | (x - q * 10) << 8;
}

// Writes the digits of eightDigits() as ASCII to d[0, 8).
void storeDigits(char* d, std::uint64_t digits) {
    if constexpr (std::endian::native == std::endian::little) {
        const std::uint64_t ascii = digits + 0x3030303030303030ull;
        std::memcpy(d, &ascii, sizeof ascii);
    } else {
        for (int i = 0; i < 8; ++i) d[i] = static_cast<char>('0' + (digits >> (8 * i) & 0xff));
    }
}

// How many of the digits of eightDigits() are zeros at the end.
int trailingZeros(std::uint64_t digits) {
    return digits == 0 ? 8 : __builtin_clzll(digits) / 8;
}

// printf("%.Pg", x) for a finite, non-zero x, with P either 9 or 17. The digits are made where
// most of them stay, rather than in a scratch buffer to be copied from.
template <int P>
char* writeGeneral(char* out, double x) {
    static_assert(P == 9 || P == 17);
    if (x < 0) {
        *out++ = '-';
        x = -x;
    }
    std::uint64_t q = 0;
    int k = 0;
    if (!exactDigits(x, P, q, k))
        return std::to_chars(out, out + kNumberTextMax - 1, x, std::chars_format::general, P).ptr;
    const bool small = k < 0 && k >= -4;  // "0." and up to three zeros before the digits
    if (small) std::memcpy(out, "0.0000", 6);
    char* digits = out + (small ? 1 - k : 1);
    int len = P;  // the digits without trailing zeros
    if constexpr (P == 17) {
        digits[0] = static_cast<char>('0' + q / kPow10[16]);
        q %= kPow10[16];
        const std::uint64_t high = eightDigits(static_cast<std::uint32_t>(q / kPow10[8]));
        const std::uint64_t low = eightDigits(static_cast<std::uint32_t>(q % kPow10[8]));
        storeDigits(digits + 1, high);
        storeDigits(digits + 9, low);
        len = low != 0 ? 17 - trailingZeros(low) : 9 - trailingZeros(high);
    } else {
        digits[0] = static_cast<char>('0' + q / kPow10[8]);
        const std::uint64_t rest = eightDigits(static_cast<std::uint32_t>(q % kPow10[8]));
        storeDigits(digits + 1, rest);
        len = 9 - trailingZeros(rest);
    }
    if (small) return digits + len;
    if (k >= 0 && k < P) {
        // The whole part moves one byte to the left, making room for the point.
        const int whole = k + 1;
        for (int i = 0; i < whole; ++i) out[i] = digits[i];
        if (len <= whole) return out + whole;
        out[whole] = '.';
        return digits + len;
    }
    out[0] = digits[0];
    char* end = out + 1;
    if (len > 1) {
        out[1] = '.';
        end = digits + len;
    }
    *end++ = 'e';
    *end++ = k < 0 ? '-' : '+';
    const int a = k < 0 ? -k : k;
    if (a < 10) *end++ = '0';
    return std::to_chars(end, end + 4, a).ptr;
}

template <int P>
char* writeNumber(char* out, double x, double bound) {
    if (std::fabs(x) < bound) {  // also false for NaN
        // Below the bound a whole number fits in 64 bits, and converting there and back tells one.
        const auto whole = static_cast<long long>(x);
        if (static_cast<double>(whole) == x) return std::to_chars(out, out + kNumberTextMax, whole).ptr;
    } else if (!std::isfinite(x)) {
        *out = '0';
        return out + 1;
    }
    return writeGeneral<P>(out, x);
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

// The output: a string written through a cursor. Its memory is reserved from a generous guess
// but made valid a chunk at a time, so that only the pages the text reaches are touched; past
// the guess the string grows by doubling. Most pieces are a few bytes long, so the common path
// of each write is a bounds check and a copy, small enough to be inlined everywhere.
class Out {
public:
    explicit Out(std::size_t expected) {
        buf_.reserve(expected);
        cur_ = end_ = buf_.data();
    }

    void put(char c) {
        if (cur_ == end_) grow(1);
        *cur_++ = c;
    }
    void put(std::string_view s) {
        if (static_cast<std::size_t>(end_ - cur_) < s.size()) grow(s.size());
        std::memcpy(cur_, s.data(), s.size());
        cur_ += s.size();
    }
    // n spaces; a short run is copied in one fixed-size piece, without a call.
    void spaces(std::size_t n) {
        static constexpr char kRun[] = "                                ";
        constexpr std::size_t kShort = sizeof kRun - 1;
        if (static_cast<std::size_t>(end_ - cur_) < std::max(n, kShort)) grow(std::max(n, kShort));
        if (n <= kShort)
            std::memcpy(cur_, kRun, kShort);
        else
            std::memset(cur_, ' ', n);
        cur_ += n;
    }
    // Room for `n` bytes to be written in place; then the end of what was written.
    char* space(std::size_t n) {
        if (static_cast<std::size_t>(end_ - cur_) < n) grow(n);
        return cur_;
    }
    void advanceTo(char* end) { cur_ = end; }

    std::size_t size() const { return static_cast<std::size_t>(cur_ - buf_.data()); }
    void cut(std::size_t length) { cur_ = buf_.data() + length; }
    std::string take() {
        buf_.resize(size());
        return std::move(buf_);
    }

private:
    static constexpr std::size_t kChunk = std::size_t{1} << 16;

    // Makes room for n more bytes, a chunk at least.
    [[gnu::noinline]] void grow(std::size_t n) {
        const std::size_t used = size();
        buf_.resize(std::max(buf_.size() + kChunk, used + n));
        cur_ = buf_.data() + used;
        end_ = buf_.data() + buf_.size();
    }

    std::string buf_;
    char* cur_;  // the end of the text written
    char* end_;  // the end of the valid bytes of buf_
};

// A guess at the size of the text that reads nothing but counts, so that the output is
// allocated about once. Guessing high costs address space only: the pages beyond the text are
// never touched.
std::size_t expectedSize(const Document& doc) {
    std::size_t total = 64 + doc.elements().size() * 256 + doc.connections().size() * 64;
    total += (doc.deletions().size() + doc.connectionDeletions().size() + doc.globLinks().size()) * 64;
    for (const auto& r : doc.reorders()) total += 32 + r.order.size() * 32;
    return total;
}

constexpr std::uint32_t kNone = ~std::uint32_t{0};

// A hash of an element path, for the table of connection targets.
std::uint64_t pathHash(const std::vector<std::string>& segments) {
    std::uint64_t h = 0;
    for (const auto& s : segments) h = ((h << 23 | h >> 41) ^ std::hash<std::string_view>()(s)) * 0x9e3779b97f4a7c15ull;
    return h;
}

// Counting sort into groups: items[start[g], start[g + 1]) are the indexes i with
// groupOf[i] == g, ascending. Indexes in the group kNone are left out.
void groupBy(const std::vector<std::uint32_t>& groupOf, std::size_t groups, std::vector<std::uint32_t>& start,
             std::vector<std::uint32_t>& items) {
    start.assign(groups + 1, 0);
    for (const std::uint32_t g : groupOf)
        if (g != kNone) ++start[g + 1];
    for (std::size_t g = 1; g <= groups; ++g) start[g] += start[g - 1];
    items.resize(start[groups]);
    std::vector<std::uint32_t> fill(start.begin(), start.end() - 1);
    for (std::size_t i = 0; i < groupOf.size(); ++i)
        if (groupOf[i] != kNone) items[fill[groupOf[i]]++] = static_cast<std::uint32_t>(i);
}

// The element paths that connections target, as keys, each with its connections in their
// order, for the walk in general: there the elements look their own paths up, so that no
// connection needs a lookup in the document's by-path table, whose nodes lie all over memory.
class TargetTable {
public:
    explicit TargetTable(const std::vector<Connection>& connections) : connections_(connections) {
        std::size_t capacity = 16;
        while (capacity < 2 * connections.size()) capacity *= 2;
        slots_.assign(capacity, Slot{0, kNone});
        std::vector<std::uint32_t> keyOf(connections.size());
        for (std::size_t i = 0; i < connections.size(); ++i) {
            const auto& segments = connections[i].target.segments;
            const std::uint64_t h = pathHash(segments);
            Slot& slot = slots_[slotOf(h, segments)];
            if (slot.key == kNone) {
                slot = Slot{h, static_cast<std::uint32_t>(firstOfKey_.size())};
                firstOfKey_.push_back(static_cast<std::uint32_t>(i));
            }
            keyOf[i] = slot.key;
        }
        groupBy(keyOf, firstOfKey_.size(), start_, order_);
    }

    std::size_t keys() const { return firstOfKey_.size(); }

    // The key of the element path with hash `h`, or kNone when no connection targets it.
    std::uint32_t key(std::uint64_t h, const std::vector<std::string>& segments) const {
        return slots_[slotOf(h, segments)].key;
    }

    // The connections of a key, as indexes into `connections`, in their order.
    std::span<const std::uint32_t> connectionsOf(std::uint32_t key) const {
        return std::span<const std::uint32_t>(order_).subspan(start_[key], start_[key + 1] - start_[key]);
    }

private:
    struct Slot {
        std::uint64_t hash;
        std::uint32_t key;  // kNone when empty
    };

    // The slot of the path, or the empty one where it would go.
    std::size_t slotOf(std::uint64_t h, const std::vector<std::string>& segments) const {
        const std::size_t mask = slots_.size() - 1;
        for (std::size_t i = h & mask;; i = (i + 1) & mask) {
            const Slot& slot = slots_[i];
            if (slot.key == kNone) return i;
            if (slot.hash == h && connections_[firstOfKey_[slot.key]].target.segments == segments) return i;
        }
    }

    const std::vector<Connection>& connections_;
    std::vector<Slot> slots_;
    std::vector<std::uint32_t> firstOfKey_;  // key -> its first connection, whose path it is
    std::vector<std::uint32_t> start_;       // key -> its connections in order_
    std::vector<std::uint32_t> order_;
};

// Whether the first `n` segments of two paths agree, compared from the last one, where paths
// mostly differ.
bool samePrefix(const std::vector<std::string>& a, const std::vector<std::string>& b, std::size_t n) {
    for (std::size_t i = n; i-- > 0;)
        if (a[i] != b[i]) return false;
    return true;
}

// The names of one element's children as they come, for a check for repeats when its block
// closes. A few are compared pair by pair, through a cheap fingerprint (length, first and last
// byte) that spares most comparisons; more go through a table of their hashes, which are taken
// as the names come, while their bytes are at hand. Either way the time is linear in the count.
class ChildNames {
public:
    void add(std::string_view name) {
        const std::uint64_t print =
            name.empty() ? 0
                         : name.size() | std::uint64_t{static_cast<unsigned char>(name.front())} << 32 |
                               std::uint64_t{static_cast<unsigned char>(name.back())} << 40;
        names_.push_back(Name{name, print, 0});
        if (names_.size() == kFew + 1)
            for (Name& n : names_) n.hash = hash(n.text);
        else if (names_.size() > kFew)
            names_.back().hash = hash(name);
    }

    // Whether a name came twice; empties the set. `table` is scratch space that the caller
    // keeps, so that it is allocated once.
    bool repeats(std::vector<std::uint64_t>& table) {
        const bool twice = names_.size() <= kFew ? repeatsAmongFew() : repeatsByHash(table);
        names_.clear();
        return twice;
    }

private:
    static constexpr std::size_t kFew = 8;

    struct Name {
        std::string_view text;
        std::uint64_t print;
        std::uint64_t hash;  // only past kFew names
    };

    // 0 marks an empty slot in the table; two names that meet in a hash only cost a false alarm.
    static std::uint64_t hash(std::string_view name) { return std::hash<std::string_view>()(name) | 1; }

    bool repeatsAmongFew() const {
        for (std::size_t i = 1; i < names_.size(); ++i)
            for (std::size_t j = 0; j < i; ++j)
                if (names_[i].print == names_[j].print && names_[i].text == names_[j].text) return true;
        return false;
    }

    bool repeatsByHash(std::vector<std::uint64_t>& table) const {
        std::size_t capacity = 4;
        while (capacity < 2 * names_.size()) capacity *= 2;
        table.assign(capacity, 0);
        for (const Name& name : names_) {
            for (std::size_t i = name.hash & (capacity - 1);; i = (i + 1) & (capacity - 1)) {
                if (table[i] == 0) {
                    table[i] = name.hash;
                    break;
                }
                if (table[i] == name.hash) return true;
            }
        }
        return false;
    }

    std::vector<Name> names_;
};

class Writer {
public:
    Writer(const Document& doc, int indent) : doc_(doc), indent_(indent), out_(expectedSize(doc)) {}

    std::string text();

private:
    void spaces(std::size_t depth) { out_.spaces(depth * static_cast<std::size_t>(indent_)); }

    // Numbers are written in place: through a scratch buffer, each would cost a copy that
    // reads back bytes just written.
    void number(double x) { out_.advanceTo(writeScalarText(out_.space(kNumberTextMax), x)); }
    void doubleLeaf(double x) { out_.advanceTo(writeDoubleText(out_.space(kNumberTextMax), x)); }
    template <class I>
    void integer(I v) {
        char* at = out_.space(24);
        out_.advanceTo(std::to_chars(at, at + 24, v).ptr);
    }

    void quoted(std::string_view s);
    void nameToken(std::string_view s, bool dots) {
        if (isBareName(s, dots))
            out_.put(s);
        else
            quoted(s);
    }
    void pathText(const Path& p);

    void typeToken(const Property& p, Type type);
    void valueForm(const Value& v, Type type);
    void generalForm(const Value& v);
    void leaf(const Value& v, std::size_t i);
    void floatsAt(const Value& v, std::size_t first, std::size_t n, char open, char close);

    void property(const std::string& name, const Property& p, std::size_t depth);
    void keyframe(const Keyframe& k, const Property& p, std::size_t depth);
    void handleList(const char* key, const std::vector<std::pair<double, double>>& list);
    void elementHead(const Element& e, std::size_t depth);
    void connectionLine(const Connection& c, std::size_t depth);
    void close(std::size_t depth) {
        spaces(depth);
        out_.put("}\n");
    }

    bool elementsInStoredOrder();
    void elementsByTree();
    bool sharesPaths(const std::vector<std::uint32_t>& childStart, const std::vector<std::uint32_t>& children) const;
    void childrenByPath(std::vector<std::uint32_t>& childStart, std::vector<std::uint32_t>& children) const;
    void records();

    const Document& doc_;
    int indent_;
    Out out_;
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

// `type` is General for a property with a type name, else the type of its value.
void Writer::typeToken(const Property& p, Type type) {
    if (!p.typeName.empty()) {
        out_.put(p.typeName);
        return;
    }
    if (type != Type::General) {
        out_.put(kTypeTokens[static_cast<std::size_t>(type)]);
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

// The form of `v` for its type, which the caller has taken from it or set to General.
void Writer::valueForm(const Value& v, Type type) {
    const auto* d = v.data.data();
    switch (type) {
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
        valueForm(k.value, k.value.type());
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
    // A type name makes every value form the general one.
    const Type type = p.typeName.empty() ? p.value.type() : Type::General;
    spaces(depth);
    typeToken(p, type);
    out_.put(' ');
    nameToken(name, true);
    out_.put(" = ");
    valueForm(p.value, type);
    out_.put('\n');
    if (!p.samples || p.samples->keys.empty()) return;
    spaces(depth);
    typeToken(p, type);
    out_.put(' ');
    nameToken(name, true);
    out_.put(".timeSamples = {\n");
    for (const auto& k : p.samples->keys) keyframe(k, p, depth + 1);
    close(depth);
}

// The opening line and the body of an element up to its connections.
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

    const auto reference = e.metadata.empty() ? e.metadata.end() : e.metadata.find("reference");
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
}

void Writer::connectionLine(const Connection& c, std::size_t depth) {
    spaces(depth);
    out_.put("connect ");
    nameToken(c.target.property ? std::string_view(*c.target.property) : std::string_view(), true);
    out_.put(" = <");
    pathText(c.source);
    out_.put(">\n");
}

// Writes the elements in stored order, closing and opening blocks as the depth changes, and
// tells whether that was the order of the walk. It is when the elements are stored in preorder,
// each one's parent being the latest element one level up, as the readers and appending leave
// them, and no two elements share a path, which a raw insert alone brings about (the names of
// each element's children are checked for repeats as it closes). Connections are taken in stored
// order as well, each written in the element it targets, which works when they are stored in the
// order of their elements, as a reader leaves them too. On the first thing that doesn't fit, the
// pass stops and the caller starts over.
bool Writer::elementsInStoredOrder() {
    const auto& connections = doc_.connections();
    std::vector<const Element*> open;  // open[k]: the open element with k + 1 segments
    std::vector<ChildNames> names;     // names[k]: those of open[k - 1]'s children; [0]: the top level
    std::vector<std::uint64_t> scratch;
    std::size_t next = 0;  // the first connection not yet written
    bool first = true;
    // Closes the deepest open element; false when two of its children had one name.
    auto closeLast = [&] {
        open.pop_back();
        close(open.size());
        return open.size() + 1 >= names.size() || !names[open.size() + 1].repeats(scratch);
    };
    const auto& elements = doc_.elements();
    for (std::size_t index = 0; index < elements.size(); ++index) {
        prefetch::properties(elements, index);
        const Element& e = elements[index];
        const auto& segments = e.path.segments;
        const std::size_t depth = segments.size();
        if (depth == 0) continue;  // the root path: no walk reaches it
        if (depth > 1) {
            if (open.size() < depth - 1) return false;
            const Path& parent = open[depth - 2]->path;
            if (parent.property || !samePrefix(parent.segments, segments, depth - 1)) return false;
        }
        while (open.size() >= depth)
            if (!closeLast()) return false;
        if (names.size() < depth + 1) names.resize(depth + 1);
        names[depth - 1].add(segments.back());
        if (depth == 1 && !std::exchange(first, false)) out_.put('\n');
        elementHead(e, depth - 1);
        while (next < connections.size() && !e.path.property && connections[next].target.segments.size() == depth &&
               samePrefix(connections[next].target.segments, segments, depth))
            connectionLine(connections[next++], depth);
        open.push_back(&e);
    }
    while (!open.empty())
        if (!closeLast()) return false;
    return next == connections.size() && (names.empty() || !names[0].repeats(scratch));
}

// The walk in general: every element's parent and every connection's element are found first,
// in one pass, and the tree is then walked from the root. The latest element one level up
// usually is the parent; the document's index is asked only when it isn't. Should a raw insert
// have put two elements on one path, each of them holds all the children of that path, as a
// walk by paths has it, and the connections go to the later one, which the document's index
// names; the index then lists the children of every element.
void Writer::elementsByTree() {
    const auto& elements = doc_.elements();
    const std::size_t n = elements.size();
    std::optional<TargetTable> targets;
    if (!doc_.connections().empty()) targets.emplace(doc_.connections());
    std::vector<std::uint32_t> parentOf(n, kNone);
    std::vector<std::uint32_t> ownerOf(targets ? targets->keys() : 0, kNone);  // by key
    std::vector<std::uint32_t> chain;  // chain[k]: the latest element with k + 1 segments
    for (std::size_t j = 0; j < n; ++j) {
        const Path& path = elements[j].path;
        const auto& segments = path.segments;
        const std::size_t depth = segments.size();
        if (depth == 0) continue;
        if (depth == 1) {
            parentOf[j] = static_cast<std::uint32_t>(n);
        } else if (chain.size() >= depth - 1) {
            const Path& candidate = elements[chain[depth - 2]].path;
            if (!candidate.property && candidate.segments.size() + 1 == depth &&
                samePrefix(candidate.segments, segments, depth - 1))
                parentOf[j] = chain[depth - 2];
        }
        if (parentOf[j] == kNone) {
            const Path parentPath(std::vector<std::string>(segments.begin(), segments.end() - 1), std::nullopt);
            if (const Element* parent = doc_.element(parentPath))
                parentOf[j] = static_cast<std::uint32_t>(parent - elements.data());
        }
        if (targets && !path.property) {
            const std::uint32_t key = targets->key(pathHash(segments), segments);
            if (key != kNone) ownerOf[key] = static_cast<std::uint32_t>(j);
        }
        chain.resize(depth - 1);
        chain.push_back(static_cast<std::uint32_t>(j));
    }
    std::vector<std::uint32_t> keyOf(targets ? n : 0, kNone);  // by element
    for (std::size_t key = 0; key < ownerOf.size(); ++key)
        if (ownerOf[key] != kNone) keyOf[ownerOf[key]] = static_cast<std::uint32_t>(key);
    std::vector<std::uint32_t> childStart;  // children of element p at childStart[p]..[p + 1]
    std::vector<std::uint32_t> children;    // the root's are those of p == n
    groupBy(parentOf, n + 1, childStart, children);
    if (sharesPaths(childStart, children)) childrenByPath(childStart, children);

    struct Frame {
        std::uint32_t next;  // into children
        std::uint32_t end;
        std::size_t depth;
    };
    std::vector<Frame> stack;
    auto enter = [&](std::size_t position, std::size_t depth) {
        elementHead(elements[position], depth);
        if (!keyOf.empty() && keyOf[position] != kNone)
            for (const std::uint32_t i : targets->connectionsOf(keyOf[position]))
                connectionLine(doc_.connections()[i], depth + 1);
        stack.push_back(Frame{childStart[position], childStart[position + 1], depth});
    };
    for (std::uint32_t i = childStart[n]; i < childStart[n + 1]; ++i) {
        if (i != childStart[n]) out_.put('\n');
        enter(children[i], 0);
        while (!stack.empty()) {
            Frame& f = stack.back();
            if (f.next < f.end) {
                enter(children[f.next++], f.depth + 1);
                continue;
            }
            close(f.depth);
            stack.pop_back();
        }
    }
}

// Whether two elements stand on one path: then two children of one element, or two top-level
// elements, have one name.
bool Writer::sharesPaths(const std::vector<std::uint32_t>& childStart,
                         const std::vector<std::uint32_t>& children) const {
    ChildNames names;
    std::vector<std::uint64_t> scratch;
    for (std::size_t p = 0; p + 1 < childStart.size(); ++p) {
        for (std::uint32_t i = childStart[p]; i < childStart[p + 1]; ++i)
            names.add(doc_.elements()[children[i]].path.segments.back());
        if (names.repeats(scratch)) return true;
    }
    return false;
}

// The children of every element, and the root's, as the document's index lists them by path.
void Writer::childrenByPath(std::vector<std::uint32_t>& childStart, std::vector<std::uint32_t>& children) const {
    const auto& elements = doc_.elements();
    childStart.assign(1, 0);
    children.clear();
    auto add = [&](const std::vector<std::size_t>* list) {
        if (list)
            for (const std::size_t i : *list) children.push_back(static_cast<std::uint32_t>(i));
        childStart.push_back(static_cast<std::uint32_t>(children.size()));
    };
    for (const Element& e : elements) add(e.path.property ? nullptr : doc_.childPositions(e.path));
    add(doc_.childPositions(Path()));
}

void Writer::records() {
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

std::string Writer::text() {
    out_.put("#zeltha 4.0\n");
    const std::size_t header = out_.size();
    if (!elementsInStoredOrder()) {
        out_.cut(header);
        elementsByTree();
    }
    records();
    return out_.take();
}

}  // namespace

char* writeScalarText(char* out, double x) {
    return writeNumber<9>(out, x, 1e16);
}

char* writeDoubleText(char* out, double x) {
    return writeNumber<17>(out, x, 1e15);
}

std::string serialize(const Document& doc, int indent) {
    if (indent < 0) indent = 0;
    return Writer(doc, indent).text();
}

}  // namespace ostrevik
