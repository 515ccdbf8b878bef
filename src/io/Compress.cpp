// The crate's own LZSS stream: an 8-byte size, then groups of one flag byte and up
// to 8 tokens (a literal byte, or a 3-byte match of distance 1..65536 and length
// 4..259). The encoder's choices are fixed so that equal input gives equal bytes.
#include <ostrevik/io.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace ostrevik {
namespace {

constexpr std::size_t kWindow = 0x10000;
constexpr std::size_t kMinMatch = 4;
constexpr std::size_t kMaxMatch = 259;
constexpr std::size_t kMaxCandidates = 64;
constexpr std::size_t kHashSize = 0x10000;
constexpr std::size_t kInitialReserve = 0x100000;
constexpr std::size_t kTypicalRatio = 8;

// The chain links of a position: for each of its next kLinks chain predecessors the distance
// minus 1, 16 bits each, 0xFFFF for none or out of reach. One load yields a stretch of the chain,
// and a position's links are its predecessor's moved one place and pushed further back, which a
// saturating add does for all lanes at once.
using Links = std::uint16_t __attribute__((vector_size(16)));
constexpr int kLinks = 8;
// How far ahead the head slot of an upcoming position is prefetched, the hashes kept until then,
// and how far ahead of a search the ring slot of its chain head is.
constexpr std::size_t kAhead = 16;
constexpr std::size_t kAheadRing = 32;
constexpr std::size_t kSlotAhead = 4;

// The most one group can produce and the bytes it takes: a flag byte and 8 matches.
constexpr std::size_t kGroupMaxOut = 8 * kMaxMatch;
constexpr std::size_t kGroupMaxIn = 1 + 8 * 3;

inline std::uint32_t load32(const unsigned char* p) {
    std::uint32_t v;
    std::memcpy(&v, p, 4);
    if constexpr (std::endian::native == std::endian::big) v = __builtin_bswap32(v);
    return v;
}

inline std::uint64_t load64(const unsigned char* p) {
    std::uint64_t v;
    std::memcpy(&v, p, 8);
    if constexpr (std::endian::native == std::endian::big) v = __builtin_bswap64(v);
    return v;
}

inline std::uint32_t hashAt(const unsigned char* p) {
    return (load32(p) * 0x9E3779B1u) >> 16;
}

// Number of equal bytes at a and b, at most `limit`.
inline std::size_t matchLength(const unsigned char* a, const unsigned char* b, std::size_t limit) {
    std::size_t k = 0;
    if (limit >= 16) {
        // Most matches end within 16 bytes: settle those without a loop.
        const std::uint64_t x0 = load64(a) ^ load64(b);
        const std::uint64_t x1 = load64(a + 8) ^ load64(b + 8);
        if ((x0 | x1) != 0) return x0 != 0 ? std::countr_zero(x0) / 8 : 8 + std::countr_zero(x1) / 8;
        k = 16;
    }
    while (k + 8 <= limit) {
        const std::uint64_t x = load64(a + k) ^ load64(b + k);
        if (x != 0) return k + static_cast<std::size_t>(std::countr_zero(x)) / 8;
        k += 8;
    }
    while (k < limit && a[k] == b[k]) ++k;
    return k;
}

inline Links splat(std::uint16_t v) {
    const Links r = {v, v, v, v, v, v, v, v};
    return r;
}

inline Links addSaturated(Links a, Links b) {
#if defined(__SSE2__)
    return reinterpret_cast<Links>(_mm_adds_epu16(reinterpret_cast<__m128i>(a), reinterpret_cast<__m128i>(b)));
#else
    const Links sum = a + b;
    return sum | reinterpret_cast<Links>(sum < a);
#endif
}

// The links of a position whose chain predecessor is `d1` bytes back (1..65536, 65536 for none)
// and has the links `before`: d1 itself, then each of those one place on and d1 further.
inline Links chainLinks(Links before, std::size_t d1) {
    const Links zero = {};
    const Links shifted = __builtin_shufflevector(before, zero, 8, 0, 1, 2, 3, 4, 5, 6);
    const Links step = {0, 1, 1, 1, 1, 1, 1, 1};
    return addSaturated(shifted, addSaturated(splat(static_cast<std::uint16_t>(d1 - 1)), step));
}

// How many leading lanes of a compare result are set; the set lanes always form a prefix.
inline int lanesSet(Links set) {
#if defined(__SSE2__)
    const unsigned bits = static_cast<unsigned>(_mm_movemask_epi8(reinterpret_cast<__m128i>(set)));
    return std::countr_zero(~bits) / 2;
#else
    std::uint64_t half[2];
    std::memcpy(half, &set, sizeof half);
    const int lo = std::countr_zero(~half[0]);
    return (lo < 64 ? lo : 64 + std::countr_zero(~half[1])) / 16;
#endif
}

void putU64(unsigned char* p, std::uint64_t v) {
    for (int k = 0; k < 8; ++k) p[k] = static_cast<unsigned char>(v >> (8 * k));
}

// Upper bound of the bytes that `in` stream bytes after the size field can decode to.
std::uint64_t maxDecodedSize(std::uint64_t in) {
    std::uint64_t groups = in / kGroupMaxIn;
    std::uint64_t rest = in % kGroupMaxIn;
    return groups * kGroupMaxOut + (rest / 3) * kMaxMatch + rest;
}

// Copies a match of `len` bytes from `dist` back, for the fast path: the output has at
// least 32 bytes of room behind `op + len`, which the wide copies may scribble on.
inline void copyMatchFast(unsigned char* op, std::size_t dist, std::size_t len) {
    const unsigned char* src = op - dist;
    if (dist >= 32) {
        // Each chunk reads only bytes that are already final.
        std::size_t k = 0;
        do {
            std::memcpy(op + k, src + k, 32);
            k += 32;
        } while (k < len);
    } else if (dist >= 16) {
        std::size_t k = 0;
        do {
            std::memcpy(op + k, src + k, 16);
            k += 16;
        } while (k < len);
    } else if (dist >= 8) {
        std::size_t k = 0;
        do {
            std::memcpy(op + k, src + k, 8);
            k += 8;
        } while (k < len);
    } else if (dist == 1) {
        std::memset(op, src[0], len);
    } else {
        // The output is periodic from src on, so doubling copies stay disjoint.
        unsigned char* d = op;
        std::size_t left = len;
        while (left > 0) {
            std::size_t c = std::min(static_cast<std::size_t>(d - src), left);
            std::memcpy(d, src, c);
            d += c;
            left -= c;
        }
    }
}

// Exact copy for the careful path: writes nothing past `op + len`.
inline void copyMatchExact(unsigned char* op, std::size_t dist, std::size_t len) {
    const unsigned char* src = op - dist;
    if (dist >= len) {
        std::memcpy(op, src, len);
    } else if (dist == 1) {
        std::memset(op, src[0], len);
    } else {
        unsigned char* d = op;
        std::size_t left = len;
        while (left > 0) {
            std::size_t c = std::min(static_cast<std::size_t>(d - src), left);
            std::memcpy(d, src, c);
            d += c;
            left -= c;
        }
    }
}

// One pass of the encoder over its input. Positions are kept as signed 32-bit values; one that
// wraps negative ends its chain.
class Encoder {
public:
    Encoder(const unsigned char* in, std::size_t n, unsigned char* out)
        : in_(in),
          n_(n),
          hashEnd_(n >= kMinMatch ? n - kMinMatch + 1 : 0),
          // A walk only follows links of candidates inside the window, whose slots no later
          // position has overwritten yet, so a ring of 64 Ki slots holds every link in use; a
          // short input needs no more slots than it has positions.
          ringMask_(std::bit_ceil(std::min(n, kWindow)) - 1),
          head_(new std::int32_t[kHashSize]),
          ring_(new Links[ringMask_ + 1]),
          op_(out) {
        // An empty head is the most negative position: it is never inside the window, and the
        // distance to it is never a link.
        std::fill_n(head_.get(), kHashSize, kNone);
        // Read, and then ignored, when a position joins an empty chain.
        ring_[static_cast<std::uint32_t>(kNone) & ringMask_] = splat(0xFFFF);
    }

