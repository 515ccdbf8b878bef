// The server's spine: the session, the log, and the request/reply documents of one dispatch.
#pragma once

#include <ostrevik/core.h>

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace zserver {

// The state of the one client: the open document, its file and the launch root.
struct Session {
    ostrevik::Document doc;
    std::string path;
    std::string root;
};

// Process-wide log: one "[HH:MM:SS] message" line per write, on standard error.
class Log {
public:
    static Log& instance();
    void write(const std::string& message);

    std::function<void(const std::string&)> sink;  // receives finished lines when set
    std::mutex mutex;
};

// A path spelled out in the code, known to be valid.
ostrevik::Path P(std::string_view text);

// Builds a reply document whose single top-level element is the object /root.
class Builder {
public:
    Builder();
    ostrevik::Path object(const ostrevik::Path& parent, const std::string& name);
    ostrevik::Path array(const ostrevik::Path& parent, const std::string& name);
    void set(const ostrevik::Path& path, const std::string& key, const char* text);
    void set(const ostrevik::Path& path, const std::string& key, const std::string& text);
    void put(const ostrevik::Path& path, const std::string& key, const ostrevik::Value& value);
    std::string toJson() const;

    ostrevik::Document doc;
};

// Read access to a decoded request document; lives for one dispatch.
class Reader {
public:
    explicit Reader(const ostrevik::Document& doc) : doc_(doc) {}
    // A scalar string property; nothing for any other dtype or shape (the null form included).
    std::optional<std::string> str(const ostrevik::Path& path, const std::string& key) const;
    const ostrevik::Property* prop(const ostrevik::Path& path, const std::string& key) const;
    const ostrevik::Document& doc() const { return doc_; }

private:
    const ostrevik::Document& doc_;
};

// Handles one JSON-RPC message; no value means nothing is to be sent.
std::optional<std::string> dispatch(Session& session, std::string_view text);

}  // namespace zserver
