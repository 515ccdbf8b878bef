#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

#include "ostrevik/core.h"
#include "support/value_util.h"

using namespace ostrevik;

namespace {

using F2 = std::array<float, 2>;
using F3 = std::array<float, 3>;
using F6 = std::array<float, 6>;
using F32 = std::array<float, 32>;
using Pairs = std::vector<F2>;

using testsupport::itemsOf;
using testsupport::rawValue;

Value floats(std::vector<std::uint32_t> shape, std::vector<float> f) {
    return rawValue(DType::Float32, std::move(shape), std::move(f));
}

Value halves(std::vector<std::uint16_t> h) {
    const auto n = static_cast<std::uint32_t>(h.size());
    return rawValue(DType::Float16, {n}, std::move(h));
}

}  // namespace

TEST(Value, ConstructorsFixDtypeShapeAndStorage) {
    Value z;
    EXPECT_EQ(z.dtype, DType::Float32);
    EXPECT_TRUE(z.shape.empty());
    EXPECT_EQ(z.data.size(), 4u);
    EXPECT_EQ(z.as<float>(), 0.0f);
    EXPECT_EQ(z.type(), Type::Float);

    EXPECT_EQ(Value(std::int64_t{-7}).type(), Type::Int);
    EXPECT_EQ(Value(true).data, std::vector<std::uint8_t>{1});
    EXPECT_EQ(Value(false).data, std::vector<std::uint8_t>{0});
    Value literal("text");  // a literal must not become a bool
    EXPECT_EQ(literal.dtype, DType::Str);
    EXPECT_EQ(literal.strings, std::vector<std::string>{"text"});
    EXPECT_TRUE(literal.data.empty());
    EXPECT_EQ(literal.type(), Type::General);

    EXPECT_EQ(Value(F6{}).shape, (std::vector<std::uint32_t>{2, 3}));
    EXPECT_EQ(Value(Pairs(4)).shape, (std::vector<std::uint32_t>{4, 2}));
    Value empty(std::vector<float>{});
    EXPECT_EQ(empty.shape, std::vector<std::uint32_t>{0});
    EXPECT_TRUE(empty.data.empty());
    EXPECT_EQ(empty.count(), 0u);
    EXPECT_EQ(empty.type(), Type::FloatArray);
    EXPECT_EQ(Value(std::vector<std::int64_t>{1, 2, 3}).data.size(), 24u);
}

TEST(Value, TypeClassifiesByDtypeAndShape) {
    EXPECT_EQ(floats({2}, {0, 0}).type(), Type::Float2);
    EXPECT_EQ(Value(std::vector<float>{1, 2, 3}).type(), Type::Float3);
    EXPECT_EQ(floats({2, 3}, std::vector<float>(6)).type(), Type::Matrix);
    EXPECT_EQ(Value(std::vector<float>(32)).type(), Type::Spectrum);
    EXPECT_EQ(Value(std::vector<float>(4)).type(), Type::FloatArray);
    EXPECT_EQ(floats({2, 2}, std::vector<float>(4)).type(), Type::Float2Array);
    EXPECT_EQ(floats({0, 2}, {}).type(), Type::Float2Array);
    EXPECT_EQ(floats({3, 3}, std::vector<float>(9)).type(), Type::General);
    EXPECT_EQ(Value(std::vector<std::int64_t>{}).type(), Type::IntArray);
    EXPECT_EQ(rawValue<std::int64_t>(DType::Int64, {1, 1}, {0}).type(), Type::General);
    EXPECT_EQ(rawValue<std::uint8_t>(DType::Bool, {1}, {1}).type(), Type::General);
    EXPECT_EQ(rawValue<std::int32_t>(DType::Int32, {}, {5}).type(), Type::General);
    EXPECT_EQ(rawValue<double>(DType::Float64, {}, {5}).type(), Type::General);
}

TEST(Value, CountSaturatesInsteadOfWrapping) {
    EXPECT_EQ(Value().count(), 1u);
    EXPECT_EQ(floats({2, 3}, std::vector<float>(6)).count(), 6u);
    Value huge;
    huge.shape = {0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu};
    EXPECT_EQ(huge.count(), std::numeric_limits<std::size_t>::max());
    huge.shape.push_back(0);
    EXPECT_EQ(huge.count(), 0u);
}

TEST(Value, TypedReadsReturnTheStorage) {
    auto same = [](auto x) { EXPECT_EQ(Value(x).template as<decltype(x)>(), x); };
    same(2.5f);
    same(std::int64_t{-1} << 40);
    same(true);
    same(std::string("s"));
    same(F2{1, 2});
    same(F3{1, 2, 3});
    same(F6{1, 2, 3, 4, 5, 6});
    F32 a32{};
    a32[31] = 9;
    same(a32);
    same(Pairs{{1, 2}, {3, 4}});
    same(std::vector<std::int64_t>{5, -6});
    same(std::vector<float>{0.5f, 1.5f, 2.5f, 3.5f});
}

