// Hints for the writers' walks over a document's elements.
#pragma once

#include "ostrevik/core.h"

#include <cstddef>
#include <vector>

namespace ostrevik::prefetch {

// How many elements ahead of the one being written the hints reach.
constexpr std::size_t kAhead = 6;

// An element's properties live in map nodes scattered over the heap: asking for the first one
// of the element a few places ahead hides most of that latency from a walk in element order.
inline void properties(const std::vector<Element>& elements, std::size_t index) {
    if (index + kAhead < elements.size()) {
        const auto& props = elements[index + kAhead].properties;
        if (!props.empty()) __builtin_prefetch(&*props.begin());
    }
}

}  // namespace ostrevik::prefetch
