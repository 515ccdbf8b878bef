// JSON text <-> document. Objects and arrays become elements, scalars become properties of
// the element of their container; arrays name everything by its decimal index.
#include <ostrevik/codecs.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <unordered_map>

namespace ostrevik::codecs {

namespace {

using Kind = Json::Kind;

constexpr const char* kMalformed = "malformed JSON";
constexpr const char* kBadKey =
    "object/array key is not a representable element name (letters, digits, underscore)";
// Below this many members a linear scan beats building a hash index.
constexpr std::size_t kIndexThreshold = 16;

bool isScalar(const Json& j) { return j.kind != Kind::Array && j.kind != Kind::Object; }

bool isElementName(std::string_view key) {
    if (key.empty()) return false;
    for (char c : key) {
        const bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                        c == '_';
        if (!ok) return false;
    }
    return true;
}

Value toValue(const Json& j) {
    switch (j.kind) {
        case Kind::Boolean: return Value(j.flag);
        case Kind::Number: {
            Value v;
            v.dtype = DType::Float64;
            v.data.resize(sizeof(double));
            std::memcpy(v.data.data(), &j.number, sizeof(double));
            return v;
        }
        case Kind::String: return Value(j.text);
        default: {
            // The null form: an empty string array.
            Value v;
            v.dtype = DType::Str;
            v.data.clear();
            v.shape = {0};
            return v;
        }
    }
}

// `skipUnnameable`: a container under a key that cannot name an element is left out with all
// it holds, instead of failing the whole decode.
bool build(Document& doc, const Path& path, const Json& json, bool skipUnnameable) {
    if (json.kind == Kind::Object || json.kind == Kind::Array) {
        const bool object = json.kind == Kind::Object;
        const Path at = doc.append(path, object ? "object" : "array").path;
        // All scalars first; the element pointer is good until the first child is added.
        Element* element = doc.element(at);
        if (object) {
            for (const auto& [key, item] : json.members)
                if (isScalar(item)) element->properties[key].value = toValue(item);
            for (const auto& [key, item] : json.members) {
                if (isScalar(item)) continue;
                if (!isElementName(key)) {
                    if (skipUnnameable) continue;
                    return false;
                }
                if (!build(doc, at.child(key), item, skipUnnameable)) return false;
            }
        } else {
            for (std::size_t i = 0; i < json.items.size(); ++i)
                if (isScalar(json.items[i]))
                    element->properties[std::to_string(i)].value = toValue(json.items[i]);
            for (std::size_t i = 0; i < json.items.size(); ++i) {
                if (isScalar(json.items[i])) continue;
                if (!build(doc, at.child(std::to_string(i)), json.items[i], skipUnnameable)) return false;
            }
        }
        return true;
    }
    doc.append(path, "value").set("value", toValue(json));
    return true;
}

Json number(double v) {
    Json j;
    j.kind = Kind::Number;
    j.number = v;
    return j;
}

template <class T>
T load(const std::uint8_t* p) {
    T v;
    std::memcpy(&v, p, sizeof(T));
    return v;
}

std::vector<Json> leavesOf(const Value& value) {
    std::vector<Json> leaves;
    if (value.dtype == DType::Str) {
        leaves.reserve(value.strings.size());
        for (const std::string& s : value.strings) {
            Json& j = leaves.emplace_back();
            j.kind = Kind::String;
            j.text = s;
        }
        return leaves;
    }
    const std::size_t width = dtypeWidth(value.dtype);
    if (width == 0) return leaves;
    const std::size_t n = value.data.size() / width;
    leaves.reserve(n);
    const std::uint8_t* p = value.data.data();
    for (std::size_t i = 0; i < n; ++i, p += width) {
        switch (value.dtype) {
            case DType::Bool: {
                Json& j = leaves.emplace_back();
                j.kind = Kind::Boolean;
                j.flag = *p != 0;
                break;
            }
            case DType::Char: {
                Json& j = leaves.emplace_back();
                j.kind = Kind::String;
                j.text.assign(1, static_cast<char>(*p));
                break;
            }
            case DType::Int8: leaves.push_back(number(static_cast<double>(load<std::int8_t>(p)))); break;
            case DType::Int16: leaves.push_back(number(static_cast<double>(load<std::int16_t>(p)))); break;
            case DType::Int32: leaves.push_back(number(static_cast<double>(load<std::int32_t>(p)))); break;
            case DType::Int64: leaves.push_back(number(static_cast<double>(load<std::int64_t>(p)))); break;
            case DType::UInt8: leaves.push_back(number(static_cast<double>(load<std::uint8_t>(p)))); break;
            case DType::UInt16: leaves.push_back(number(static_cast<double>(load<std::uint16_t>(p)))); break;
            case DType::UInt32: leaves.push_back(number(static_cast<double>(load<std::uint32_t>(p)))); break;
            case DType::UInt64: leaves.push_back(number(static_cast<double>(load<std::uint64_t>(p)))); break;
            case DType::Float32: leaves.push_back(number(static_cast<double>(load<float>(p)))); break;
            case DType::Float64: leaves.push_back(number(load<double>(p))); break;
            case DType::Float16:
                leaves.push_back(number(static_cast<double>(halfToFloat(load<std::uint16_t>(p)))));
                break;
            case DType::Str: break;
        }
    }
    return leaves;
}

Json nestLeaves(std::vector<Json>& leaves, const std::vector<std::uint32_t>& shape, std::size_t dimension,
                std::size_t& next) {
    Json out;
    out.kind = Kind::Array;
    const std::uint32_t count = shape[dimension];
    // A shape may promise more than there are leaves (a zero dimension further in); reserve
    // only what the leaves can justify.
    out.items.reserve(std::min<std::size_t>(count, leaves.size()));
    const bool last = dimension + 1 == shape.size();
    for (std::uint32_t i = 0; i < count; ++i) {
        if (!last) {
            out.items.push_back(nestLeaves(leaves, shape, dimension + 1, next));
        } else if (next < leaves.size()) {
            out.items.push_back(std::move(leaves[next++]));
        } else {
            out.items.emplace_back();
        }
    }
    return out;
}

Json valueToJson(const Value& value) {
    if (value.dtype == DType::Str && value.shape.size() == 1 && value.shape[0] == 0) return Json();
    std::vector<Json> leaves = leavesOf(value);
    if (value.shape.empty()) return leaves.empty() ? Json() : std::move(leaves.front());
    std::size_t next = 0;
    return nestLeaves(leaves, value.shape, 0, next);
}

// Adds members with the semantics of Json::set, but through a hash index once the object
// is large. The keys it views live in the document, which outlives the builder.
class MemberSetter {
public:
    explicit MemberSetter(Json& object) : object_(object) {}

