#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "ostrevik/core.h"

using namespace ostrevik;

namespace {

TimeSamples curve(std::initializer_list<std::pair<double, Value>> keys, Interp interp) {
    TimeSamples ts;
    for (const auto& [t, v] : keys) ts.set(t, v, interp);
    return ts;
}

std::vector<double> times(const TimeSamples& ts) {
    std::vector<double> out;
    for (const Keyframe& k : ts.keys) out.push_back(k.time);
    return out;
}

Value i64(std::int64_t i) { return Value(i); }

}  // namespace

TEST(TimeSamples, SetKeepsKeysSortedAndUnique) {
    TimeSamples ts;
    ts.set(3, Value(3.0f), Interp::Linear);
    ts.set(1, Value(1.0f), Interp::Held);
    ts.set(2, Value(2.0f), Interp::Bezier);
    EXPECT_EQ(times(ts), (std::vector<double>{1, 2, 3}));
    EXPECT_EQ(ts.keys[1].handle, HandleType::Auto);
    EXPECT_TRUE(ts.keys[1].left.empty() && ts.keys[1].right.empty());

    ts.set(std::nan(""), Value(9.0f), Interp::Linear);
    ts.set(std::numeric_limits<double>::infinity(), Value(9.0f), Interp::Linear);
    ts.set(-std::numeric_limits<double>::infinity(), Value(9.0f), Interp::Linear);
    EXPECT_EQ(ts.keys.size(), 3u);

    ts.setHandles(2, HandleType::Free, {{-0.1, 1}}, {{0.1, 2}});
    ts.set(2, Value(7.0f), Interp::Held);  // replaces value and interp, keeps the handles
    ASSERT_EQ(ts.keys.size(), 3u);
    const Keyframe& k = ts.keys[1];
    EXPECT_EQ(k.value, Value(7.0f));
    EXPECT_EQ(k.interp, Interp::Held);
    EXPECT_EQ(k.handle, HandleType::Free);
    EXPECT_EQ(k.left, (std::vector<std::pair<double, double>>{{-0.1, 1}}));
    EXPECT_EQ(k.right, (std::vector<std::pair<double, double>>{{0.1, 2}}));
}

TEST(TimeSamples, SetHandlesAndRemoveNeedTheExactTime) {
    TimeSamples ts = curve({{1, Value(1.0f)}, {2, Value(2.0f)}}, Interp::Linear);
    const TimeSamples before = ts;
    ts.setHandles(std::nextafter(1.0, 2.0), HandleType::Vector, {{1, 1}}, {});
    ts.setHandles(5, HandleType::Vector, {{1, 1}}, {});
    ts.remove(std::nextafter(2.0, 0.0));
    ts.remove(0);
    EXPECT_EQ(ts, before);
    ts.remove(1);
    EXPECT_EQ(times(ts), std::vector<double>{2});
}

TEST(TimeSamples, ResolveIsConstantBeyondTheEnds) {
    EXPECT_EQ(TimeSamples().resolve(4), Value());
    TimeSamples ts = curve({{1, Value(10.0f)}, {3, Value(30.0f)}}, Interp::Linear);
    EXPECT_EQ(ts.resolve(0), Value(10.0f));
    EXPECT_EQ(ts.resolve(1), Value(10.0f));
    EXPECT_EQ(ts.resolve(2), Value(20.0f));
    EXPECT_EQ(ts.resolve(3), Value(30.0f));
    EXPECT_EQ(ts.resolve(9), Value(30.0f));
    EXPECT_EQ(ts.resolve(-std::numeric_limits<double>::infinity()), Value(10.0f));
    EXPECT_EQ(ts.resolve(std::nan("")), Value(10.0f));  // no place on the axis: the start
}

TEST(TimeSamples, HeldAndLinearSegments) {
    TimeSamples held = curve({{0, Value(10.0f)}, {1, Value(20.0f)}}, Interp::Held);
    EXPECT_EQ(held.resolve(0.5), Value(10.0f));
    TimeSamples linear = curve({{0, Value(10.0f)}, {1, Value(20.0f)}}, Interp::Linear);
    EXPECT_EQ(linear.resolve(0.5), Value(15.0f));
    // The left key decides, and a time on a key starts the segment to its right.
    TimeSamples mixed = curve({{0, Value(0.0f)}, {1, Value(5.0f)}, {2, Value(20.0f)}}, Interp::Held);
    mixed.set(1, Value(5.0f), Interp::Linear);
    EXPECT_EQ(mixed.resolve(0.9), Value(0.0f));
    EXPECT_EQ(mixed.resolve(1), Value(5.0f));
    EXPECT_EQ(mixed.resolve(1.5), Value(12.5f));
    TimeSamples ints = curve({{0, i64(1)}, {1, i64(3)}}, Interp::Linear);
    EXPECT_EQ(ints.resolve(0.5), i64(1));
}

