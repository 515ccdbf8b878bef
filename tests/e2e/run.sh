#!/bin/sh
# Drives the built server with real MCP clients, pinned in the lock file, over stdio and HTTP:
# the SDK 1.x client, the version-negotiating client 2.x, and the Inspector's command line.
# usage: run.sh <ostrevik-server> <work dir>
# The client is installed from the lock file into the work dir (in the build tree), so the
# source tree stays clean and several build trees do not share one node_modules.
set -eu
if ! command -v node >/dev/null 2>&1 || ! command -v npm >/dev/null 2>&1; then
    echo "node or npm not found: skipping the MCP client interoperability check"
    exit 0
fi
if ! node -e 'process.exit(parseInt(process.versions.node, 10) >= 18 ? 0 : 1)'; then
    echo "node $(node --version) is older than 18: skipping the MCP client interoperability check"
    exit 0
fi

server=$1
work=$2
here=$(cd "$(dirname "$0")" && pwd)

mkdir -p "$work"
cp -p "$here/package.json" "$here/package-lock.json" "$here"/*.mjs "$work/"
cd "$work"
# npm ci leaves node_modules/.package-lock.json behind; a newer lock file means a stale install.
if [ ! -f node_modules/.package-lock.json ] || [ package-lock.json -nt node_modules/.package-lock.json ]; then
    npm ci --no-audit --no-fund
fi
node stdio.mjs "$server"
node http.mjs "$server"
node client_v2.mjs "$server"
node inspector.mjs "$server"