    // A key known not to be there yet.
    void add(std::string_view key, Json value) {
        if (!index_.empty()) index_.emplace(key, keys_.size());
        keys_.push_back(key);
        object_.members.emplace_back(std::string(key), std::move(value));
    }

    void set(std::string_view key, Json value) {
        std::size_t found = keys_.size();
        if (index_.empty() && keys_.size() < kIndexThreshold) {
            found = std::find(keys_.begin(), keys_.end(), key) - keys_.begin();
        } else {
            if (index_.empty()) {
                index_.reserve(keys_.size() * 2);
                for (std::size_t i = 0; i < keys_.size(); ++i) index_.emplace(keys_[i], i);
            }
            auto it = index_.find(key);
            if (it != index_.end()) found = it->second;
        }
        if (found < keys_.size()) {
            object_.members[found].second = std::move(value);
        } else {
            add(key, std::move(value));
        }
    }

private:
    Json& object_;
    std::vector<std::string_view> keys_;
    std::unordered_map<std::string_view, std::size_t> index_;
};

// The digits of a name as an array index: non-empty, digits only, at most 18 of them.
bool indexOf(std::string_view name, std::uint64_t& out) {
    if (name.empty() || name.size() > 18) return false;
    std::uint64_t v = 0;
    for (char c : name) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + static_cast<std::uint64_t>(c - '0');
    }
    out = v;
    return true;
}

const std::vector<std::size_t> kNoChildren;

const std::vector<std::size_t>& childrenOf(const Document& doc, const Path& path) {
    const std::vector<std::size_t>* positions = doc.childPositions(path);
    return positions ? *positions : kNoChildren;
}

Json emit(const Document& doc, const Path& path);

Json emitArray(const Document& doc, const Path& path, const Element& element,
               const std::vector<std::size_t>& children) {
    std::vector<std::uint64_t> indices;
    indices.reserve(element.properties.size() + children.size());
    std::uint64_t index = 0;
    for (const auto& entry : element.properties)
        if (indexOf(entry.first, index)) indices.push_back(index);
    for (std::size_t pos : children)
        if (indexOf(doc.elements()[pos].path.segments.back(), index)) indices.push_back(index);
    std::sort(indices.begin(), indices.end());
    indices.erase(std::unique(indices.begin(), indices.end()), indices.end());

    Json out;
    out.kind = Kind::Array;
    if (indices.empty()) return out;

    auto item = [&](std::uint64_t i) {
        const std::string s = std::to_string(i);
        auto it = element.properties.find(s);
        if (it != element.properties.end()) return valueToJson(it->second.value);
        return emit(doc, path.child(s));
    };
    const std::uint64_t largest = indices.back();
    if (largest + 1 <= indices.size() + 4096) {
        out.items.reserve(largest + 1);
        for (std::uint64_t i = 0; i <= largest; ++i) out.items.push_back(item(i));
    } else {
        out.items.reserve(indices.size());
        for (std::uint64_t i : indices) out.items.push_back(item(i));
    }
    return out;
}

Json emit(const Document& doc, const Path& path) {
    const Element* element = doc.element(path);
    if (!element) return Json();
    const std::vector<std::size_t>& children = childrenOf(doc, path);
    if (element->type == "array") return emitArray(doc, path, *element, children);
    if (element->type == "value") {
        auto it = element->properties.find("value");
        return it == element->properties.end() ? Json() : valueToJson(it->second.value);
    }
    Json out;
    out.kind = Kind::Object;
    out.members.reserve(element->properties.size() + children.size());
    MemberSetter setter(out);
    // Property names are unique, so only children can collide with an earlier member.
    for (const auto& [name, property] : element->properties) setter.add(name, valueToJson(property.value));
    for (std::size_t pos : children) {
        const Path& childPath = doc.elements()[pos].path;
        setter.set(childPath.segments.back(), emit(doc, childPath));
    }
    return out;
}

}  // namespace