TEST(Value, TypedReadsOfShortStorageGiveZeros) {
    Value none(std::vector<float>{});
    EXPECT_EQ(none.as<float>(), 0.0f);
    EXPECT_EQ(none.as<std::int64_t>(), 0);
    EXPECT_FALSE(none.as<bool>());
    EXPECT_EQ(none.as<std::string>(), "");
    // Reads go by size: a Float2 read as a Float3 is all zeros, not partly filled.
    EXPECT_EQ(Value(F2{1, 2}).as<F3>(), (F3{}));
    EXPECT_EQ(Value(F3{1, 2, 3}).as<F2>(), (F2{1, 2}));
    EXPECT_TRUE(Value(std::vector<float>{1, 2, 3, 4}).as<Pairs>().empty());
    EXPECT_TRUE(floats({0, 2}, {}).as<Pairs>().empty());
    Value lying = floats({5, 2}, {1, 2, 3, 4});  // shape claims more than data holds
    EXPECT_EQ(lying.as<Pairs>().size(), 2u);
    EXPECT_EQ(rawValue<std::uint8_t>(DType::UInt8, {12}, std::vector<std::uint8_t>(12)).as<std::vector<std::int64_t>>().size(), 1u);
    EXPECT_EQ(Value(std::int64_t{1}).as<std::vector<float>>().size(), 2u);
}

TEST(Value, AsFloatReducesEveryDtype) {
    EXPECT_EQ(Value(std::string("9")).asFloat(), 0.0f);
    EXPECT_EQ(Value(std::vector<float>{}).asFloat(), 0.0f);
    EXPECT_EQ(floats({2, 0}, {}).asFloat(), 0.0f);
    EXPECT_EQ(Value(std::vector<float>{3, 4}).asFloat(), 3.0f);
    EXPECT_EQ(Value(true).asFloat(), 1.0f);
    EXPECT_EQ(rawValue<std::uint8_t>(DType::Bool, {}, {7}).asFloat(), 1.0f);
    EXPECT_EQ(rawValue<std::uint8_t>(DType::Char, {}, {200}).asFloat(), 200.0f);
    EXPECT_EQ(rawValue<std::int8_t>(DType::Int8, {}, {-1}).asFloat(), -1.0f);
    EXPECT_EQ(rawValue<std::int16_t>(DType::Int16, {}, {-300}).asFloat(), -300.0f);
    EXPECT_EQ(rawValue<std::int32_t>(DType::Int32, {}, {-5}).asFloat(), -5.0f);
    EXPECT_EQ(rawValue<std::uint8_t>(DType::UInt8, {}, {255}).asFloat(), 255.0f);
    EXPECT_EQ(rawValue<std::uint16_t>(DType::UInt16, {}, {65535}).asFloat(), 65535.0f);
    EXPECT_EQ(rawValue<std::uint32_t>(DType::UInt32, {}, {4000000000u}).asFloat(), 4e9f);
    EXPECT_EQ(rawValue<std::uint64_t>(DType::UInt64, {1}, {~0ull}).asFloat(), 18446744073709551616.0f);
    EXPECT_EQ(rawValue<double>(DType::Float64, {4, 4}, std::vector<double>(16, 0.1)).asFloat(), 0.1f);
    EXPECT_EQ(halves({0xC000}).asFloat(), -2.0f);
    // 2^60 + 2^36 + 1 rounds to 2^60 + 2^37 directly, but to 2^60 through double.
    const std::int64_t tricky = (std::int64_t{1} << 60) + (std::int64_t{1} << 36) + 1;
    EXPECT_EQ(Value(tricky).asFloat(), 1152921504606846976.0f);
}

TEST(Half, WideningIsExact) {
    EXPECT_EQ(halfToFloat(0x3C00), 1.0f);
    EXPECT_EQ(halfToFloat(0x7BFF), 65504.0f);
    EXPECT_EQ(halfToFloat(0x0001), std::ldexp(1.0f, -24));
    EXPECT_EQ(halfToFloat(0x03FF), std::ldexp(1023.0f, -24));
    EXPECT_EQ(halfToFloat(0x0400), std::ldexp(1.0f, -14));
    EXPECT_EQ(std::bit_cast<std::uint32_t>(halfToFloat(0x8000)), 0x80000000u);
    EXPECT_EQ(halfToFloat(0x7C00), std::numeric_limits<float>::infinity());
    EXPECT_EQ(halfToFloat(0xFC00), -std::numeric_limits<float>::infinity());
    EXPECT_EQ(std::bit_cast<std::uint32_t>(halfToFloat(0x7E01)), 0x7FC02000u);  // payload shifted up by 13
    EXPECT_EQ(std::bit_cast<std::uint32_t>(halfToFloat(0xFD00)), 0xFFA00000u);
}