    // Encodes the whole input; returns the end of the output.
    unsigned char* run() {
        // Below this a full-length match fits, so every compare can read 8 bytes at a time.
        const std::size_t wideEnd = n_ >= kMaxMatch ? n_ - kMaxMatch + 1 : 0;
        std::size_t i = encode<true>(0, wideEnd);
        i = encode<false>(i, hashEnd_);
        // Fewer than 4 bytes left: literals only.
        for (; i < n_; ++i) literal(in_[i]);
        return op_;
    }

private:
    static constexpr std::int32_t kNone = std::numeric_limits<std::int32_t>::min();

    struct Match {
        std::size_t length;
        std::size_t distance;
    };

    // Encodes tokens from position i while i is below `end`; returns where it stopped.
    template <bool Wide>
    std::size_t encode(std::size_t i, std::size_t end) {
        // Every position below hashEnd_ passes through `next` once, in order; it hashes the one
        // kAhead further and asks for its head slot, which is read at random, so that the slot
        // has arrived by the time that position is searched or inserted. Hashing ahead also keeps
        // the hash off the path from one insert to the next, which a run of one byte makes a
        // chain through memory.
        std::uint32_t upcoming[kAheadRing];
        for (std::size_t p = i; p < std::min(i + kAhead, hashEnd_); ++p) upcoming[p % kAheadRing] = hashAt(in_ + p);
        auto next = [&](std::size_t p) {
            const std::size_t far = p + kAhead;
            if (far < hashEnd_) {
                const std::uint32_t h = hashAt(in_ + far);
                upcoming[far % kAheadRing] = h;
                __builtin_prefetch(&head_[h]);
            }
            return upcoming[p % kAheadRing];
        };
        while (i < end) {
            // A search also reads the ring slot of its chain head at random: ask for it
            // kSlotAhead positions ahead, from a head slot that has arrived by then.
            if (i + kAhead < hashEnd_)
                __builtin_prefetch(&ring_[static_cast<std::uint32_t>(head_[upcoming[(i + kSlotAhead) % kAheadRing]]) & ringMask_]);
            const std::uint32_t h = next(i);
            const std::int32_t first = head_[h];
            const Match m = search<Wide>(i, first);
            insert(i, h, first);
            if (m.length >= kMinMatch) {
                emitMatch(m);
                const std::size_t stop = std::min(i + m.length, hashEnd_);
                for (std::size_t j = i + 1; j < stop; ++j) {
                    const std::uint32_t hj = next(j);
                    insert(j, hj, head_[hj]);
                }
                i += m.length;
            } else {
                literal(in_[i]);
                ++i;
            }
        }
        return i;
    }