std::string JsonCodec::name() const { return "json"; }

std::optional<Document> JsonCodec::decode(std::string_view text, ParseError* error) const {
    return decodeAs(text, error, false);
}

std::optional<Document> JsonCodec::decodeMessage(std::string_view text, ParseError* error) const {
    return decodeAs(text, error, true);
}

std::optional<Document> JsonCodec::decodeAs(std::string_view text, ParseError* error, bool skipUnnameable) const {
    auto fail = [error](const char* message) -> std::optional<Document> {
        if (error) {
            error->line = 0;
            error->column = 0;
            error->message = message;
        }
        return std::nullopt;
    };
    std::optional<Json> json = Json::parse(text);
    if (!json) return fail(kMalformed);
    Document doc;
    if (!build(doc, Path({"root"}, std::nullopt), *json, skipUnnameable)) return fail(kBadKey);
    return doc;
}

std::optional<std::string> JsonCodec::encode(const Document& document) const {
    const std::vector<std::size_t>& top = childrenOf(document, Path());
    if (top.size() == 1 && document.elements()[top.front()].path.segments.back() == "root")
        return emit(document, document.elements()[top.front()].path).dump();
    Json out;
    out.kind = Kind::Object;
    MemberSetter setter(out);
    for (std::size_t pos : top) {
        const Path& path = document.elements()[pos].path;
        setter.set(path.segments.back(), emit(document, path));
    }
    return out.dump();
}

}  // namespace ostrevik::codecs