TEST(Half, EveryHalfSurvivesARoundTripAndNaNsBecomeQuiet) {
    for (std::uint32_t h = 0; h <= 0xFFFF; ++h) {
        const bool nan = (h & 0x7C00) == 0x7C00 && (h & 0x3FF) != 0;
        const std::uint16_t expected = nan ? static_cast<std::uint16_t>((h & 0x8000) | 0x7E00) : h;
        ASSERT_EQ(floatToHalf(halfToFloat(static_cast<std::uint16_t>(h))), expected) << h;
    }
}

TEST(Half, NarrowingRoundsHalfUpOnTheMagnitude) {
    EXPECT_EQ(floatToHalf(1.0f + std::ldexp(1.0f, -11)), 0x3C01);     // tie: up, not to even
    EXPECT_EQ(floatToHalf(-1.0f - std::ldexp(1.0f, -11)), 0xBC01);
    EXPECT_EQ(floatToHalf(std::nextafter(1.0f + std::ldexp(1.0f, -11), 0.0f)), 0x3C00);
    EXPECT_EQ(floatToHalf(std::ldexp(2.5f, -24)), 0x0003);            // subnormal tie goes up too
    EXPECT_EQ(floatToHalf(std::ldexp(1023.5f, -24)), 0x0400);         // carry out of the subnormals
    EXPECT_EQ(floatToHalf(std::ldexp(1.0f, -25)), 0x0001);
    EXPECT_EQ(floatToHalf(std::nextafter(std::ldexp(1.0f, -25), 0.0f)), 0x0000);
    EXPECT_EQ(floatToHalf(-std::ldexp(1.0f, -26)), 0x8000);
    EXPECT_EQ(floatToHalf(65519.0f), 0x7BFF);
    EXPECT_EQ(floatToHalf(65520.0f), 0x7C00);                         // rounds up into infinity
    EXPECT_EQ(floatToHalf(1e6f), 0x7C00);
    EXPECT_EQ(floatToHalf(-1e30f), 0xFC00);
    EXPECT_EQ(floatToHalf(std::numeric_limits<float>::infinity()), 0x7C00);
    EXPECT_EQ(floatToHalf(std::bit_cast<float>(0x7F800001u)), 0x7E00);
    EXPECT_EQ(floatToHalf(std::bit_cast<float>(0xFFC12345u)), 0xFE00);
}

TEST(Value, LerpFloat32IsOneFusedStepOnTheFloatDifference) {
    EXPECT_EQ(Value::lerp(Value(1.0f), Value(3.0f), 0.5), Value(2.0f));
    EXPECT_EQ(Value::lerp(Value(1.0f), Value(3.0f), 2.0), Value(5.0f));
    EXPECT_EQ(Value::lerp(Value(1.0f), Value(3.0f), -1.0), Value(-1.0f));
    // b - a is taken in float: -1 - 2^24 rounds to -2^24, so t = 1 lands on 0, not on b.
    EXPECT_EQ(Value::lerp(Value(16777216.0f), Value(-1.0f), 1.0), Value(0.0f));
    Value m = Value::lerp(Value(F6{0, 0, 0, 0, 0, 0}),
                          Value(F6{2, 4, 6, 8, 10, 12}), 0.5);
    EXPECT_EQ(m, Value(F6{1, 2, 3, 4, 5, 6}));
    EXPECT_TRUE(std::isnan(Value::lerp(Value(std::nanf("")), Value(1.0f), 0.5).as<float>()));
    const float inf = std::numeric_limits<float>::infinity();
    EXPECT_EQ(Value::lerp(Value(1.0f), Value(inf), 0.5).as<float>(), inf);
}

TEST(Value, LerpFloat64UsesFusedMultiplyAdd) {
    auto d = [](std::vector<double> v) {
        const auto n = static_cast<std::uint32_t>(v.size());
        return rawValue(DType::Float64, {n}, std::move(v));
    };
    // 3 * (1/3) - 1 is -2^-54 exactly when fused and 0 when the product is rounded first.
    Value r = Value::lerp(d({-1.0, 0.0}), d({2.0, 8.0}), 1.0 / 3.0);
    EXPECT_EQ(itemsOf<double>(r), (std::vector<double>{-std::ldexp(1.0, -54), 8.0 / 3.0}));
    std::vector<double> a(16, 0.0), b(16, 0.0);
    for (int i = 0; i < 4; ++i) {
        a[i * 5] = 1.0;
        b[i * 5] = 3.0;
    }
    Value blend = Value::lerp(rawValue(DType::Float64, {4, 4}, a), rawValue(DType::Float64, {4, 4}, b), 0.25);
    EXPECT_EQ(blend.shape, (std::vector<std::uint32_t>{4, 4}));
    EXPECT_EQ(itemsOf<double>(blend)[5], 1.5);
    EXPECT_EQ(itemsOf<double>(blend)[1], 0.0);
}

