// The version-negotiating client, over stdio and over HTTP with the bearer token.
// usage: node v2.mjs <ostrevik-server>
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { Client, StreamableHTTPClientTransport } from '@modelcontextprotocol/client';
import { StdioClientTransport } from '@modelcontextprotocol/client/stdio';
import { startHttpServer } from './http_server.mjs';

const server = process.argv[2];
const root = mkdtempSync(join(tmpdir(), 'ostrevik-v2-'));

async function check(name, transport) {
  const client = new Client({ name: 'ostrevik-e2e-v2', version: '0.1.0' });
  try {
    await client.connect(transport);
    const { tools } = await client.listTools();
    if (tools.length !== 17) throw new Error(`${tools.length} tools listed`);
    const reply = await client.callTool({ name: 'describe', arguments: {} });
    if (!reply.content?.[0]?.text?.startsWith('document: ')) throw new Error(JSON.stringify(reply));
    console.log(`client 2.x ${name}: connected (protocol ${client.getNegotiatedProtocolVersion?.() ?? 'n/a'}), 17 tools, describe answered`);
  } finally {
    await client.close().catch(() => {});
  }
}


let http;
try {
  await check('stdio', new StdioClientTransport({ command: server, args: ['--root', root], stderr: 'ignore' }));
  let port;
  ({ child: http, port } = await startHttpServer(server, root, 'e2e-token'));
  await check('http', new StreamableHTTPClientTransport(new URL(`http://127.0.0.1:${port}/mcp`), {
    requestInit: { headers: { Authorization: 'Bearer e2e-token' } },
  }));
} catch (error) {
  console.error('client 2.x: FAILED', error);
  process.exitCode = 1;
} finally {
  http?.kill();
  rmSync(root, { recursive: true, force: true });
}
