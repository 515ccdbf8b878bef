// Value storage, classification, typed reads, half-precision conversion and interpolation.
#include "ostrevik/core.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace ostrevik {

namespace {

template <class T>
T load(const std::uint8_t* p) {
    T v;
    std::memcpy(&v, p, sizeof(T));
    return v;
}

template <class T>
void store(std::uint8_t* p, T v) {
    std::memcpy(p, &v, sizeof(T));
}

// A Float32 value of the given shape holding `n` floats from `src`.
Value floatValue(std::vector<std::uint32_t> shape, const float* src, std::size_t n) {
    Value v;
    v.shape = std::move(shape);
    v.data.resize(n * sizeof(float));
    if (n != 0) std::memcpy(v.data.data(), src, n * sizeof(float));
    return v;
}

template <std::size_t N>
std::array<float, N> floatArray(const std::vector<std::uint8_t>& data) {
    std::array<float, N> out{};
    if (data.size() >= N * sizeof(float)) std::memcpy(out.data(), data.data(), N * sizeof(float));
    return out;
}

// Widening through double first keeps one fused rounding per element, as the float rule asks.
float lerpFloat(float a, float b, double t) {
    float d = b - a;
    return static_cast<float>(std::fma(static_cast<double>(d), t, static_cast<double>(a)));
}

}  // namespace

