// The named value types ("color3f", "matrix4d", ...): each is a dtype and a shape.
#include "ostrevik/core.h"

namespace ostrevik {

namespace {

struct Entry {
    std::string_view name;
    DType dtype;
    std::vector<std::uint32_t> shape;
};

const std::vector<Entry>& table() {
    static const std::vector<Entry> entries = {
        {"vec2f", DType::Float32, {2}},       {"vec3f", DType::Float32, {3}},
        {"vec4f", DType::Float32, {4}},       {"vec2d", DType::Float64, {2}},
        {"vec3d", DType::Float64, {3}},       {"vec4d", DType::Float64, {4}},
        {"vec2h", DType::Float16, {2}},       {"vec3h", DType::Float16, {3}},
        {"vec4h", DType::Float16, {4}},       {"vec2i", DType::Int32, {2}},
        {"vec3i", DType::Int32, {3}},         {"vec4i", DType::Int32, {4}},
        {"matrix2d", DType::Float64, {2, 2}}, {"matrix3d", DType::Float64, {3, 3}},
        {"matrix4d", DType::Float64, {4, 4}}, {"matrix4f", DType::Float32, {4, 4}},
        {"quath", DType::Float16, {4}},       {"quatf", DType::Float32, {4}},
        {"quatd", DType::Float64, {4}},       {"point3f", DType::Float32, {3}},
        {"normal3f", DType::Float32, {3}},    {"vector3f", DType::Float32, {3}},
        {"color3f", DType::Float32, {3}},     {"color4f", DType::Float32, {4}},
        {"texCoord2f", DType::Float32, {2}},  {"texCoord3f", DType::Float32, {3}},
    };
    return entries;
}

}  // namespace

std::optional<TypeAlias> aliasFromName(std::string_view name) {
    for (const Entry& e : table()) {
        if (e.name == name) return TypeAlias{e.dtype, e.shape};
    }
    return std::nullopt;
}

const std::vector<std::string_view>& aliasNames() {
    static const std::vector<std::string_view> names = [] {
        std::vector<std::string_view> out;
        out.reserve(table().size());
        for (const Entry& e : table()) out.push_back(e.name);
        return out;
    }();
    return names;
}

}  // namespace ostrevik
