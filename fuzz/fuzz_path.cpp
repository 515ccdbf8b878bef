// Feeds arbitrary bytes to the path and pattern parsers, checks their round trips and the pattern
// matcher against a plain backtracking one, then replays the lines as edits of a document and
// checks its indexes by brute force after each.
//
// Edit lines: "a <path>" append, "k <path>" addChild, "i <path>" insert, "r <path>" remove,
// "m <from> <to>" rename, "c <source> <target>" connect, "d <target>" disconnect,
// "g <source> <spec>" glob link, "p" prune, "f <pattern>" find.
#include <ostrevik/core.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <string_view>
#include <vector>

using namespace ostrevik;

namespace {

#define check(ok)                                                                 \
    do {                                                                          \
        if (!(ok)) {                                                              \
            std::fprintf(stderr, "fuzz_path.cpp:%d: check failed: %s\n", __LINE__, #ok); \
            std::abort();                                                         \
        }                                                                         \
    } while (0)

std::uint64_t fnv(const std::string& s) {
    std::uint64_t h = 0x14650FB0739D0383ULL;
    for (unsigned char c : s) h = (h ^ c) * 0x100000001B3ULL;
    return h;
}

// ok[i][j]: the pattern from i on matches the text from j on.
bool globReference(std::string_view p, std::string_view t) {
    std::vector<std::vector<char>> ok(p.size() + 1, std::vector<char>(t.size() + 1, 0));
    ok[p.size()][t.size()] = 1;
    for (std::size_t i = p.size(); i-- > 0;)
        for (std::size_t j = t.size() + 1; j-- > 0;)
            ok[i][j] = p[i] == '*' ? (ok[i + 1][j] || (j < t.size() && ok[i][j + 1]))
                                   : (j < t.size() && p[i] == t[j] && ok[i + 1][j + 1]);
    return ok[0][0];
}

bool matchReference(const std::vector<std::string>& p, std::size_t i, const std::vector<std::string>& s,
                    std::size_t j) {
    if (i == p.size()) return j == s.size();
    if (p[i] == "**") {
        for (std::size_t k = j; k <= s.size(); ++k)
            if (matchReference(p, i + 1, s, k)) return true;
        return false;
    }
    return j < s.size() && globReference(p[i], s[j]) && matchReference(p, i + 1, s, j + 1);
}

void checkIndexes(const Document& doc) {
    const auto& elements = doc.elements();
    std::map<Path, std::size_t> lastAt;
    std::map<Path, std::vector<std::size_t>> kids;
    std::set<std::uint64_t> ids;
    for (std::size_t i = 0; i < elements.size(); ++i) {
        lastAt[elements[i].path] = i;
        if (auto parent = elements[i].path.parent()) kids[*parent].push_back(i);
        check(elements[i].id != 0 && ids.insert(elements[i].id).second);
        check(doc.elementById(elements[i].id) == &elements[i]);
    }
    for (const auto& [path, i] : lastAt) {
        check(doc.element(path) == &elements[i]);
        const auto* positions = doc.childPositions(path);
        auto it = kids.find(path);
        check(it == kids.end() ? (!positions || positions->empty()) : (positions && *positions == it->second));
    }
    for (const auto& [parent, list] : kids) {
        const auto* positions = doc.childPositions(parent);
        check(positions && *positions == list);
    }
    std::set<Path> targets;
    for (const auto& c : doc.connections()) {
        check(targets.insert(c.target).second);
        check(doc.findIncoming(c.target) == c.source);
    }
}

std::vector<std::string_view> words(std::string_view line) {
    std::vector<std::string_view> out;
    std::size_t pos = 0;
    while (pos < line.size()) {
        std::size_t end = line.find(' ', pos);
        if (end == std::string_view::npos) end = line.size();
        if (end > pos) out.push_back(line.substr(pos, end - pos));
        pos = end + 1;
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    if (auto path = Path::parse(text)) {
        check(path->str() == text);
        check(std::hash<Path>()(*path) == fnv(path->str()));
        check(Path::parse(path->str()) == path);
    }
    if (auto pattern = PathPattern::parse(text)) {
        auto again = PathPattern::parse(pattern->str());
        check(again && again->segments == pattern->segments);
    }

    Document doc;
    std::size_t start = 0;
    int lines = 0;
    while (start < text.size() && lines++ < 64) {
        std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        const auto w = words(text.substr(start, end - start));
        start = end + 1;
        if (w.empty()) continue;

        std::vector<std::optional<Path>> args;
        for (std::size_t k = 1; k < w.size(); ++k) args.push_back(Path::parse(w[k]));
        auto arg = [&](std::size_t k) { return k < args.size() ? args[k] : std::nullopt; };

        switch (w[0][0]) {
            case 'a': if (arg(0)) doc.append(*arg(0), "o"); break;
            case 'k': if (arg(0)) doc.addChild(*arg(0), "o"); break;
            case 'i': if (arg(0)) { Element e; e.path = arg(0)->elementPath(); e.id = arg(0)->segments.size(); doc.insert(e); } break;
            case 'r': if (arg(0)) doc.remove(*arg(0)); break;
            case 'm': if (arg(0) && arg(1)) doc.rename(*arg(0), *arg(1)); break;
            case 'c': if (arg(0) && arg(1)) doc.connect(*arg(0), *arg(1)); break;
            case 'd': if (arg(0)) doc.disconnect(*arg(0)); break;
            case 'g': if (arg(0) && w.size() > 2) doc.addGlobLink(*arg(0), std::string(w[2])); break;
            case 'p': doc.pruneDanglingConnections(); break;
            case 'f':
                if (w.size() > 1) {
                    auto pattern = PathPattern::parse(w[1]);
                    std::size_t stars = 0;
                    for (const auto& s : pattern ? pattern->segments : std::vector<std::string>()) stars += s == "**";
                    std::size_t found = doc.find(w[1]).size();
                    if (!pattern || stars > 3) break;
                    std::size_t expected = 0;
                    for (const auto& e : doc.elements())
                        expected += matchReference(pattern->segments, 0, e.path.segments, 0);
                    check(found == expected);
                }
                break;
            default: break;
        }
        checkIndexes(doc);
    }
    return 0;
}