    // `old` is the head of p's chain before p joins it.
    void insert(std::size_t p, std::uint32_t h, std::int32_t old) {
        const std::size_t d = static_cast<std::size_t>(static_cast<std::int64_t>(p) - old);
        const Links before = ring_[static_cast<std::uint32_t>(old) & ringMask_];
        ring_[p & ringMask_] = chainLinks(before, d < kWindow ? d : kWindow);
        head_[h] = static_cast<std::int32_t>(static_cast<std::uint32_t>(p));
    }

    // The longest match at i among the first kMaxCandidates chain entries in the window, the
    // chain starting at `first`; of equal lengths the nearest. `Wide`: a full-length match fits
    // behind i.
    template <bool Wide>
    Match search(std::size_t i, std::int64_t first) const {
        const std::size_t limit = Wide ? kMaxMatch : std::min(n_ - i, kMaxMatch);
        const std::int64_t low = static_cast<std::int64_t>(std::max(i, kWindow) - kWindow);
        // Only a count above 3 is ever emitted, so shorter ones need not be tracked.
        Match best{kMinMatch - 1, 0};
        // An empty head and a wrapped position are negative, below any `low`.
        if (first < low) return best;
        const unsigned char* const cur = in_ + i;
        // A candidate wins only if it agrees on bytes 0..best. One 8-byte compare that ends at
        // byte `best` (or covers bytes 0..best) rules out nearly every one that doesn't, so the
        // branch on it is rarely taken; what passes is counted in full. Near the end of the
        // input, every candidate is counted in full.
        std::uint64_t mask = 0xFFFFFFFF;
        std::size_t tailAt = 0;
        // The bytes compared, kept in a register: read through char pointers, they would
        // otherwise be reloaded after every store.
        std::uint64_t curTail = Wide ? load64(cur) : 0;
        // Takes candidate `at` if it is longer than the best; false once nothing can beat it.
        auto consider = [&](const unsigned char* at) {
            const std::size_t len = matchLength(at, cur, limit);
            if (len <= best.length) return true;
            best = {len, static_cast<std::size_t>(cur - at)};
            if (len == limit) return false;
            if (Wide) {
                mask = len >= 7 ? ~std::uint64_t(0) : (std::uint64_t(1) << (8 * (len + 1))) - 1;
                tailAt = len >= 7 ? len - 7 : 0;
                curTail = load64(cur + tailAt);
            }
            return true;
        };
        // The nearest candidate alone first: on repetitive input it often settles the search,
        // and otherwise the best it sets sharpens the test of the rest.
        if ((!Wide || ((load64(in_ + first) ^ curTail) & mask) == 0) && !consider(in_ + first)) return best;
        std::int64_t cand = first;
        unsigned skip = 1;  // lane 0 of the first slot, the candidate just counted
        // Each slot of links yields kLinks candidates, the last of them carrying the walk on, so
        // the candidate limit is a whole number of slots.
        for (std::size_t slot = 0; slot < kMaxCandidates / kLinks; ++slot, skip = 0) {
            const Links l = ring_[static_cast<std::size_t>(cand) & ringMask_];
            // The links that stay inside the window, always a prefix; the lanes past them are
            // turned into offset 0, the slot's own candidate, and then ignored.
            const Links inside = reinterpret_cast<Links>(l < splat(static_cast<std::uint16_t>(cand - low)));
            // Lane k: how far candidate k lies behind the slot's own, lane 0 being that one.
            const Links back = __builtin_shufflevector((l + splat(1)) & inside, Links{}, 8, 0, 1, 2, 3, 4, 5, 6);
            const int linked = lanesSet(inside);
            const unsigned char* const here = in_ + cand;
            const std::int64_t next = cand - 1 - l[kLinks - 1];
            // Asked for even at the end of the chain: a branch here would often be mispredicted,
            // and a needless prefetch costs little.
            __builtin_prefetch(&ring_[static_cast<std::size_t>(next) & ringMask_]);
            if (Wide) {
                // One test and one branch per lane, unrolled, against the best so far: the loads
                // are independent and the branches are rarely taken, so the walk runs ahead of
                // the tests. The lanes past the window repeat the slot's own candidate, tested
                // just before, and in the first slot lane 0 is the first candidate again; none
                // of them can change the best.
#pragma GCC unroll 8
                for (int k = 0; k < kLinks; ++k) {
                    const unsigned char* const at = here - back[k];
                    if (((load64(at + tailAt) ^ curTail) & mask) == 0 && !consider(at)) return best;
                }
            } else {
                for (int k = static_cast<int>(skip); k <= std::min(linked, kLinks - 1); ++k)
                    if (!consider(here - back[k])) return best;
            }
            if (linked < kLinks) break;
            cand = next;
        }
        return best;
    }

