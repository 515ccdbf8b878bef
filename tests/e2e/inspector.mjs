// The Inspector's command-line client lists the tools and calls describe, over stdio and over
// HTTP with the bearer header. Its first message carries namespaced capability keys.
// usage: node inspector.mjs <ostrevik-server>
import { execFile } from 'node:child_process';
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { fileURLToPath } from 'node:url';
import { promisify } from 'node:util';
import { startHttpServer } from './http_server.mjs';

const server = process.argv[2];
const root = mkdtempSync(join(tmpdir(), 'ostrevik-inspector-'));
const home = mkdtempSync(join(tmpdir(), 'ostrevik-inspector-home-'));  // its catalog lives there
const cli = fileURLToPath(new URL('node_modules/.bin/mcp-inspector', import.meta.url));

async function inspect(name, target, ...extra) {
  const run = async (...args) => {
    const { stdout } = await promisify(execFile)(cli, ['--cli', ...target, ...extra, ...args],
      { env: { ...process.env, HOME: home }, timeout: 60000 });
    return JSON.parse(stdout);
  };
  const listed = await run('--method', 'tools/list');
  if (listed.tools?.length !== 17) throw new Error(`${name}: ${JSON.stringify(listed).slice(0, 300)}`);
  const described = await run('--method', 'tools/call', '--tool-name', 'describe');
  if (!described.content?.[0]?.text?.startsWith('document: ')) throw new Error(`${name}: ${JSON.stringify(described)}`);
  console.log(`inspector ${name}: 17 tools listed, describe answered`);
}


let http;
try {
  await inspect('stdio', [server, '--root', root]);
  let port;
  ({ child: http, port } = await startHttpServer(server, root, 'e2e-token'));
  await inspect('http', [`http://127.0.0.1:${port}/mcp`], '--transport', 'http',
    '--header', 'Authorization: Bearer e2e-token');
} catch (error) {
  console.error('inspector: FAILED', error);
  process.exitCode = 1;
} finally {
  http?.kill();
  rmSync(root, { recursive: true, force: true });
  rmSync(home, { recursive: true, force: true });
}
