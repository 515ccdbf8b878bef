// Deterministic generator of large documents for the benchmarks.
//
//   ostrevik::Document doc = ostrevik::bench::generateDocument(100000, 42);
//
// The result has exactly `elements` elements and depends on nothing but the two arguments: the
// same call gives the same document (and so the same text and crate bytes) on every machine.
//
// Shape of the document:
//   - A tree three levels deep: top-level "group" elements named "group<N>", each with 3 to 10
//     children and 0 to 4 grandchildren per child. Children and grandchildren have varied types
//     ("mesh", "xform", "light", "camera", "material", "shader", "curve", "points") and are named
//     after their type, uniquified among siblings ("mesh", "mesh_1", ...); about one grandchild
//     in 40 is anonymous ("[0]"). All elements are `Def`.
//   - Every element has 1 to 3 properties (a group has 1) drawn from: float, int, bool, float2, float3 (some with
//     typeName "color3f"), matrix, spectrum (rare), float[] and int[] of varying length,
//     float2[], strings (some holding quotes, backslashes, newlines and tabs), and general values:
//     Int32 vectors (dtype Int32, shape [n]) and Float64 4x4 matrices with typeName "matrix4d".
//   - About one element in 16 has an animated property (2 to 5 keys, mixed held, linear and Bezier
//     interpolation, some keys with explicit handles).
//   - Every group and about one other element in 6 carries metadata (notes, some with escapes).
//   - About one connection per 10 elements, from a slot of an earlier element ("out", "result")
//     to a slot of a later one ("in", "driver"); every target slot is distinct.
//   - No deletions, reorders or glob links.
//
// Size: the text form (serialize with indent 4) is about 160 bytes per element, so 10^5 elements
// give about 16 MB of text.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ostrevik/core.h"

namespace ostrevik::bench {

// A deterministic document of exactly `elements` elements; see above for its shape.
Document generateDocument(std::size_t elements, std::uint64_t seed = 1);

// The same document, generated once per process and kept: benchmarks that run several cases on
// one size share it instead of each building their own.
const Document& cachedDocument(std::size_t elements, std::uint64_t seed = 1);

// Keeps freed memory in the process. A case that reads a large document frees it before the next
// run; by default the allocator hands such memory back to the system and the next run faults it
// in afresh, which at 10^6 elements measures the allocator's policy more than the reading.
void keepFreedMemory();

}  // namespace ostrevik::bench