    // A token joins the open group, or opens a new one with a flag byte of 0.
    void openToken() {
        if (tokens_ == 8) {
            flag_ = op_++;
            *flag_ = 0;
            tokens_ = 0;
        }
    }

    void literal(unsigned char c) {
        openToken();
        ++tokens_;
        *op_++ = c;
    }

    void emitMatch(const Match& m) {
        openToken();
        *flag_ |= static_cast<unsigned char>(1u << tokens_);
        ++tokens_;
        const std::size_t d = m.distance - 1;
        op_[0] = static_cast<unsigned char>(d);
        op_[1] = static_cast<unsigned char>(d >> 8);
        op_[2] = static_cast<unsigned char>(m.length - kMinMatch);
        op_ += 3;
    }

    const unsigned char* const in_;
    const std::size_t n_;
    const std::size_t hashEnd_;  // positions with 4 bytes left
    const std::size_t ringMask_;
    std::unique_ptr<std::int32_t[]> head_;
    std::unique_ptr<Links[]> ring_;
    unsigned char* op_;
    unsigned char* flag_ = nullptr;
    unsigned tokens_ = 8;
};

}  // namespace

std::string compress(std::string_view data) {
    const std::size_t n = data.size();
    if (n == 0) return std::string(8, '\0');
    // Worst case: every byte a literal, plus one flag byte per 8 tokens. The scratch buffer is
    // left uninitialized so that only the pages actually written are ever touched.
    const std::size_t worst = 8 + n + (n + 7) / 8;
    std::unique_ptr<unsigned char[]> buffer(new unsigned char[worst]);
    unsigned char* const base = buffer.get();
    putU64(base, n);
    Encoder encoder(reinterpret_cast<const unsigned char*>(data.data()), n, base + 8);
    const unsigned char* const end = encoder.run();
    return std::string(reinterpret_cast<const char*>(base), static_cast<std::size_t>(end - base));
}

