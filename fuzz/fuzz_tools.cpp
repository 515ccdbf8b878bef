// Fuzz bytes as tools/call messages for the element tools, against one long-lived session so
// that edits build on each other across inputs.
//
// Byte 0 picks the tool; bit 0 of byte 1 picks how the rest becomes arguments:
//   set: the rest is the raw JSON text of "arguments" (any JSON, or garbage);
//   clear: the rest is split at '\n' into the tool's parameters in catalog order, each sent as
//          a JSON string, or as raw JSON when the field starts with '='.
#include "Dispatch.h"

#include <ostrevik/codecs.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace {

struct Tool {
    const char* name;
    std::vector<const char*> params;
};

// Only tools that stay in memory: the file tools would write files and run programs.
const std::vector<Tool>& tools() {
    static const std::vector<Tool> table = {
        {"describe", {}},
        {"get_element", {"path"}},
        {"define_element", {"path", "type"}},
        {"remove_element", {"path"}},
        {"rename_element", {"from", "to"}},
        {"set_property", {"path", "name", "value", "dtype"}},
        {"remove_property", {"path", "name"}},
        {"set_metadata", {"path", "key", "value"}},
        {"connect", {"source", "target"}},
        {"disconnect", {"target"}},
    };
    return table;
}

void appendJsonString(std::string& out, std::string_view text) {
    static const char hex[] = "0123456789abcdef";
    out += '"';
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
        } else if (c < 0x20) {
            out += "\\u00";
            out += hex[c >> 4];
            out += hex[c & 15];
        } else {
            out += char(c);
        }
    }
    out += '"';
}

// Raw text goes in only when it is one JSON value by itself, so that it cannot close the
// arguments early and rename the tool to one that touches files; anything else goes in as a string.
void appendRaw(std::string& out, std::string_view text) {
    if (ostrevik::codecs::Json::parse(text)) out += text;
    else appendJsonString(out, text);
}

zserver::Session& session() {
    static zserver::Session s;
    return s;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zserver::Log::instance().sink = [](const std::string&) {};  // keep the output readable
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    zserver::Session& s = session();
    // Keep each input cheap: a document that has grown large starts over.
    if (s.doc.elements().size() > 4000) s.doc = ostrevik::Document();

    const std::size_t pick = data[0] % (tools().size() + 1);
    std::string_view rest(reinterpret_cast<const char*>(data) + 2, size - 2);
    std::string line = R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":)";
    if (pick == tools().size()) {  // a name outside the catalog
        appendJsonString(line, rest);
        line += "}}";
    } else {
        const Tool& tool = tools()[pick];
        appendJsonString(line, tool.name);
        line += R"(,"arguments":)";
        if (data[1] & 1) {
            appendRaw(line, rest);
        } else {
            line += '{';
            std::size_t field = 0, start = 0;
            while (field < tool.params.size() && start <= rest.size()) {
                std::size_t end = rest.find('\n', start);
                if (end == std::string_view::npos) end = rest.size();
                std::string_view text = rest.substr(start, end - start);
                if (field) line += ',';
                appendJsonString(line, tool.params[field]);
                line += ':';
                if (!text.empty() && text[0] == '=') appendRaw(line, text.substr(1));
                else appendJsonString(line, text);
                ++field;
                start = end + 1;
            }
            line += '}';
        }
        line += "}}";
    }
    zserver::dispatch(s, line);
    return 0;
}