TEST(TimeSamples, BezierWithoutHandlesOnTwoKeysIsAStraightLine) {
    TimeSamples f = curve({{0, Value(0.0f)}, {2, Value(10.0f)}}, Interp::Bezier);
    for (double t : {0.1, 0.5, 1.0, 1.7}) EXPECT_NEAR(f.resolve(t).as<float>(), 5 * t, 1e-5) << t;
    TimeSamples v = curve({{0, Value(std::array<float, 3>{0, 0, 0})}, {1, Value(std::array<float, 3>{3, -6, 9})}},
                          Interp::Bezier);
    Value r = v.resolve(1.0 / 3.0);
    ASSERT_EQ(r.type(), Type::Float3);
    auto c = r.as<std::array<float, 3>>();
    EXPECT_NEAR(c[0], 1, 1e-5);
    EXPECT_NEAR(c[1], -2, 1e-5);
    EXPECT_NEAR(c[2], 3, 1e-5);
    std::array<float, 32> hi{};
    hi.fill(8);
    TimeSamples s = curve({{0, Value(std::array<float, 32>{})}, {1, Value(hi)}}, Interp::Bezier);
    Value sr = s.resolve(0.25);
    ASSERT_EQ(sr.type(), Type::Spectrum);
    const auto spectrum = sr.as<std::array<float, 32>>();
    EXPECT_NEAR(spectrum[31], 2, 1e-5);
    TimeSamples m = curve({{0, Value(std::array<float, 6>{})}, {1, Value(std::array<float, 6>{6, 6, 6, 6, 6, 6})}},
                          Interp::Bezier);
    EXPECT_EQ(m.resolve(0.5).type(), Type::Matrix);
    const auto matrix = m.resolve(0.5).as<std::array<float, 6>>();
    EXPECT_NEAR(matrix[5], 3, 1e-5);
}

TEST(TimeSamples, BezierAutomaticHandlesFollowTheNeighbours) {
    // The middle key's tangent is flat (its neighbours are level); the first key uses itself
    // and its one neighbour, so its tangent follows the first segment.
    TimeSamples ts = curve({{0, Value(0.0f)}, {1, Value(1.0f)}, {2, Value(0.0f)}}, Interp::Bezier);
    EXPECT_NEAR(ts.resolve(0.5).as<float>(), 0.625, 1e-6);
    EXPECT_NEAR(ts.resolve(1.5).as<float>(), 0.625, 1e-6);
    // A neighbour of another type feeds the tangent by its own reading: the Int 4 counts as 4.
    TimeSamples mixedTypes = curve({{0, Value(0.0f)}, {1, Value(1.0f)}, {2, i64(4)}}, Interp::Bezier);
    EXPECT_NEAR(mixedTypes.resolve(0.5).as<float>(), 0.375, 1e-6);
}

TEST(TimeSamples, BezierExplicitHandlesAreClampedAndScaled) {
    TimeSamples ts = curve({{0, Value(0.0f)}, {1, Value(1.0f)}}, Interp::Bezier);
    ts.setHandles(0, HandleType::Free, {}, {{10, 0}});
    ts.setHandles(1, HandleType::Free, {{-10, 0}}, {});
    // Both handles clamp to the whole segment and then shrink to half of it each.
    EXPECT_NEAR(ts.resolve(0.25).as<float>(), 0.105892543, 1e-6);
    EXPECT_NEAR(ts.resolve(0.5).as<float>(), 0.5, 1e-6);
    float last = 0;
    for (int i = 1; i < 100; ++i) {
        float y = ts.resolve(i / 100.0).as<float>();
        EXPECT_GE(y, last);
        last = y;
    }
    // A list shorter than the channels leaves the rest automatic.
    TimeSamples two = curve({{0, Value(std::array<float, 2>{0, 0})}, {1, Value(std::array<float, 2>{1, 1})}},
                            Interp::Bezier);
    two.setHandles(0, HandleType::Free, {}, {{1.0 / 3, 1}});
    auto r = two.resolve(0.5).as<std::array<float, 2>>();
    EXPECT_NEAR(r[1], 0.5, 1e-6);
    EXPECT_GT(r[0], 0.6f);
}

TEST(TimeSamples, BezierByValueType) {
    TimeSamples up = curve({{0, i64(0)}, {1, i64(3)}}, Interp::Bezier);
    EXPECT_EQ(up.resolve(0.5), i64(2));  // 1.5 rounds away from zero
    EXPECT_EQ(up.resolve(0.1), i64(0));
    TimeSamples down = curve({{0, i64(0)}, {1, i64(-3)}}, Interp::Bezier);
    EXPECT_EQ(down.resolve(0.5), i64(-2));
    TimeSamples flags = curve({{0, Value(false)}, {1, Value(true)}}, Interp::Bezier);
    EXPECT_EQ(flags.resolve(0.9), Value(false));
    TimeSamples mismatch = curve({{0, Value(1.0f)}, {1, Value(std::array<float, 2>{5, 5})}}, Interp::Bezier);
    EXPECT_EQ(mismatch.resolve(0.5), Value(1.0f));
    TimeSamples arrays = curve({{0, Value(std::vector<float>{0, 0, 0, 0})}, {1, Value(std::vector<float>{4, 4, 4, 4})}},
                               Interp::Bezier);
    EXPECT_EQ(arrays.resolve(0.25), Value(std::vector<float>{1, 1, 1, 1}));
}
