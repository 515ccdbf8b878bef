// PathPattern: globs over element paths, `*` inside a segment and `**` across segments.
#include "ostrevik/core.h"

namespace ostrevik {

namespace {

bool isPatternChar(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '*' || c == '[' || c == ']';
}

// One pattern segment against one path segment; each `*` matches any run of bytes.
bool globSegment(std::string_view pat, std::string_view text) {
    std::size_t p = 0, t = 0;
    std::size_t starP = std::string_view::npos, starT = 0;
    while (t < text.size()) {
        if (p < pat.size() && pat[p] == '*') {
            starP = p++;
            starT = t;
        } else if (p < pat.size() && pat[p] == text[t]) {
            ++p;
            ++t;
        } else if (starP != std::string_view::npos) {
            p = starP + 1;
            t = ++starT;
        } else {
            return false;
        }
    }
    while (p < pat.size() && pat[p] == '*') ++p;
    return p == pat.size();
}

bool isSegmentWildcard(const std::string& s) {
    return s == "**";
}

// Does the pattern from segment i on match the path from segment j on? `**` absorbs zero or
// more whole segments. Only the most recent `**` is ever re-expanded: an earlier one can't
// help once a later one has been reached, so this runs in O(pattern * path) without recursion.
bool matchFrom(const std::vector<std::string>& p, std::size_t i, const std::vector<std::string>& s,
               std::size_t j) {
    std::size_t starI = SIZE_MAX, starJ = 0;
    for (;;) {
        if (i < p.size() && isSegmentWildcard(p[i])) {
            starI = i++;
            starJ = j;  // try the shortest expansion first
            continue;
        }
        if (i == p.size() && j == s.size()) return true;
        if (i < p.size() && j < s.size() && globSegment(p[i], s[j])) {
            ++i;
            ++j;
            continue;
        }
        // Mismatch: let the last `**` swallow one more segment, if any remains.
        if (starI == SIZE_MAX || starJ >= s.size()) return false;
        i = starI + 1;
        j = ++starJ;
    }
}

}  // namespace

std::optional<PathPattern> PathPattern::parse(std::string_view text) {
    if (text.empty() || text.front() != '/') return std::nullopt;
    PathPattern out;
    std::string_view rest = text.substr(1);
    if (!rest.empty() && rest.back() == '/') rest.remove_suffix(1);  // "/a/" is "/a"
    if (rest.empty()) return text.size() == 1 ? std::optional<PathPattern>(out) : std::nullopt;

    std::size_t pos = 0;
    for (;;) {
        std::size_t end = rest.find('/', pos);
        if (end == std::string_view::npos) end = rest.size();
        std::string_view seg = rest.substr(pos, end - pos);
        if (seg.empty()) return std::nullopt;
        for (unsigned char c : seg)
            if (!isPatternChar(c)) return std::nullopt;
        out.segments.emplace_back(seg);
        if (end == rest.size()) break;
        pos = end + 1;
    }
    return out;
}

std::string PathPattern::str() const {
    if (segments.empty()) return "/";
    std::string out;
    for (const auto& s : segments) {
        out.push_back('/');
        out += s;
    }
    return out;
}

bool PathPattern::hasWildcard() const {
    for (const auto& s : segments)
        if (s.find('*') != std::string::npos) return true;
    return false;
}

bool PathPattern::matches(const Path& path) const {
    return matchFrom(segments, 0, path.segments, 0);
}

Path PathPattern::prefix() const {
    Path p;
    for (const auto& s : segments) {
        if (s.find('*') != std::string::npos) break;
        p.segments.push_back(s);
    }
    return p;
}

}  // namespace ostrevik
