// The crate's compressor written plainly, without any of the shortcuts of the real one: the
// tests and the fuzzer hold the real encoder's bytes against it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace reference {

inline std::string compress(std::string_view s) {
    const std::size_t n = s.size();
    std::string out;
    for (int k = 0; k < 8; ++k) out.push_back(static_cast<char>(static_cast<std::uint64_t>(n) >> (8 * k)));
    std::vector<std::int32_t> head(65536, -1), prev(n, -1);
    auto at = [&](std::size_t p) { return static_cast<std::uint32_t>(static_cast<unsigned char>(s[p])); };
    auto hash = [&](std::size_t p) {
        const std::uint32_t v = at(p) | at(p + 1) << 8 | at(p + 2) << 16 | at(p + 3) << 24;
        return (v * 0x9E3779B1u) >> 16;
    };
    auto insert = [&](std::size_t p) {
        if (n - p < 4) return;
        prev[p] = head[hash(p)];
        head[hash(p)] = static_cast<std::int32_t>(p);
    };
    std::size_t flagAt = 0;
    int count = 8;
    for (std::size_t i = 0; i < n;) {
        std::size_t best = 0, dist = 0;
        if (n - i >= 4) {
            const std::size_t limit = std::min<std::size_t>(n - i, 259);
            const long long low = static_cast<long long>(std::max<std::size_t>(i, 65536) - 65536);
            long long c = head[hash(i)];
            for (int tried = 0; c != -1 && c >= low && tried < 64; ++tried, c = prev[c]) {
                std::size_t len = 0;
                while (len < limit && s[c + len] == s[i + len]) ++len;
                if (len > best) {
                    best = len;
                    dist = i - c;
                }
                if (len == limit) break;
            }
        }
        if (count == 8) {
            flagAt = out.size();
            out.push_back(0);
            count = 0;
        }
        if (best >= 4) {
            out[flagAt] = static_cast<char>(out[flagAt] | 1 << count);
            out.push_back(static_cast<char>((dist - 1) & 0xFF));
            out.push_back(static_cast<char>((dist - 1) >> 8));
            out.push_back(static_cast<char>(best - 4));
            for (std::size_t j = i; j < i + best; ++j) insert(j);
            i += best;
        } else {
            out.push_back(s[i]);
            insert(i);
            ++i;
        }
        ++count;
    }
    return out;
}

}  // namespace reference
