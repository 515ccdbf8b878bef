// The package: a document and its assets in one file, an entry table in front of the contents.
#include <ostrevik/io.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace ostrevik {

namespace {

constexpr char kMagic[6] = {'Z', 'L', 'T', 'H', 'Z', '\0'};
constexpr std::uint16_t kVersion = 4;
constexpr std::size_t kHead = 14;    // magic, version, flags, count
constexpr std::size_t kRecord = 25;  // a table record without its two strings
constexpr std::uint8_t kText = 0, kCrate = 1, kAsset = 2;

template <class T>
void put(std::string& out, T v) {
    for (std::size_t i = 0; i < sizeof(T); ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
}

// Little-endian fields read against the bytes left; a read past the end fails the whole file.
class Cursor {
public:
    explicit Cursor(std::string_view bytes, std::size_t at) : bytes_(bytes), at_(at) {}
    template <class T>
    bool take(T& v) {
        if (bytes_.size() - at_ < sizeof(T)) return false;
        v = 0;
        for (std::size_t i = 0; i < sizeof(T); ++i)
            v |= static_cast<T>(static_cast<unsigned char>(bytes_[at_ + i])) << (8 * i);
        at_ += sizeof(T);
        return true;
    }
    bool takeText(std::string_view& text) {
        std::uint32_t n = 0;
        if (!take(n) || bytes_.size() - at_ < n) return false;
        text = bytes_.substr(at_, n);
        at_ += n;
        return true;
    }
    std::size_t at() const { return at_; }

private:
    std::string_view bytes_;
    std::size_t at_;
};

struct PkgEntry {
    std::string name;
    std::uint8_t kind = 0;
    std::string_view mediaType;
    std::string_view data;  // the document's text, or an asset's bytes in the store
};

struct ReadEntry {
    std::string_view name;
    std::uint8_t kind = 0;
    std::string_view mediaType;
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
};

}  // namespace

std::string serializePackage(const Document& doc, const AssetStore& assets, bool text) {
    const std::string scene = text ? serialize(doc, 4) : serializeBinary(doc, false);
    std::vector<PkgEntry> entries;
    entries.reserve(assets.assets.size() + 1);
    entries.push_back({"scene", text ? kText : kCrate, {}, scene});
    for (const auto& [path, asset] : assets.assets) entries.push_back({path.str(), kAsset, asset.mediaType, asset.bytes});
    // std::string compares bytes as unsigned, the shorter first on a common prefix.
    std::stable_sort(entries.begin(), entries.end(),
                     [](const PkgEntry& a, const PkgEntry& b) { return a.name < b.name; });

    std::size_t head = kHead, total = 0;
    for (const PkgEntry& e : entries) {
        head += kRecord + e.name.size() + e.mediaType.size();
        total += e.data.size();
    }
    std::string out;
    out.reserve(head + total);
    out.append(kMagic, sizeof kMagic);
    put<std::uint16_t>(out, kVersion);
    put<std::uint16_t>(out, 0);
    put<std::uint32_t>(out, static_cast<std::uint32_t>(entries.size()));
    std::uint64_t offset = head;
    for (const PkgEntry& e : entries) {
        put<std::uint32_t>(out, static_cast<std::uint32_t>(e.name.size()));
        out += e.name;
        put<std::uint8_t>(out, e.kind);
        put<std::uint32_t>(out, static_cast<std::uint32_t>(e.mediaType.size()));
        out += e.mediaType;
        put<std::uint64_t>(out, offset);
        put<std::uint64_t>(out, e.data.size());
        offset += e.data.size();
    }
    for (const PkgEntry& e : entries) out += e.data;
    return out;
}

std::optional<std::pair<Document, AssetStore>> deserializePackage(std::string_view bytes) {
    if (bytes.size() < kHead || std::memcmp(bytes.data(), kMagic, sizeof kMagic) != 0) return std::nullopt;
    Cursor cursor(bytes, sizeof kMagic);
    std::uint16_t version = 0, flags = 0;
    std::uint32_t count = 0;
    cursor.take(version);
    cursor.take(flags);
    cursor.take(count);
    if (version != kVersion || count > (bytes.size() - kHead) / kRecord) return std::nullopt;

    std::vector<ReadEntry> entries(count);
    for (ReadEntry& e : entries)
        if (!cursor.takeText(e.name) || !cursor.take(e.kind) || !cursor.takeText(e.mediaType) ||
            !cursor.take(e.offset) || !cursor.take(e.size))
            return std::nullopt;
    const std::uint64_t tableEnd = cursor.at(), length = bytes.size();
    for (const ReadEntry& e : entries)
        if (e.offset < tableEnd || e.offset > length || e.size > length - e.offset) return std::nullopt;

    std::vector<const ReadEntry*> byOffset(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) byOffset[i] = &entries[i];
    std::stable_sort(byOffset.begin(), byOffset.end(),
                     [](const ReadEntry* a, const ReadEntry* b) { return a->offset < b->offset; });
    for (std::size_t i = 1; i < byOffset.size(); ++i)
        if (byOffset[i - 1]->offset + byOffset[i - 1]->size > byOffset[i]->offset) return std::nullopt;

    const ReadEntry* scene = nullptr;
    for (const ReadEntry& e : entries) {
        if (e.kind != kText && e.kind != kCrate) continue;
        if (scene) return std::nullopt;
        scene = &e;
    }
    if (!scene) return std::nullopt;
    auto content = [&](const ReadEntry& e) { return bytes.substr(e.offset, e.size); };
    // The writer never nests packages; refusing them bounds the reading depth.
    if (detect(content(*scene)) == Format::Package) return std::nullopt;
    auto doc = deserialize(content(*scene), nullptr);
    if (!doc) return std::nullopt;

    AssetStore store;
    for (const ReadEntry& e : entries) {
        if (e.kind != kAsset) continue;  // kinds above the asset's are skipped
        auto path = Path::parse(e.name);
        if (!path) return std::nullopt;
        store.set(*path, std::string(content(e)), std::string(e.mediaType));
    }
    return std::make_pair(std::move(*doc), std::move(store));
}

}  // namespace ostrevik
