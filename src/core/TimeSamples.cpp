// Keyframe curves: sorted editing and evaluation with held, linear and cubic Bezier segments.
#include "ostrevik/core.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace ostrevik {

namespace {

using Handle = std::pair<double, double>;

// Components per channel of the Bezier-capable float types; 0 for the rest.
std::size_t floatComponents(Type type) {
    switch (type) {
        case Type::Float2: return 2;
        case Type::Float3: return 3;
        case Type::Matrix: return 6;
        case Type::Spectrum: return 32;
        default: return 0;
    }
}

// Channel `c` of a key's value, read by the value's own type; neighbours may differ in type.
double channel(const Value& v, Type type, std::size_t c) {
    switch (type) {
        case Type::Float: return v.as<float>();
        case Type::Int: return static_cast<double>(v.as<std::int64_t>());
        case Type::Bool: return v.as<bool>() ? 1.0 : 0.0;
        case Type::Float2:
        case Type::Float3:
        case Type::Matrix:
        case Type::Spectrum: {
            const std::size_t n = floatComponents(type);
            if (v.data.size() < n * sizeof(float)) return 0.0;
            float f;
            std::memcpy(&f, v.data.data() + (c < n ? c : 0) * sizeof(float), sizeof f);
            return f;
        }
        default: return 0.0;
    }
}

double channelOf(const Keyframe& k, std::size_t c) { return channel(k.value, k.value.type(), c); }

// Tangent parallel to the line through the neighbours, a third of the adjacent interval long.
Handle autoHandle(const std::vector<Keyframe>& keys, std::size_t i, std::size_t c, bool outgoing) {
    const Keyframe& key = keys[i];
    const Keyframe& prev = keys[i > 0 ? i - 1 : i];
    const Keyframe& next = keys[i + 1 < keys.size() ? i + 1 : i];
    const double span = next.time - prev.time;
    const double slope = span > 0 ? (channelOf(next, c) - channelOf(prev, c)) / span : 0.0;
    const double dx = outgoing ? next.time - key.time : key.time - prev.time;
    if (!(dx > 0)) return {0.0, 0.0};
    return outgoing ? Handle{dx / 3, slope * dx / 3} : Handle{-dx / 3, -slope * dx / 3};
}

double bernstein(double p0, double p1, double p2, double p3, double s) {
    const double r = 1 - s;
    return r * r * r * p0 + 3 * r * r * s * p1 + 3 * r * s * s * p2 + s * s * s * p3;
}

// Channel `c` of the segment from keys[i] to keys[i + 1] at time t.
double solveChannel(const std::vector<Keyframe>& keys, std::size_t i, std::size_t c, double t) {
    const Keyframe& k0 = keys[i];
    const Keyframe& k1 = keys[i + 1];
    const Handle out = c < k0.right.size() ? k0.right[c] : autoHandle(keys, i, c, true);
    const Handle in = c < k1.left.size() ? k1.left[c] : autoHandle(keys, i + 1, c, false);

    const double a = channelOf(k0, c);
    const double b = channelOf(k1, c);
    const double x0 = k0.time;
    const double x3 = k1.time;
    const double w = x3 - x0;
    double x1 = std::clamp(x0 + out.first, x0, x3);
    double x2 = std::clamp(x3 + in.first, x0, x3);
    const double y0 = a, y1 = a + out.second, y2 = b + in.second, y3 = b;

    // Overlapping handles are shrunk together so that time stays monotone along the curve.
    const double p = x1 - x0;
    const double q = x3 - x2;
    if (p + q > w) {
        const double r = w / (p + q);
        x1 = x0 + r * p;
        x2 = x3 - r * q;
    }

    double s = std::clamp((t - x0) / w, 0.0, 1.0);
    bool found = false;
    for (int step = 1; step <= 8; ++step) {
        const double f = bernstein(x0, x1, x2, x3, s) - t;
        const double r = 1 - s;
        const double d = 3 * r * r * (x1 - x0) + 6 * r * s * (x2 - x1) + 3 * s * s * (x3 - x2);
        if (std::fabs(f) < 1e-7) {
            found = true;
            break;
        }
        if (std::fabs(d) < 1e-9) break;
        s -= f / d;
        if (s < 0 || s > 1 || step == 8) break;
    }
    if (!found) {
        double lo = 0.0, hi = 1.0;
        for (int round = 0; round < 32; ++round) {
            const double m = (lo + hi) / 2;
            if (t > bernstein(x0, x1, x2, x3, m)) {
                lo = m;
            } else {
                hi = m;
            }
        }
        s = (lo + hi) / 2;
    }
    return bernstein(y0, y1, y2, y3, s);
}

// Nearest integer, halves away from zero, saturated to the int64 range (NaN gives 0).
std::int64_t roundToInt64(double y) {
    const double r = std::round(y);
    if (std::isnan(r)) return 0;
    if (r >= 9223372036854775808.0) return std::numeric_limits<std::int64_t>::max();
    if (r < -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(r);
}

template <std::size_t N>
Value solveFloats(const std::vector<Keyframe>& keys, std::size_t i, double t) {
    std::array<float, N> out{};
    for (std::size_t c = 0; c < N; ++c) out[c] = static_cast<float>(solveChannel(keys, i, c, t));
    return Value(out);
}

Value bezier(const std::vector<Keyframe>& keys, std::size_t i, double t, double u) {
    const Value& v0 = keys[i].value;
    const Value& v1 = keys[i + 1].value;
    const Type type = v0.type();
    if (type != v1.type()) return Value::lerp(v0, v1, u);
    switch (type) {
        case Type::Float: return Value(static_cast<float>(solveChannel(keys, i, 0, t)));
        case Type::Int: return Value(roundToInt64(solveChannel(keys, i, 0, t)));
        case Type::Bool: return v0;
        case Type::Float2: return solveFloats<2>(keys, i, t);
        case Type::Float3: return solveFloats<3>(keys, i, t);
        case Type::Matrix: return solveFloats<6>(keys, i, t);
        case Type::Spectrum: return solveFloats<32>(keys, i, t);
        default: return Value::lerp(v0, v1, u);
    }
}

bool earlier(const Keyframe& k, double time) { return k.time < time; }

}  // namespace

void TimeSamples::set(double time, Value value, Interp interp) {
    if (!std::isfinite(time)) return;
    auto it = std::lower_bound(keys.begin(), keys.end(), time, earlier);
    if (it != keys.end() && it->time == time) {
        it->value = std::move(value);
        it->interp = interp;
        return;
    }
    Keyframe k;
    k.time = time;
    k.value = std::move(value);
    k.interp = interp;
    keys.insert(it, std::move(k));
}

void TimeSamples::setHandles(double time, HandleType handle, std::vector<std::pair<double, double>> left,
                             std::vector<std::pair<double, double>> right) {
    auto it = std::lower_bound(keys.begin(), keys.end(), time, earlier);
    if (it == keys.end() || it->time != time) return;
    it->handle = handle;
    it->left = std::move(left);
    it->right = std::move(right);
}

void TimeSamples::remove(double time) {
    auto it = std::lower_bound(keys.begin(), keys.end(), time, earlier);
    if (it != keys.end() && it->time == time) keys.erase(it);
}

Value TimeSamples::resolve(double time) const {
    if (keys.empty()) return Value();
    // A NaN time has no place on the axis; answer with the curve's start.
    if (std::isnan(time) || time <= keys.front().time) return keys.front().value;
    if (time >= keys.back().time) return keys.back().value;

    auto next = std::upper_bound(keys.begin(), keys.end(), time,
                                 [](double t, const Keyframe& k) { return t < k.time; });
    const std::size_t i = static_cast<std::size_t>(next - keys.begin()) - 1;
    const Keyframe& k0 = keys[i];
    const Keyframe& k1 = keys[i + 1];
    const double u = (time - k0.time) / (k1.time - k0.time);
    switch (k0.interp) {
        case Interp::Held: return k0.value;
        case Interp::Linear: return Value::lerp(k0.value, k1.value, u);
        case Interp::Bezier: return bezier(keys, i, time, u);
    }
    return k0.value;
}

}  // namespace ostrevik
