// The official MCP client over stdio, launching the built server as its child.
// usage: node stdio.mjs <ostrevik-server>
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { exercise } from './scenario.mjs';

const server = process.argv[2];
const root = mkdtempSync(join(tmpdir(), 'ostrevik-sdk-stdio-'));
const transport = new StdioClientTransport({ command: server, args: ['--root', root], stderr: 'pipe' });
let log = '';
transport.stderr.on('data', (chunk) => { log += chunk; });
const client = new Client({ name: 'ostrevik-e2e', version: '0.1.0' });
const errors = [];
client.onerror = (error) => errors.push(error);

try {
  await client.connect(transport);
  const checks = await exercise(client);
  if (errors.length) throw errors[0];
  if (!log.includes('] initialize\n')) throw new Error(`no initialize in the log:\n${log}`);
  console.log(`stdio: ${checks} checks passed`);
} catch (error) {
  console.error('stdio: FAILED', error);
  console.error(log);
  process.exitCode = 1;
} finally {
  await client.close().catch(() => {});
  rmSync(root, { recursive: true, force: true });
}
