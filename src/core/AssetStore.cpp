// The asset store: blobs keyed by element path, in path order.
#include <ostrevik/core.h>

#include <utility>

namespace ostrevik {

void AssetStore::set(const Path& path, std::string bytes, std::string mediaType) {
    Asset& asset = assets[path.elementPath()];
    asset.bytes = std::move(bytes);
    asset.mediaType = std::move(mediaType);
}

const Asset* AssetStore::get(const Path& path) const {
    auto it = assets.find(path.elementPath());
    return it == assets.end() ? nullptr : &it->second;
}

void AssetStore::erase(const Path& path) { assets.erase(path.elementPath()); }

void AssetStore::removeSubtree(const Path& path) {
    // A path's subtree is one run in path order, starting at the path itself.
    const Path top = path.elementPath();
    auto first = assets.lower_bound(top), last = first;
    while (last != assets.end() && top.isAncestorOf(last->first)) ++last;
    assets.erase(first, last);
}

void AssetStore::reparent(const Path& from, const Path& to) {
    const Path top = from.elementPath();
    std::map<Path, Asset> moved;
    // Nodes are moved across with their new keys: no asset's bytes are copied.
    while (!assets.empty()) {
        auto node = assets.extract(assets.begin());
        if (top.isAncestorOf(node.key())) node.key() = node.key().reparented(top, to.elementPath());
        auto placed = moved.insert(std::move(node));
        if (!placed.inserted) placed.position->second = std::move(placed.node.mapped());
    }
    assets = std::move(moved);
}

}  // namespace ostrevik
