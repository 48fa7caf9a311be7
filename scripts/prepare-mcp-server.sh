#!/usr/bin/env bash
# Installs the third-party servers the MCP tests talk to over loopback (an MCP server, and an OAuth
# authorization server), each pinned by the package-lock.json of its folder under tests/, into a
# cache outside the checkout. A server whose installed lock file already matches is skipped.
set -euo pipefail
cd "$(dirname "$0")/.."

install_npm_server() { # folder under tests/, cache directory, a package that must be there afterwards
  local source=tests/$1 target=$2 package=$3
  if cmp -s "$source/package-lock.json" "$target/package-lock.json" && [ -d "$target/node_modules/$package" ]; then
    return 0
  fi
  if ! command -v npm >/dev/null 2>&1; then
    echo "kelo: npm lipsește; serverul de test $1 nu se instalează" >&2
    return 0
  fi
  mkdir -p "$target"
  cp "$source/package.json" "$source/package-lock.json" "$target/"
  if ! (cd "$target" && npm ci --no-audit --no-fund --loglevel=error >/dev/null); then
    echo "kelo: instalarea serverului de test $1 a eșuat; testele care au nevoie de el vor fi omise" >&2
    rm -f "$target/package-lock.json"
  fi
}

install_npm_server mcp-server "${KELO_MCP_SERVER_DIR:-$HOME/.cache/kelo/npm/mcp-server}" \
  @modelcontextprotocol/server-everything
install_npm_server oauth-server "${KELO_OAUTH_SERVER_DIR:-$HOME/.cache/kelo/npm/oauth-server}" oidc-provider
