// Arbitrary bytes as what a client sends on one connection, cut into reads of varying size.
#include "Http.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

using zserver::HttpRequestReader;
using Step = HttpRequestReader::Step;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    // The first two bytes choose the read sizes, so that every way of splitting the header
    // terminator and the limits is reachable.
    const size_t first = 1 + data[0] * 17u, rest = 1 + data[1] * 17u;
    std::string_view input(reinterpret_cast<const char*>(data) + 2, size - 2);

    HttpRequestReader reader("Bearer fuzz");
    Step step = Step::NeedMore;
    size_t at = 0;
    for (bool initial = true; step == Step::NeedMore && at < input.size(); initial = false) {
        size_t n = initial ? first : rest;
        step = reader.feed(input.substr(at, n));
        at += n;
    }
    if (step == Step::NeedMore) step = reader.finish();
    if (step == Step::NeedMore) std::abort();  // a finished stream always decides
    if (step == Step::Ready && reader.body().size() > input.size()) std::abort();
    if (step == Step::Respond && reader.status() == zserver::HttpStatus::Ok) std::abort();

    // The response is well formed for whatever the reader decided.
    std::string response = zserver::httpResponse(step == Step::Respond ? reader.status() : zserver::HttpStatus::Ok,
                                                 step == Step::Ready ? reader.body() : std::string());
    if (response.compare(0, 9, "HTTP/1.1 ") != 0) std::abort();

    // The header lookups on their own, over the raw bytes.
    std::string host = zserver::HttpServer::header(input, "host");
    zserver::HttpServer::hostAllowed(host);
    zserver::HttpServer::hostAllowed(std::string(input.substr(0, 64)));
    return 0;
}