std::optional<std::string> decompress(std::string_view stream) {
    if (stream.size() < 8) return std::nullopt;
    const auto* ip = reinterpret_cast<const unsigned char*>(stream.data());
    const unsigned char* const iend = ip + stream.size();
    std::uint64_t size = 0;
    for (int k = 7; k >= 0; --k) size = (size << 8) | ip[k];
    ip += 8;
    if (size == 0) return std::string();
    if (ip == iend) return std::nullopt;
    // A size the remaining bytes cannot reach would fail at the end anyway: refuse it
    // before trusting it with any memory.
    if (size > maxDecodedSize(static_cast<std::uint64_t>(iend - ip))) return std::nullopt;

    // Start with room for a typical ratio, so that honest streams seldom regrow; a lying size
    // costs at most a small multiple of the stream, and the buffer then grows with the output.
    const std::size_t total = static_cast<std::size_t>(size);
    std::string out;
    out.resize(std::min(total, std::max(kInitialReserve, kTypicalRatio * static_cast<std::size_t>(iend - ip))));
    auto* base = reinterpret_cast<unsigned char*>(out.data());
    std::size_t cap = out.size();
    std::size_t pos = 0;

    // Grows the buffer geometrically, never past the declared size.
    auto grow = [&](std::size_t need) {
        std::size_t newCap = std::min(total, std::max(cap * 2, need));
        out.resize(newCap);
        base = reinterpret_cast<unsigned char*>(out.data());
        cap = newCap;
    };

    constexpr std::size_t kSlack = 32;
    for (;;) {
        // Fast path: a whole group fits in both buffers, with room for wide copies.
        // The output then stays below the declared size, so only distances need checks.
        if (static_cast<std::size_t>(iend - ip) >= kGroupMaxIn && cap - pos >= kGroupMaxOut + kSlack) {
            unsigned flags = *ip++;
            unsigned char* op = base + pos;
            if (flags == 0) {
                std::memcpy(op, ip, 8);
                ip += 8;
                pos += 8;
                continue;
            }
            for (int k = 0; k < 8; ++k, flags >>= 1) {
                if (flags & 1) {
                    const std::size_t dist = (static_cast<std::size_t>(ip[0]) | (static_cast<std::size_t>(ip[1]) << 8)) + 1;
                    const std::size_t len = static_cast<std::size_t>(ip[2]) + kMinMatch;
                    ip += 3;
                    if (dist > static_cast<std::size_t>(op - base)) return std::nullopt;
                    copyMatchFast(op, dist, len);
                    op += len;
                } else {
                    *op++ = *ip++;
                }
            }
            pos = static_cast<std::size_t>(op - base);
            continue;
        }
        if (cap < total && cap - pos < kGroupMaxOut + kSlack) {
            grow(pos + kGroupMaxOut + kSlack);
            continue;
        }
        // Careful path, near either end: every token is checked against both.
        if (ip == iend) return std::nullopt;
        if (cap < total && cap - pos < kGroupMaxOut) grow(pos + kGroupMaxOut);
        unsigned flags = *ip++;
        for (int k = 0; k < 8; ++k, flags >>= 1) {
            if (pos == total) break;
            if (flags & 1) {
                if (iend - ip < 3) return std::nullopt;
                const std::size_t dist = (static_cast<std::size_t>(ip[0]) | (static_cast<std::size_t>(ip[1]) << 8)) + 1;
                const std::size_t len = static_cast<std::size_t>(ip[2]) + kMinMatch;
                ip += 3;
                if (dist > pos || len > total - pos) return std::nullopt;
                copyMatchExact(base + pos, dist, len);
                pos += len;
            } else {
                if (ip == iend) return std::nullopt;
                base[pos++] = *ip++;
            }
        }
        if (pos == total) break;
    }
    out.resize(total);
    return out;
}

}  // namespace ostrevik
