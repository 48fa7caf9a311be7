#!/usr/bin/env bash
# Installs the third-party MCP server the tests talk to, pinned by tests/mcp-server/package-lock.json,
# into a cache outside the checkout. Skipped when the installed lock file already matches.
set -euo pipefail
cd "$(dirname "$0")/.."

target=${KELO_MCP_SERVER_DIR:-$HOME/.cache/kelo/npm/mcp-server}
if cmp -s tests/mcp-server/package-lock.json "$target/package-lock.json" \
  && [ -d "$target/node_modules/@modelcontextprotocol/server-everything" ]; then
  exit 0
fi
if ! command -v npm >/dev/null 2>&1; then
  echo "kelo: npm lipsește; serverul MCP de test nu se instalează" >&2
  exit 0
fi
mkdir -p "$target"
cp tests/mcp-server/package.json tests/mcp-server/package-lock.json "$target/"
if ! (cd "$target" && npm ci --no-audit --no-fund --loglevel=error >/dev/null); then
  echo "kelo: instalarea serverului MCP de test a eșuat; testele care au nevoie de el vor fi omise" >&2
  rm -f "$target/package-lock.json"
fi
