// A standards-strict OAuth authorization server (npm oidc-provider) in front of a small MCP endpoint,
// on loopback, for Kelo's tests. The user approves every authorization at once. The MCP endpoint
// accepts only live access tokens issued for its resource (spelled with "localhost", while clients
// are given 127.0.0.1), starts a session with every handshake and lists its tools in two pages.
//
//   OIDC_PROVIDER=<path to oidc-provider/lib/index.js> ACCESS_TOKEN_TTL=<seconds> node server.mjs
// prints "listening <port>" when ready. POST /test/forget-sessions makes it forget every session.
import http from 'node:http';
import { randomUUID } from 'node:crypto';

const { default: Provider } = await import(process.env.OIDC_PROVIDER);
const accessTokenTTL = Number(process.env.ACCESS_TOKEN_TTL || 3600);

const server = http.createServer();
await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
const { port } = server.address();
const issuer = `http://127.0.0.1:${port}`;
const resource = `http://localhost:${port}/mcp`;
const account = 'kelo-test-user';

const provider = new Provider(issuer, {
  features: {
    devInteractions: { enabled: false },
    registration: { enabled: true },
    resourceIndicators: {
      enabled: true,
      defaultResource: () => resource,
      useGrantedResource: () => true,
      getResourceServerInfo: (ctx, indicator) => {
        if (indicator !== resource) throw new Error(`unknown resource ${indicator}`);
        return { scope: 'mcp', accessTokenFormat: 'opaque', accessTokenTTL };
      },
    },
  },
  scopes: ['openid', 'offline_access', 'mcp'],
  rotateRefreshToken: true,
  findAccount: (ctx, id) => ({ accountId: id, claims: () => ({ sub: id }) }),
  interactions: { url: (ctx, interaction) => `/interaction/${interaction.uid}` },
  cookies: { keys: ['kelo-test-only'] },
});

// The user approves at once: signed in, and every requested scope granted for the resource.
async function approve(req, res) {
  const { params } = await provider.interactionDetails(req, res);
  const grant = new provider.Grant({ accountId: account, clientId: params.client_id });
  grant.addOIDCScope(params.scope || '');
  grant.addResourceScope(params.resource || resource, params.scope || '');
  const grantId = await grant.save();
  await provider.interactionFinished(req, res, { login: { accountId: account }, consent: { grantId } },
    { mergeWithLastSubmission: false });
}

const sessions = new Set();
const tools = [
  [{ name: 'echo', description: 'Repetă mesajul', inputSchema: { type: 'object' } }],
  [{ name: 'ora', description: 'Ora exactă', inputSchema: { type: 'object' } }],
];

function send(res, status, body, headers = {}) {
  res.writeHead(status, { 'content-type': 'application/json', ...headers });
  res.end(body === undefined ? '' : JSON.stringify(body));
}

async function liveToken(req) {
  const match = /^Bearer (.+)$/.exec(req.headers.authorization || '');
  const token = match && await provider.AccessToken.find(match[1]);
  return token && !token.isExpired && token.aud === resource;
}

async function mcp(req, res) {
  if (!await liveToken(req)) {
    return send(res, 401, { error: 'invalid_token' }, {
      'www-authenticate': `Bearer resource_metadata="${issuer}/.well-known/oauth-protected-resource/mcp", `
        + 'scope="mcp offline_access"',
    });
  }
  const chunks = [];
  for await (const chunk of req) chunks.push(chunk);
  const message = JSON.parse(Buffer.concat(chunks).toString('utf8'));
  const reply = (result) => ({ jsonrpc: '2.0', id: message.id, result });
  if (message.method === 'initialize') {
    const session = randomUUID();
    sessions.add(session);
    return send(res, 200, reply({ protocolVersion: '2025-06-18', capabilities: { tools: {} },
      serverInfo: { name: 'kelo-test', version: '1' } }), { 'mcp-session-id': session });
  }
  if (!sessions.has(req.headers['mcp-session-id'])) return send(res, 404, { error: 'unknown session' });
  if (message.method === 'notifications/initialized') return send(res, 202);
  if (message.method === 'tools/list') {
    const page = Number(message.params?.cursor || 0);
    return send(res, 200, reply({ tools: tools[page] || [], ...(page + 1 < tools.length ? { nextCursor: `${page + 1}` } : {}) }));
  }
  const text = `ecou: ${message.params?.arguments?.message ?? ''}`;
  return send(res, 200, reply({ content: [{ type: 'text', text }] }));
}

const handleOAuth = provider.callback();
server.on('request', async (req, res) => {
  try {
    const path = new URL(req.url, issuer).pathname;
    if (path.startsWith('/.well-known/oauth-protected-resource')) {
      return send(res, 200, { resource, authorization_servers: [issuer], scopes_supported: ['mcp', 'offline_access'] });
    }
    if (path === '/mcp' && req.method === 'POST') return await mcp(req, res);
    if (path === '/test/forget-sessions') {
      sessions.clear();
      return send(res, 200, {});
    }
    if (path.startsWith('/interaction/')) return await approve(req, res);
    return handleOAuth(req, res);
  } catch (error) {
    console.error(error);
    if (!res.headersSent) send(res, 500, { error: String(error) });
  }
});
console.log(`listening ${port}`);