TEST(Value, LerpFloat16WidensBlendsAndNarrows) {
    auto h = [](const Value& v) { return itemsOf<std::uint16_t>(v); };
    EXPECT_EQ(h(Value::lerp(halves({0x3C00, 0xBC00}), halves({0x3C01, 0xBC01}), 0.5)),
              (std::vector<std::uint16_t>{0x3C01, 0xBC01}));
    EXPECT_EQ(h(Value::lerp(halves({0x0000}), halves({0x0001}), 0.5)), std::vector<std::uint16_t>{0x0001});
    EXPECT_EQ(h(Value::lerp(halves({0x0000}), halves({0x0001}), 0.49)), std::vector<std::uint16_t>{0x0000});
    EXPECT_EQ(h(Value::lerp(halves({0x0000}), halves({0x7BFF}), 2.0)), std::vector<std::uint16_t>{0x7C00});
    EXPECT_EQ(h(Value::lerp(halves({0x7E00}), halves({0x3C00}), 0.5)), std::vector<std::uint16_t>{0x7E00});
    EXPECT_EQ(h(Value::lerp(halves({0x3C00}), halves({0x7C00}), 0.5)), std::vector<std::uint16_t>{0x7C00});
    Value quat = rawValue<std::uint16_t>(DType::Float16, {2, 2}, {0x0000, 0x3C00, 0x4000, 0x4200});
    Value zero = rawValue<std::uint16_t>(DType::Float16, {2, 2}, {0, 0, 0, 0});
    Value half = Value::lerp(zero, quat, 0.5);
    EXPECT_EQ(half.shape, (std::vector<std::uint32_t>{2, 2}));
    EXPECT_EQ(h(half), (std::vector<std::uint16_t>{0x0000, 0x3800, 0x3C00, 0x3E00}));
}

TEST(Value, LerpHoldsEverythingElseAtTheLeftValue) {
    EXPECT_EQ(Value::lerp(Value(std::int64_t{1}), Value(std::int64_t{3}), 0.5), Value(std::int64_t{1}));
    EXPECT_EQ(Value::lerp(Value(false), Value(true), 0.9), Value(false));
    EXPECT_EQ(Value::lerp(Value("a"), Value("b"), 0.5), Value("a"));
    Value i32 = rawValue<std::int32_t>(DType::Int32, {2}, {1, 2});
    EXPECT_EQ(Value::lerp(i32, rawValue<std::int32_t>(DType::Int32, {2}, {5, 6}), 0.5), i32);
    Value u8 = rawValue<std::uint8_t>(DType::UInt8, {}, {10});
    EXPECT_EQ(Value::lerp(u8, rawValue<std::uint8_t>(DType::UInt8, {}, {20}), 0.5), u8);
    Value f64 = rawValue<double>(DType::Float64, {}, {4.0});
    EXPECT_EQ(Value::lerp(Value(1.0f), f64, 0.5), Value(1.0f));
    Value pair(std::vector<float>{1, 2});
    EXPECT_EQ(Value::lerp(pair, Value(std::vector<float>{1, 2, 3}), 0.5), pair);
    EXPECT_EQ(Value::lerp(Value(std::vector<float>{1, 2}), Value(std::vector<float>{3, 4}), 0.5),
              Value(std::vector<float>{2, 3}));
}

TEST(TypeAliases, LookupIsExactAndOrdered) {
    auto c = aliasFromName("color3f");
    ASSERT_TRUE(c);
    EXPECT_EQ(c->dtype, DType::Float32);
    EXPECT_EQ(c->shape, std::vector<std::uint32_t>{3});
    auto m = aliasFromName("matrix4d");
    ASSERT_TRUE(m);
    EXPECT_EQ(m->dtype, DType::Float64);
    EXPECT_EQ(m->shape, (std::vector<std::uint32_t>{4, 4}));
    EXPECT_EQ(aliasFromName("quath")->dtype, DType::Float16);
    EXPECT_EQ(aliasFromName("vec3i")->dtype, DType::Int32);
    EXPECT_FALSE(aliasFromName("Color3f"));
    EXPECT_FALSE(aliasFromName("float3"));
    EXPECT_FALSE(aliasFromName("matrix4h"));
    EXPECT_FALSE(aliasFromName(""));
    const auto& names = aliasNames();
    ASSERT_EQ(names.size(), 26u);
    EXPECT_EQ(names.front(), "vec2f");
    EXPECT_EQ(names[12], "matrix2d");
    EXPECT_EQ(names.back(), "texCoord3f");
    EXPECT_EQ(&names, &aliasNames());
    for (std::string_view n : names) EXPECT_TRUE(aliasFromName(n)) << n;
}
