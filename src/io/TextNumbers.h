// Number forms of the text format, shared by its writer and its parser.
#pragma once

#include <cstddef>

namespace ostrevik {

// Room for any number form below, sign and exponent included.
constexpr std::size_t kNumberTextMax = 40;

// The scalar form of floats, times and handles: "0" for zero and non-finite values, an integer
// below 1e16 without a fraction, otherwise "%.9g". Writes into `out`, which must have room for
// kNumberTextMax bytes (bytes past the form may be overwritten too), and returns the end.
char* writeScalarText(char* out, double x);

// The form of Float64 leaves: the same with the bound 1e15 and "%.17g".
char* writeDoubleText(char* out, double x);

}  // namespace ostrevik
