#include <ostrevik/io.h>

#include "support/reference_compress.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

using ostrevik::compress;
using ostrevik::decompress;

namespace {

std::string bytes(std::initializer_list<int> list) {
    std::string s;
    for (int b : list) s.push_back(static_cast<char>(b));
    return s;
}

std::string sizeField(std::uint64_t n) {
    std::string s;
    for (int k = 0; k < 8; ++k) s.push_back(static_cast<char>(n >> (8 * k)));
    return s;
}

// A token of a stream: len 0 is a literal, otherwise a match.
struct Token {
    std::size_t dist = 0;
    std::size_t len = 0;
    std::size_t at = 0;  // output position where it starts
};

std::vector<Token> tokens(const std::string& stream) {
    std::vector<Token> out;
    std::size_t i = 8, produced = 0;
    while (i < stream.size()) {
        unsigned flags = static_cast<unsigned char>(stream[i++]);
        for (int k = 0; k < 8 && i < stream.size(); ++k, flags >>= 1) {
            Token t;
            t.at = produced;
            if (flags & 1) {
                t.dist = (static_cast<unsigned char>(stream[i]) | static_cast<unsigned char>(stream[i + 1]) << 8) + 1;
                t.len = static_cast<unsigned char>(stream[i + 2]) + 4;
                i += 3;
                produced += t.len;
            } else {
                ++i;
                ++produced;
            }
            out.push_back(t);
        }
    }
    return out;
}

std::string randomBytes(std::mt19937& rng, std::size_t n, int alphabet) {
    std::string s(n, '\0');
    for (auto& c : s) c = static_cast<char>(rng() % alphabet);
    return s;
}

void expectRoundTrip(const std::string& data) {
    std::string stream = compress(data);
    ASSERT_EQ(stream, reference::compress(data)) << "size " << data.size();
    std::optional<std::string> back = decompress(stream);
    ASSERT_TRUE(back.has_value()) << "size " << data.size();
    ASSERT_EQ(*back, data);
}

}  // namespace

TEST(Compress, SmallStreamsByteForByte) {
    EXPECT_EQ(compress(""), std::string(8, '\0'));
    EXPECT_EQ(compress("abc"), sizeField(3) + bytes({0}) + "abc");
    EXPECT_EQ(compress("aaaaaaaaaa"), sizeField(10) + bytes({0x02, 'a', 0, 0, 5}));
    EXPECT_EQ(compress(std::string(300, 'a')), sizeField(300) + bytes({0x06, 'a', 0, 0, 0xFF, 0, 0, 36}));
    // The ninth token opens a second group.
    EXPECT_EQ(compress("abcdefghi"), sizeField(9) + bytes({0}) + "abcdefgh" + bytes({0}) + "i");
    // Three equal bytes are never a match.
    EXPECT_EQ(compress("abc1abc2"), sizeField(8) + bytes({0}) + "abc1abc2");
    // Of equal matches the nearest wins.
    EXPECT_EQ(compress("ABCDxABCDyABCDz"),
              sizeField(15) + bytes({0xA0, 'A', 'B', 'C', 'D', 'x', 4, 0, 0, 'y', 4, 0, 0, 0, 'z'}));
}

TEST(Compress, WindowEdge) {
    std::mt19937 rng(7);
    const std::string key = "WINDOW-EDGE!";
    for (std::size_t gap : {65536u, 65537u}) {
        std::string data = key + randomBytes(rng, gap - key.size(), 26);
        for (std::size_t k = key.size(); k < data.size(); ++k) data[k] = static_cast<char>('a' + data[k]);
        data += key;
        std::string stream = compress(data);
        bool found = false;
        for (const Token& t : tokens(stream)) {
            if (t.at != gap) continue;
            found = true;
            if (gap == 65536) {
                EXPECT_EQ(t.dist, 65536u);
                EXPECT_EQ(t.len, key.size());
            } else {
                EXPECT_EQ(t.len, 0u) << "a candidate beyond the window was used";
            }
        }
        EXPECT_TRUE(found);
        expectRoundTrip(data);
    }
}

TEST(Compress, ChainDepthIsSixtyFour) {
    // The long match sits behind `copies` nearer candidates that each give only 4 bytes.
    for (int copies : {63, 64}) {
        std::string data = "ABCDEFGH";
        for (int k = 0; k < copies; ++k) data += std::string("ABCD") + static_cast<char>(0x80 + k);
        data += "ABCDEFGH";
        const std::size_t last = data.size() - 8;
        bool found = false;
        for (const Token& t : tokens(compress(data))) {
            if (t.at != last) continue;
            found = true;
            EXPECT_EQ(t.len, copies == 63 ? 8u : 4u);
            EXPECT_EQ(t.dist, copies == 63 ? last : 5u);
        }
        EXPECT_TRUE(found);
        expectRoundTrip(data);
    }
}

TEST(Compress, RoundTripsAgainstPlainEncoder) {
    std::mt19937 rng(42);
    for (std::size_t n = 0; n <= 16; ++n) {
        expectRoundTrip(randomBytes(rng, n, 256));
        expectRoundTrip(randomBytes(rng, n, 2));
        expectRoundTrip(std::string(n, 'z'));
    }
    // Periods 1..20 give overlapping matches of every short distance; lengths around 259.
    for (std::size_t period = 1; period <= 20; ++period) {
        std::string unit = randomBytes(rng, period, 256);
        for (std::size_t n : {258u, 259u, 260u, 263u, 518u, 1000u}) {
            std::string data;
            while (data.size() < n) data += unit;
            data.resize(n);
            expectRoundTrip(data);
        }
    }
    for (std::size_t n : {65535u, 65536u, 65537u, 70000u, 200000u}) {
        expectRoundTrip(randomBytes(rng, n, 256));
        expectRoundTrip(randomBytes(rng, n, 4));
        // Text-like: words drawn from a small vocabulary make long hash chains.
        static const char* words[] = {"element ", "float3 ", "color = ", "(1, 0.5, 0)\n", "def ", "\"scene\" {\n", "    ", "}\n"};
        std::string text;
        while (text.size() < n) text += words[rng() % 8];
        text.resize(n);
        expectRoundTrip(text);
    }
}

