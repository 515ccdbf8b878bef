// The crate's own LZSS stream: an 8-byte size, then groups of one flag byte and up
// to 8 tokens (a literal byte, or a 3-byte match of distance 1..65536 and length
// 4..259). The encoder's choices are fixed so that equal input gives equal bytes.
#include <ostrevik/io.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>

namespace ostrevik {
namespace {

constexpr std::size_t kWindow = 0x10000;
constexpr std::size_t kMinMatch = 4;
constexpr std::size_t kMaxMatch = 259;
constexpr int kMaxCandidates = 64;
constexpr std::size_t kHashSize = 0x10000;
constexpr std::size_t kInitialReserve = 0x100000;
constexpr std::size_t kTypicalRatio = 8;

// Chain links kept per position: the distances to its next two chain predecessors, 16 bits each.
using Links = std::uint32_t;
constexpr int kLinks = 2;
// How far ahead the head slot of an upcoming position is prefetched.
constexpr std::size_t kAhead = 16;

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
    while (k + 8 <= limit) {
        std::uint64_t x = load64(a + k) ^ load64(b + k);
        if (x != 0) return k + static_cast<std::size_t>(std::countr_zero(x)) / 8;
        k += 8;
    }
    while (k < limit && a[k] == b[k]) ++k;
    return k;
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

}  // namespace

std::string compress(std::string_view data) {
    const std::size_t n = data.size();
    const auto* in = reinterpret_cast<const unsigned char*>(data.data());
    if (n == 0) return std::string(8, '\0');

    // Worst case: every byte a literal, plus one flag byte per 8 tokens. The scratch buffer is
    // left uninitialized so that only the pages actually written are ever touched.
    const std::size_t worst = 8 + n + (n + 7) / 8;
    std::unique_ptr<unsigned char[]> buffer(new unsigned char[worst]);
    unsigned char* const base = buffer.get();
    putU64(base, n);
    unsigned char* op = base + 8;

    // The chain links. A walk only follows links of candidates inside the window, whose slots no
    // later position has overwritten yet, so a ring of 64 Ki slots holds every link in use. Each
    // slot keeps the distances to a position's next kLinks chain predecessors (0: none, or too far
    // to matter), so that one load yields several candidates and the walk waits on memory less.
    std::unique_ptr<std::int32_t[]> head(new std::int32_t[kHashSize]);
    std::memset(head.get(), 0xFF, kHashSize * sizeof(std::int32_t));  // every slot -1
    // Every slot is written when its position is inserted, before any read of it; a short input
    // needs no more slots than it has positions.
    std::unique_ptr<Links[]> links(new Links[std::min(n, kWindow)]);

    unsigned char* flag = nullptr;
    unsigned tokens = 8;
    auto openToken = [&]() {
        if (tokens == 8) {
            flag = op++;
            *flag = 0;
            tokens = 0;
        }
    };
    // Positions are kept as signed 32-bit values; one that wraps negative ends its chain.
    auto insert = [&](std::size_t p, std::uint32_t h) {
        const std::int32_t old = head[h];
        Links l = 0;
        if (old >= 0 && p - static_cast<std::size_t>(old) < kWindow) {
            const Links d1 = p - static_cast<std::size_t>(old);
            const Links before = links[static_cast<std::size_t>(old) & (kWindow - 1)];
            l = d1;
            for (int k = 1; k < kLinks; ++k) {
                const Links d = (before >> (16 * (k - 1))) & 0xFFFF;
                if (d == 0 || d + d1 >= kWindow) break;
                l |= (d + d1) << (16 * k);
            }
        }
        links[p & (kWindow - 1)] = l;
        head[h] = static_cast<std::int32_t>(static_cast<std::uint32_t>(p));
    };

    const std::size_t hashEnd = n >= kMinMatch ? n - kMinMatch + 1 : 0;  // positions with 4 bytes left
    // The tables are read at random: ask for the head slot of a position a little ahead so that
    // it has arrived by the time that position is searched or inserted.
    auto ahead = [&](std::size_t p) {
        if (p + kAhead < hashEnd) __builtin_prefetch(&head[hashAt(in + p + kAhead)]);
    };
    std::size_t i = 0;
    while (i < n) {
        if (i < hashEnd) {
            const std::size_t limit = std::min(n - i, kMaxMatch);
            const std::int64_t low = static_cast<std::int64_t>(std::max(i, kWindow) - kWindow);
            ahead(i);
            const std::uint32_t h = hashAt(in + i);
            const std::int64_t first = head[h];
            // Only a count above 3 is ever emitted, so shorter ones need not be tracked.
            std::size_t best = kMinMatch - 1;
            std::size_t bestDist = 0;
            const unsigned char* const cur = in + i;
            // `low` is never negative, so this also ends the chain at -1 and wrapped positions.
            if (first >= low) {
                int budget = kMaxCandidates;
                // A candidate wins only if it agrees on bytes 0..best, which two 8-byte compares
                // settle while best < 16, so the walk branches on a new best, not on every near
                // miss. The last few positions of the input are compared in full.
                std::uint64_t mask = 0xFFFFFFFF;
                std::size_t tailAt = 0;
                const bool wide = limit >= 8;
                // The bytes at i, kept in registers: compared through char pointers, they would
                // otherwise be reloaded after every store.
                const std::uint64_t curHead = wide ? load64(cur) : 0;
                std::uint64_t curTail = curHead;
                // Compares one candidate; false when the walk is over.
                auto visit = [&](std::int64_t cand) {
                    const unsigned char* c = in + cand;
                    if (!wide || (((load64(c) ^ curHead) | (load64(c + tailAt) ^ curTail)) & mask) == 0) {
                        const std::size_t len = matchLength(c, cur, limit);
                        if (len > best) {
                            best = len;
                            bestDist = i - static_cast<std::size_t>(cand);
                            if (len == limit) return false;
                            if (wide) {
                                mask = best >= 7 ? ~std::uint64_t(0) : (std::uint64_t(1) << (8 * (best + 1))) - 1;
                                tailAt = best >= 7 ? best - 7 : 0;
                                curTail = load64(cur + tailAt);
                            }
                        }
                    }
                    return --budget != 0;
                };
                std::int64_t cand = first;
                while (visit(cand)) {
                    // One load yields the next kLinks candidates: fetch them all before comparing.
                    const Links l = links[static_cast<std::size_t>(cand) & (kWindow - 1)];
                    std::int64_t next[kLinks] = {};
                    int count = 0;
                    for (; count < kLinks; ++count) {
                        const std::int64_t d = static_cast<std::int64_t>((l >> (16 * count)) & 0xFFFF);
                        if (d == 0 || cand - d < low) break;
                        next[count] = cand - d;
                        __builtin_prefetch(in + next[count] + tailAt);
                    }
                    if (count == kLinks) __builtin_prefetch(&links[static_cast<std::size_t>(next[kLinks - 1]) & (kWindow - 1)]);
                    bool going = true;
                    for (int k = 0; k < count && k + 1 < kLinks && going; ++k) going = visit(next[k]);
                    if (!going || count < kLinks) break;
                    cand = next[kLinks - 1];
                }
            }
            insert(i, h);
            if (best >= kMinMatch) {
                openToken();
                *flag |= static_cast<unsigned char>(1u << tokens);
                ++tokens;
                const std::size_t d = bestDist - 1;
                op[0] = static_cast<unsigned char>(d);
                op[1] = static_cast<unsigned char>(d >> 8);
                op[2] = static_cast<unsigned char>(best - kMinMatch);
                op += 3;
                const std::size_t end = std::min(i + best, hashEnd);
                for (std::size_t j = i + 1; j < end; ++j) {
                    ahead(j);
                    insert(j, hashAt(in + j));
                }
                i += best;
                continue;
            }
        }
        openToken();
        ++tokens;
        *op++ = in[i];
        ++i;
    }
    return std::string(reinterpret_cast<const char*>(base), static_cast<std::size_t>(op - base));
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
