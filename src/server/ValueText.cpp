// Text, coercion and array building for the values that pass through the element tools.
#include "ValueText.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>

namespace zserver {

using ostrevik::DType;
using ostrevik::Value;

namespace {

const char* dtypeToken(DType dtype) {
    switch (dtype) {
        case DType::Bool: return "bool";
        case DType::Char: return "char";
        case DType::Int8: return "int8";
        case DType::Int16: return "int16";
        case DType::Int32: return "int32";
        case DType::Int64: return "int64";
        case DType::UInt8: return "uint8";
        case DType::UInt16: return "uint16";
        case DType::UInt32: return "uint32";
        case DType::UInt64: return "uint64";
        case DType::Float32: return "float32";
        case DType::Float64: return "float64";
        case DType::Str: return "str";
        case DType::Float16: return "float16";
    }
    return "unknown";
}

// The first element of `data` as T; 0 when the storage is too short.
template <class T>
T first(const Value& value) {
    T out{};
    if (value.data.size() >= sizeof(T)) std::memcpy(&out, value.data.data(), sizeof(T));
    return out;
}

template <class T>
Value scalar(DType dtype, T x) {
    Value v;
    v.dtype = dtype;
    v.shape.clear();
    v.data.resize(sizeof(T));
    std::memcpy(v.data.data(), &x, sizeof(T));
    return v;
}

// llround with a defined answer outside the 64-bit range: saturate, and NaN is 0.
long long roundToInt(double x) {
    if (std::isnan(x)) return 0;
    if (x >= 9223372036854775807.0) return std::numeric_limits<long long>::max();
    if (x <= -9223372036854775808.0) return std::numeric_limits<long long>::min();
    return std::llround(x);
}

bool isNullForm(const Value& value) {
    return value.dtype == DType::Str && value.shape.size() == 1 && value.shape[0] == 0 &&
           value.strings.empty();
}

std::string printed(const char* format, auto x) {
    char buf[64];
    int n = std::snprintf(buf, sizeof buf, format, x);
    return std::string(buf, n > 0 ? std::size_t(n) : 0);
}

}  // namespace

std::string valueText(const Value& value) {
    if (isNullForm(value)) return "null";
    std::string text = dtypeToken(value.dtype);
    if (!value.shape.empty()) {
        std::uint64_t count = 1;  // wraps rather than traps on absurd shapes
        text += '[';
        for (std::size_t i = 0; i < value.shape.size(); ++i) {
            if (i) text += ',';
            text += std::to_string(value.shape[i]);
            count *= value.shape[i];
        }
        text += "] (" + std::to_string(count) + " elems)";
        return text;
    }
    text += " = ";
    switch (value.dtype) {
        case DType::Bool: text += first<std::uint8_t>(value) ? "true" : "false"; break;
        case DType::Char: text += '\''; text += char(first<std::uint8_t>(value)); text += '\''; break;
        case DType::Float32: text += printed("%g", double(first<float>(value))); break;
        case DType::Float64: text += printed("%g", first<double>(value)); break;
        case DType::Str:
            text += '"';
            if (!value.strings.empty()) text += value.strings.front();
            text += '"';
            break;
        default: text += printed("%lld", roundToInt(value.asFloat())); break;
    }
    return text;
}

Value coerce(const Value& value, std::string_view dtype) {
    double x = 0.0;
    std::string s;
    bool truth = false;
    if (value.shape.empty()) {
        if (value.dtype == DType::Float64) {
            x = first<double>(value);
            truth = x != 0.0;
        } else if (value.dtype == DType::Bool) {
            truth = first<std::uint8_t>(value) != 0;
            x = truth ? 1.0 : 0.0;
        } else if (value.dtype == DType::Str && !value.strings.empty()) {
            s = value.strings.front();
            truth = s == "true";
        }
    }
    auto rounded = [x] { return roundToInt(x); };

    if (dtype == "bool") return Value(truth);
    if (dtype == "int8") return scalar(DType::Int8, static_cast<std::int8_t>(rounded()));
    if (dtype == "int16") return scalar(DType::Int16, static_cast<std::int16_t>(rounded()));
    if (dtype == "int32") return scalar(DType::Int32, static_cast<std::int32_t>(rounded()));
    if (dtype == "int" || dtype == "int64") return scalar(DType::Int64, static_cast<std::int64_t>(rounded()));
    if (dtype == "uint8") return scalar(DType::UInt8, static_cast<std::uint8_t>(rounded()));
    if (dtype == "uint16") return scalar(DType::UInt16, static_cast<std::uint16_t>(rounded()));
    if (dtype == "uint32") return scalar(DType::UInt32, static_cast<std::uint32_t>(rounded()));
    if (dtype == "uint64") return scalar(DType::UInt64, static_cast<std::uint64_t>(rounded()));
    if (dtype == "float" || dtype == "float32") return scalar(DType::Float32, static_cast<float>(x));
    if (dtype == "float64" || dtype == "double") return scalar(DType::Float64, x);
    if (dtype == "str" || dtype == "string") return Value(std::move(s));
    return value;
}

Value buildArrayValue(const std::vector<float>& numbers, std::string_view dtype) {
    const std::size_t n = numbers.size();
    std::size_t take = n;
    if (dtype == "float2" || (dtype.empty() && n == 2)) take = 2;
    else if (dtype == "float3" || (dtype.empty() && n == 3)) take = 3;
    else if (dtype == "int[]" || dtype == "intArray" || dtype == "int" || dtype == "int64") {
        Value v;
        v.dtype = DType::Int64;
        v.shape = {static_cast<std::uint32_t>(n)};
        v.data.resize(n * sizeof(std::int64_t));
        std::uint8_t* out = v.data.data();
        for (float f : numbers) {
            std::int64_t i = roundToInt(f);
            std::memcpy(out, &i, sizeof i);
            out += sizeof i;
        }
        return v;
    }
    take = std::min(take, n);  // the caller refuses short float2/float3 lists; stay in bounds anyway
    Value v;
    v.dtype = DType::Float32;
    v.shape = {static_cast<std::uint32_t>(take)};
    v.data.resize(take * sizeof(float));
    if (take) std::memcpy(v.data.data(), numbers.data(), take * sizeof(float));
    return v;
}

}  // namespace zserver
