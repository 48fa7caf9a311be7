# A real third-party MCP server (streamable HTTP) on loopback, installed by scripts/prepare-mcp-server.sh.
# Exports KELO_TEST_MCP_URL; tests that need the server skip when it is unset.
kelo_mcp_dir=${KELO_MCP_SERVER_DIR:-$HOME/.cache/kelo/npm/mcp-server}

kelo_free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1]); s.close()' 2>/dev/null \
    || echo $((20000 + RANDOM % 20000))
}

start_mcp() {
  local bin="$kelo_mcp_dir/node_modules/.bin/mcp-server-everything" port pid
  [ -x "$bin" ] && command -v node >/dev/null 2>&1 || return 1
  port=$(kelo_free_port)
  PORT=$port node "$bin" streamableHttp >"$KELO_SERVICE_RUNTIME/mcp.log" 2>&1 &
  pid=$!
  echo "$pid" >"$KELO_SERVICE_RUNTIME/mcp.pid"
  for _ in $(seq 100); do
    if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
      export KELO_TEST_MCP_URL="http://127.0.0.1:$port/mcp"
      return 0
    fi
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
  done
  kelo_kill_pidfile "$KELO_SERVICE_RUNTIME/mcp.pid"
  return 1
}

stop_mcp() {
  kelo_kill_pidfile "$KELO_SERVICE_RUNTIME/mcp.pid"
  unset KELO_TEST_MCP_URL
}