TEST(Compress, MatchesPlainEncoderOnDocumentText) {
    // Text in the style of a written document: nested blocks, numbers and names, whose chains
    // often hold more than 64 candidates in the window.
    std::mt19937 rng(11);
    static const char* types[] = {"group", "mesh", "light", "camera", "material", "xform"};
    static const char* props[] = {"opacity", "intensity", "radius", "exposure", "roughness", "width"};
    std::string text = "#zeltha 4.0\n";
    char buf[160];
    for (std::size_t e = 0; text.size() < 400000; ++e) {
        std::snprintf(buf, sizeof buf, "def %s \"node%zu\" {\n", types[rng() % 6], e);
        text += buf;
        for (unsigned k = 0, count = 2 + rng() % 5; k < count; ++k) {
            if (rng() % 2)
                std::snprintf(buf, sizeof buf, "    float %s = %.6g\n", props[rng() % 6], (rng() % 100000) / 997.0);
            else
                std::snprintf(buf, sizeof buf, "    connect %s = </node%zu.out>\n", props[rng() % 6],
                              static_cast<std::size_t>(rng() % (e + 1)));
            text += buf;
        }
        text += "    def \"child\" {\n        string note = \"generated\"\n    }\n}\n\n";
    }
    expectRoundTrip(text);
}

TEST(Compress, MatchesPlainEncoderNearTheEnd) {
    // The last 258 positions take the careful path, where a full-length match no longer fits:
    // matches that start on either side of that edge, and ones cut short by the end.
    std::mt19937 rng(5);
    const std::string block = randomBytes(rng, 300, 256);
    // Short words give long chains there too.
    std::string words;
    while (words.size() < 620) words += std::string("ab cd ") + static_cast<char>('a' + rng() % 3) + " ";
    for (std::size_t n = 540; n <= 620; ++n) {
        std::string data = block + block;
        data.resize(n);
        expectRoundTrip(data);
        data[n - 130] = static_cast<char>(data[n - 130] ^ 1);
        expectRoundTrip(data);
        expectRoundTrip(words.substr(0, n));
    }
}

TEST(Decompress, RefusesMalformedStreams) {
    EXPECT_FALSE(decompress(""));
    EXPECT_FALSE(decompress(std::string(7, '\0')));
    EXPECT_EQ(decompress(sizeField(0) + "anything at all"), std::string());
    EXPECT_FALSE(decompress(sizeField(1)));                              // nothing behind the size
    EXPECT_FALSE(decompress(sizeField(5) + bytes({0}) + "abc"));          // ends at a literal
    EXPECT_EQ(decompress(sizeField(5) + bytes({0}) + "abcdefgh"), std::string("abcde"));
    EXPECT_FALSE(decompress(sizeField(9) + bytes({0}) + "abcdefgh"));     // ends at a flag byte
    EXPECT_FALSE(decompress(sizeField(4) + bytes({0x01, 0, 0, 0})));      // distance 1 at the start
    {
        // Long enough for the whole-group path: one match reaching one byte too far back.
        std::string body = bytes({0xFE, 'a', 1, 0, 0});
        for (int k = 0; k < 6 + 8; ++k) {
            if (k == 6) body += bytes({0xFF});
            body += bytes({0, 0, 0xFF});
        }
        const std::size_t total = 1 + 4 + 14 * 259;
        EXPECT_FALSE(decompress(sizeField(total) + body));
        body[2] = 0;  // distance 1 instead of 2
        EXPECT_EQ(decompress(sizeField(total) + body), std::string(total, 'a'));
    }
    EXPECT_FALSE(decompress(sizeField(6) + bytes({0x02, 'a', 0, 0})));    // ends inside a match
    EXPECT_FALSE(decompress(sizeField(5) + bytes({0x02, 'a', 0, 0, 1}))); // match past the size
    EXPECT_EQ(decompress(sizeField(5) + bytes({0x02, 'a', 0, 0, 0, 0xFF, 0xFF})), std::string("aaaaa"));
    EXPECT_FALSE(decompress(sizeField(std::uint64_t(1) << 62) + bytes({0x02, 'a', 0, 0, 0xFF})));

    // Every strict prefix of a valid stream falls short of its size.
    std::mt19937 rng(3);
    std::string data = randomBytes(rng, 3000, 3) + std::string(600, 'q');
    std::string stream = compress(data);
    for (std::size_t cut = 0; cut < stream.size(); ++cut) EXPECT_FALSE(decompress(stream.substr(0, cut))) << cut;
}

TEST(Decompress, LargestExpansion) {
    // Groups of 8 matches of 259 bytes: the most output per stream byte.
    std::string body = bytes({0x00}) + "abcdefgh";
    for (int g = 0; g < 100; ++g) {
        body += bytes({0xFF});
        for (int k = 0; k < 8; ++k) body += bytes({7, 0, 0xFF});
    }
    const std::size_t total = 8 + 100 * 8 * 259;
    std::optional<std::string> out = decompress(sizeField(total) + body);
    ASSERT_TRUE(out);
    ASSERT_EQ(out->size(), total);
    for (std::size_t k = 0; k < total; ++k) ASSERT_EQ((*out)[k], "abcdefgh"[k % 8]);
    EXPECT_FALSE(decompress(sizeField(total + 1) + body));
}
