// ostrevik composition: references between documents resolved into one flat document.
#pragma once

#include <ostrevik/core.h>

#include <functional>
#include <optional>
#include <string>

namespace ostrevik {

// What a resolver delivers for a reference: the document's canonical identity and its bytes.
struct ResolvedDoc {
    std::string resolvedId;
    std::string bytes;
};

// (reference text, resolvedId of the referencing document) -> the referenced document, if any.
using Resolver =
    std::function<std::optional<ResolvedDoc>(const std::string& reference, const std::string& referencingId)>;

// Resolves every "reference"/"referencePath" of `doc` (identity `id`) recursively.
// Empty on any failure: unresolvable or unparsable references, cycles, missing graft roots.
std::optional<Document> compose(const Document& doc, const std::string& id, const Resolver& resolver);

// Loads a file and composes it, resolving references relative to the referencing file.
std::optional<Document> composeFile(const std::string& path);

// As composeFile, but a reference leading outside the directory `root` (links resolved) cannot
// be resolved, so it fails the composition. An empty `root` confines nothing.
std::optional<Document> composeFileWithin(const std::string& path, const std::string& root);

}  // namespace ostrevik