std::size_t dtypeWidth(DType dtype) {
    switch (dtype) {
        case DType::Bool:
        case DType::Char:
        case DType::Int8:
        case DType::UInt8: return 1;
        case DType::Int16:
        case DType::UInt16:
        case DType::Float16: return 2;
        case DType::Int32:
        case DType::UInt32:
        case DType::Float32: return 4;
        case DType::Int64:
        case DType::UInt64:
        case DType::Float64: return 8;
        case DType::Str: return 0;
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Constructors

Value::Value() : data(sizeof(float), 0) {}

Value::Value(float f) : data(sizeof(float)) { store(data.data(), f); }

Value::Value(std::int64_t i) : dtype(DType::Int64), data(sizeof(std::int64_t)) {
    store(data.data(), i);
}

Value::Value(bool b) : dtype(DType::Bool), data(1, b ? 1 : 0) {}

Value::Value(std::string s) : dtype(DType::Str) { strings.push_back(std::move(s)); }

Value::Value(const char* s) : Value(std::string(s)) {}

Value::Value(const std::array<float, 2>& a) : Value(floatValue({2}, a.data(), 2)) {}

Value::Value(const std::array<float, 3>& a) : Value(floatValue({3}, a.data(), 3)) {}

Value::Value(const std::array<float, 6>& a) : Value(floatValue({2, 3}, a.data(), 6)) {}

Value::Value(const std::array<float, 32>& a) : Value(floatValue({32}, a.data(), 32)) {}

Value::Value(const std::vector<std::array<float, 2>>& v)
    : shape{static_cast<std::uint32_t>(v.size()), 2}, data(v.size() * 2 * sizeof(float)) {
    if (!v.empty()) std::memcpy(data.data(), v.data(), data.size());
}

Value::Value(const std::vector<std::int64_t>& v)
    : dtype(DType::Int64), shape{static_cast<std::uint32_t>(v.size())},
      data(v.size() * sizeof(std::int64_t)) {
    if (!v.empty()) std::memcpy(data.data(), v.data(), data.size());
}

Value::Value(const std::vector<float>& v)
    : shape{static_cast<std::uint32_t>(v.size())}, data(v.size() * sizeof(float)) {
    if (!v.empty()) std::memcpy(data.data(), v.data(), data.size());
}

// ---------------------------------------------------------------------------------------------
// Classification

Type Value::type() const {
    const std::size_t rank = shape.size();
    switch (dtype) {
        case DType::Float32:
            if (rank == 0) return Type::Float;
            if (rank == 1 && shape[0] == 2) return Type::Float2;
            if (rank == 1 && shape[0] == 3) return Type::Float3;
            if (rank == 2 && shape[0] == 2 && shape[1] == 3) return Type::Matrix;
            if (rank == 1 && shape[0] == 32) return Type::Spectrum;
            if (rank == 2 && shape[1] == 2) return Type::Float2Array;
            if (rank == 1) return Type::FloatArray;
            return Type::General;
        case DType::Int64:
            if (rank == 0) return Type::Int;
            if (rank == 1) return Type::IntArray;
            return Type::General;
        case DType::Bool:
            return rank == 0 ? Type::Bool : Type::General;
        default:
            return Type::General;
    }
}

std::size_t Value::count() const {
    // Saturates instead of wrapping, so that a hostile shape can never look small.
    std::size_t n = 1;
    for (std::uint32_t d : shape) {
        if (d == 0) return 0;
        if (n > std::numeric_limits<std::size_t>::max() / d) {
            n = std::numeric_limits<std::size_t>::max();
        } else {
            n *= d;
        }
    }
    return n;
}

float Value::asFloat() const {
    if (dtype == DType::Str) return 0.0f;
    if (count() == 0) return 0.0f;
    const std::size_t width = dtypeWidth(dtype);
    if (width == 0 || data.size() < width) return 0.0f;
    const std::uint8_t* p = data.data();
    switch (dtype) {
        case DType::Bool: return p[0] != 0 ? 1.0f : 0.0f;
        case DType::Char:
        case DType::UInt8: return static_cast<float>(p[0]);
        case DType::Int8: return static_cast<float>(load<std::int8_t>(p));
        case DType::Int16: return static_cast<float>(load<std::int16_t>(p));
        case DType::Int32: return static_cast<float>(load<std::int32_t>(p));
        case DType::UInt16: return static_cast<float>(load<std::uint16_t>(p));
        case DType::UInt32: return static_cast<float>(load<std::uint32_t>(p));
        case DType::Int64: return static_cast<float>(static_cast<double>(load<std::int64_t>(p)));
        case DType::UInt64: return static_cast<float>(static_cast<double>(load<std::uint64_t>(p)));
        case DType::Float32: return load<float>(p);
        case DType::Float64: return static_cast<float>(load<double>(p));
        case DType::Float16: return halfToFloat(load<std::uint16_t>(p));
        case DType::Str: break;
    }
    return 0.0f;
}

// ---------------------------------------------------------------------------------------------
// Typed reads

template <>
float Value::as<float>() const {
    return data.size() >= sizeof(float) ? load<float>(data.data()) : 0.0f;
}

template <>
std::int64_t Value::as<std::int64_t>() const {
    return data.size() >= sizeof(std::int64_t) ? load<std::int64_t>(data.data()) : 0;
}

template <>
bool Value::as<bool>() const {
    return !data.empty() && data[0] != 0;
}

template <>
std::array<float, 2> Value::as<std::array<float, 2>>() const {
    return floatArray<2>(data);
}

template <>
std::array<float, 3> Value::as<std::array<float, 3>>() const {
    return floatArray<3>(data);
}

template <>
std::array<float, 6> Value::as<std::array<float, 6>>() const {
    return floatArray<6>(data);
}

template <>
std::array<float, 32> Value::as<std::array<float, 32>>() const {
    return floatArray<32>(data);
}

template <>
std::vector<std::array<float, 2>> Value::as<std::vector<std::array<float, 2>>>() const {
    std::vector<std::array<float, 2>> out;
    if (shape.size() != 2 || shape[0] == 0) return out;
    // Never read past the storage, whatever the shape claims.
    const std::size_t n = std::min<std::size_t>(shape[0], data.size() / (2 * sizeof(float)));
    out.resize(n);
    if (n != 0) std::memcpy(out.data(), data.data(), n * 2 * sizeof(float));
    return out;
}

template <>
std::vector<std::int64_t> Value::as<std::vector<std::int64_t>>() const {
    std::vector<std::int64_t> out(data.size() / sizeof(std::int64_t));
    if (!out.empty()) std::memcpy(out.data(), data.data(), out.size() * sizeof(std::int64_t));
    return out;
}

template <>
std::vector<float> Value::as<std::vector<float>>() const {
    std::vector<float> out(data.size() / sizeof(float));
    if (!out.empty()) std::memcpy(out.data(), data.data(), out.size() * sizeof(float));
    return out;
}

template <>
std::string Value::as<std::string>() const {
    return strings.empty() ? std::string() : strings.front();
}

// ---------------------------------------------------------------------------------------------
// Half precision

float halfToFloat(std::uint16_t bits) {
    const std::uint32_t sign = static_cast<std::uint32_t>(bits & 0x8000u) << 16;
    const std::uint32_t exp = (bits >> 10) & 0x1Fu;
    std::uint32_t mant = bits & 0x3FFu;
    std::uint32_t out;
    if (exp == 31) {
        out = sign | 0x7F800000u | (mant << 13);
    } else if (exp != 0) {
        out = sign | ((exp + 112) << 23) | (mant << 13);
    } else if (mant == 0) {
        out = sign;
    } else {
        // Subnormal half: shift the leading one into the implicit position.
        std::uint32_t e = 113;
        while ((mant & 0x400u) == 0) {
            mant <<= 1;
            --e;
        }
        out = sign | (e << 23) | ((mant & 0x3FFu) << 13);
    }
    float f;
    std::memcpy(&f, &out, sizeof f);
    return f;
}

std::uint16_t floatToHalf(float f) {
    std::uint32_t x;
    std::memcpy(&x, &f, sizeof x);
    const std::uint32_t s = (x >> 16) & 0x8000u;
    const std::uint32_t field = (x >> 23) & 0xFFu;
    const std::int32_t e = static_cast<std::int32_t>(field) - 112;
    std::uint32_t m = x & 0x7FFFFFu;
    if (field == 255) return static_cast<std::uint16_t>(s | 0x7C00u | (m != 0 ? 0x200u : 0u));
    if (e > 30) return static_cast<std::uint16_t>(s | 0x7C00u);
    if (e > 0) {
        // Rounding half up on the magnitude; a carry may step into the next exponent.
        return static_cast<std::uint16_t>(s + (static_cast<std::uint32_t>(e) << 10) + (m >> 13) +
                                          ((x >> 12) & 1u));
    }
    if (e >= -10) {
        m |= 0x800000u;
        const std::uint32_t shift = static_cast<std::uint32_t>(14 - e);
        return static_cast<std::uint16_t>(s + (m >> shift) + ((m >> (shift - 1)) & 1u));
    }
    return static_cast<std::uint16_t>(s);
}

// ---------------------------------------------------------------------------------------------
// Interpolation

Value Value::lerp(const Value& a, const Value& b, double t) {
    if (a.dtype != b.dtype || a.shape != b.shape) return a;
    // Sizes could disagree only on a value whose storage breaks its invariant; blend what both hold.
    switch (a.dtype) {
        case DType::Float32: {
            Value r = a;
            const std::size_t n = std::min(a.data.size(), b.data.size()) / sizeof(float);
            for (std::size_t i = 0; i < n; ++i) {
                const std::size_t off = i * sizeof(float);
                store(r.data.data() + off,
                      lerpFloat(load<float>(a.data.data() + off), load<float>(b.data.data() + off), t));
            }
            return r;
        }
        case DType::Float64: {
            Value r = a;
            const std::size_t n = std::min(a.data.size(), b.data.size()) / sizeof(double);
            for (std::size_t i = 0; i < n; ++i) {
                const std::size_t off = i * sizeof(double);
                const double x = load<double>(a.data.data() + off);
                const double y = load<double>(b.data.data() + off);
                store(r.data.data() + off, std::fma(t, y - x, x));
            }
            return r;
        }
        case DType::Float16: {
            Value r = a;
            const std::size_t n = std::min(a.data.size(), b.data.size()) / sizeof(std::uint16_t);
            for (std::size_t i = 0; i < n; ++i) {
                const std::size_t off = i * sizeof(std::uint16_t);
                const float x = halfToFloat(load<std::uint16_t>(a.data.data() + off));
                const float y = halfToFloat(load<std::uint16_t>(b.data.data() + off));
                store(r.data.data() + off, floatToHalf(lerpFloat(x, y, t)));
            }
            return r;
        }
        default:
            return a;
    }
}

}  // namespace ostrevik
