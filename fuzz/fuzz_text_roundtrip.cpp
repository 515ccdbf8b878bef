// Whatever the text parser accepts must write, read back and write again to the same text.
// Documents that use a form the format can't carry are skipped; they are listed in
// `unreadableWhenWritten`.
#include <ostrevik/io.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

using namespace ostrevik;

namespace {

bool isNameByte(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

bool isPlainName(std::string_view s) {
    if (s.empty()) return false;
    for (char c : s)
        if (!isNameByte(c)) return false;
    return true;
}

// A property name written bare whose dotted parts hold the word that marks a samples block.
bool hasSamplesWord(std::string_view name) {
    if (name.empty() || (name[0] >= '0' && name[0] <= '9')) return false;
    for (char c : name)
        if (!isNameByte(c) && c != '.') return false;
    std::size_t from = name.find('.');
    while (from != std::string_view::npos) {
        const std::size_t to = name.find('.', from + 1);
        if (name.substr(from + 1, to == std::string_view::npos ? to : to - from - 1) == "timeSamples") return true;
        from = to;
    }
    return false;
}

// Can a keyframe's value, written in its own form, be read under the property's token?
bool keyReadable(const Property& p, const Value& key) {
    if (!p.typeName.empty()) return key.dtype == p.value.dtype;
    const Type declared = p.value.type();
    const Type own = key.type();
    if (declared == Type::General)
        return key.dtype == p.value.dtype && own != Type::Float2 && own != Type::Float3 && own != Type::Matrix &&
               own != Type::Float2Array;
    if (declared == Type::FloatArray) return own == Type::FloatArray || own == Type::Float2 || own == Type::Float3 ||
                                             own == Type::Spectrum;
    return own == declared;
}

// The forms the writer produces and no reader can take back: a property name with the samples
// word as a dotted part; an anonymous element typed with a word that reads as a name; values
// of one property that its single type token can't carry (the result of declaring a property
// twice with different types).
bool unreadableWhenWritten(const Document& doc) {
    for (const Element& e : doc.elements()) {
        if (!e.path.segments.empty() && Path::isAnonymousSegment(e.path.segments.back()) && isPlainName(e.type) &&
            !(e.type[0] > '9'))
            return true;
        for (const auto& [name, p] : e.properties) {
            if (hasSamplesWord(name)) return true;
            if (!p.typeName.empty()) {
                auto alias = aliasFromName(p.typeName);
                if (!alias || alias->dtype != p.value.dtype || alias->shape != p.value.shape) return true;
            }
            if (p.samples)
                for (const Keyframe& k : p.samples->keys)
                    if (!keyReadable(p, k.value)) return true;
        }
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto doc = parseZelthaText(std::string_view(reinterpret_cast<const char*>(data), size), nullptr);
    if (!doc || unreadableWhenWritten(*doc)) return 0;
    const std::string once = serialize(*doc, 4);
    auto again = parseZelthaText(once, nullptr);
    if (!again) std::abort();
    if (serialize(*again, 4) != once) std::abort();
    if (serialize(*again, 0) != serialize(*doc, 0)) std::abort();
    return 0;
}
