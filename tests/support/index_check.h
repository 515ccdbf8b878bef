// Recomputes by brute force what a document's indexes must say and compares, through the public
// API only. Use as EXPECT_TRUE(indexesConsistent(doc)) after every edit.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "ostrevik/core.h"

namespace ostrevik::testing {

inline ::testing::AssertionResult indexesConsistent(const Document& doc) {
    const auto& elements = doc.elements();

    // byPath: the last element standing on a path is the one found.
    std::map<Path, std::size_t> lastAt;
    for (std::size_t i = 0; i < elements.size(); ++i) lastAt[elements[i].path] = i;
    for (const auto& [path, i] : lastAt) {
        if (doc.element(path) != &elements[i])
            return ::testing::AssertionFailure() << "element(" << path.str() << ") is not position " << i;
        if (!doc.has(path.appendingProperty("anything")))
            return ::testing::AssertionFailure() << "has() misses a slot of " << path.str();
    }

    // childIndex: positions of each parent's children, ascending.
    std::map<Path, std::vector<std::size_t>> kids;
    std::set<Path> probes{Path()};
    for (std::size_t i = 0; i < elements.size(); ++i) {
        probes.insert(elements[i].path);
        if (auto parent = elements[i].path.parent()) {
            kids[*parent].push_back(i);
            probes.insert(*parent);
        }
    }
    for (const auto& probe : probes) {
        const auto it = kids.find(probe);
        const std::vector<std::size_t> expected = it == kids.end() ? std::vector<std::size_t>() : it->second;
        const auto* positions = doc.childPositions(probe);
        const std::vector<std::size_t> actual = positions ? *positions : std::vector<std::size_t>();
        if (actual != expected)
            return ::testing::AssertionFailure() << "childPositions(" << probe.str() << ") is stale";
        std::vector<Path> paths;
        for (std::size_t i : expected) paths.push_back(elements[i].path);
        if (doc.children(probe) != paths)
            return ::testing::AssertionFailure() << "children(" << probe.str() << ") is stale";
    }

    // byId: ids non-zero, unique, and found.
    std::set<std::uint64_t> ids;
    for (const auto& e : elements) {
        if (e.id == 0) return ::testing::AssertionFailure() << e.path.str() << " has id 0";
        if (!ids.insert(e.id).second) return ::testing::AssertionFailure() << "id " << e.id << " repeats";
        if (doc.elementById(e.id) != &e)
            return ::testing::AssertionFailure() << "elementById(" << e.id << ") is not " << e.path.str();
    }

    // incoming: one connection per target, and each target finds its source.
    std::set<Path> targets;
    for (const auto& c : doc.connections()) {
        if (!targets.insert(c.target).second)
            return ::testing::AssertionFailure() << "two connections into " << c.target.str();
        if (doc.findIncoming(c.target) != c.source)
            return ::testing::AssertionFailure() << "findIncoming(" << c.target.str() << ") is stale";
    }
    return ::testing::AssertionSuccess();
}

}  // namespace ostrevik::testing
