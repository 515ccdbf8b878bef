// The loopback HTTP transport.
#pragma once

#include "Dispatch.h"

#include <string>

namespace zserver {

// Serves MCP over HTTP on 127.0.0.1:port until the process is killed. Returns only when the
// server cannot start, with the exit code to use.
int serveHttp(Session& session, int port, const std::string& token);

}  // namespace zserver
