// ostrevik foreign codecs: the codec interface, the JSON value tree and the JSON codec.
#pragma once

#include <ostrevik/core.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ostrevik {

// A converter between a foreign format and documents. Stateless; every call is const.
class CodecImpl {
public:
    virtual ~CodecImpl() = default;
    virtual std::string name() const = 0;
    // The document in this format; empty when it cannot be written in it.
    virtual std::optional<std::string> encode(const Document& document) const = 0;
    // `error` may be null; it is filled only on failure.
    virtual std::optional<Document> decode(std::string_view text, ParseError* error) const = 0;
};

namespace codecs {

// One JSON value. All fields exist in every value; `kind` says which one counts.
class Json {
public:
    enum class Kind : std::uint32_t { Null = 0, Boolean = 1, Number = 2, String = 3, Array = 4, Object = 5 };

    Kind kind = Kind::Null;
    bool flag = false;
    double number = 0.0;
    std::string text;
    std::vector<Json> items;
    std::vector<std::pair<std::string, Json>> members;  // first-seen key order, keys unique

    // Declared out of line: the type is recursive through `members`, and some standard
    // libraries cannot instantiate the implicit members while Json is still incomplete.
    Json();
    Json(const Json&);
    Json(Json&&) noexcept;
    Json& operator=(const Json&);
    Json& operator=(Json&&) noexcept;
    ~Json();

    // One JSON value with only whitespace after it; nesting deeper than 200 fails.
    static std::optional<Json> parse(std::string_view text);
    // Compact text form.
    std::string dump() const;
    // Replaces the value of an equal key in place, or appends the member.
    void set(const std::string& key, Json value);
};

// JSON text <-> document: objects and arrays become elements, scalars properties.
class JsonCodec : public CodecImpl {
public:
    ~JsonCodec() override = default;
    std::string name() const override;
    std::optional<std::string> encode(const Document& document) const override;
    std::optional<Document> decode(std::string_view text, ParseError* error) const override;
    // The decoding of JSON-RPC messages, and only of them: an object or array under a key that
    // cannot name an element (such as "io.example/tasks") is skipped with all it holds, as if
    // the member were absent, since no method reads one. `decode`, used for files, fails on such
    // a key instead, because there its data would be lost. Malformed or too deep JSON fails
    // either way, also inside a skipped member.
    std::optional<Document> decodeMessage(std::string_view text, ParseError* error) const;

private:
    std::optional<Document> decodeAs(std::string_view text, ParseError* error, bool skipUnnameable) const;
};

}  // namespace codecs
}  // namespace ostrevik
