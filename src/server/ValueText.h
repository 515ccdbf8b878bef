// Values as the element tools show and accept them: text for a model, coercion of request
// scalars, and numeric arrays from request lists.
#pragma once

#include <ostrevik/core.h>

#include <string>
#include <string_view>
#include <vector>

namespace zserver {

// One value as a short line, e.g. "float64 = 1", "float32[3] (3 elems)" or "null".
std::string valueText(const ostrevik::Value& value);

// A request scalar turned into the scalar type named by `dtype` ("int32", "bool", "str", ...);
// an unchanged copy for any name it does not know.
ostrevik::Value coerce(const ostrevik::Value& value, std::string_view dtype);

// A list of numbers as an array value: float2/float3 by `dtype` or by count, Int64 for the
// integer names, Float32 otherwise. "float2" and "float3" read the first 2 or 3 numbers, which
// the caller makes sure exist.
ostrevik::Value buildArrayValue(const std::vector<float>& numbers, std::string_view dtype);

}  // namespace zserver
