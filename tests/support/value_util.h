// Values built from their raw parts, for the forms the typed constructors do not make.
#pragma once

#include <ostrevik/core.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace testsupport {

template <class T>
ostrevik::Value rawValue(ostrevik::DType dtype, std::vector<std::uint32_t> shape, const std::vector<T>& items) {
    ostrevik::Value v;
    v.dtype = dtype;
    v.shape = std::move(shape);
    v.data.resize(items.size() * sizeof(T));
    if (!items.empty()) std::memcpy(v.data.data(), items.data(), v.data.size());
    return v;
}

inline ostrevik::Value strValue(std::vector<std::uint32_t> shape, std::vector<std::string> items) {
    ostrevik::Value v = rawValue<char>(ostrevik::DType::Str, std::move(shape), {});
    v.strings = std::move(items);
    return v;
}

// The storage of `v` read back as items of T.
template <class T>
std::vector<T> itemsOf(const ostrevik::Value& v) {
    std::vector<T> out(v.data.size() / sizeof(T));
    if (!out.empty()) std::memcpy(out.data(), v.data.data(), out.size() * sizeof(T));
    return out;
}

}  // namespace testsupport
