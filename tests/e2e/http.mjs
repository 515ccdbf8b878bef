// The official MCP client over streamable HTTP against the built server started with --http 0.
// usage: node http.mjs <ostrevik-server>
import { spawn } from 'node:child_process';
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StreamableHTTPClientTransport } from '@modelcontextprotocol/sdk/client/streamableHttp.js';
import { exercise } from './scenario.mjs';

const server = process.argv[2];
const token = 'e2e-' + Math.random().toString(36).slice(2);
const root = mkdtempSync(join(tmpdir(), 'ostrevik-sdk-http-'));
const child = spawn(server, ['--root', root, '--http', '0', '--token', token],
                    { stdio: ['ignore', 'ignore', 'pipe'] });
let log = '';

// The port from the listening line of the log.
function listeningPort() {
  return new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error(`no listening line:\n${log}`)), 10000);
    child.stderr.on('data', (chunk) => {
      log += chunk;
      const match = /MCP over HTTP on 127\.0\.0\.1:(\d+) \(bearer token required\)/.exec(log);
      if (match) {
        clearTimeout(timer);
        resolve(Number(match[1]));
      }
    });
    child.on('exit', (code) => reject(new Error(`server exited with ${code}:\n${log}`)));
  });
}

// Every exchange the client makes, as "METHOD status".
const exchanges = [];
async function recordingFetch(input, init) {
  const response = await fetch(input, init);
  exchanges.push(`${init?.method ?? 'GET'} ${response.status}`);
  return response;
}

function connectWith(url, auth) {
  const transport = new StreamableHTTPClientTransport(url, {
    requestInit: { headers: { Authorization: auth } },
    fetch: recordingFetch,
  });
  const client = new Client({ name: 'ostrevik-e2e', version: '0.1.0' });
  return { client, transport };
}

try {
  const url = new URL(`http://127.0.0.1:${await listeningPort()}/mcp`);

  // A wrong token is refused at the first request.
  const intruder = connectWith(url, 'Bearer wrong');
  await intruder.client.connect(intruder.transport).then(
    () => { throw new Error('connected with a wrong token'); },
    (error) => { if (error.code !== 401) throw error; });

  const { client, transport } = connectWith(url, `Bearer ${token}`);
  const errors = [];
  client.onerror = (error) => errors.push(error);
  await client.connect(transport);
  if (transport.sessionId !== 'ostrevik-server') throw new Error(`session id ${transport.sessionId}`);
  let checks = await exercise(client);

  // The server keeps no sessions: the DELETE is refused with 405, which the client accepts,
  // and requests go on working afterwards.
  await transport.terminateSession();
  const { tools } = await client.listTools();
  if (tools.length !== 17) throw new Error(`${tools.length} tools after the DELETE`);
  ++checks;
  await client.close();
  // The GET stream that follows the initialized notification is refused with 405 and must not
  // have raised an error.
  if (errors.length) throw errors[0];
  for (const seen of ['POST 401', 'POST 200', 'POST 202', 'GET 405', 'DELETE 405']) {
    if (!exchanges.includes(seen)) throw new Error(`no ${seen} among ${exchanges.join(', ')}`);
  }
  console.log(`http: ${checks} checks passed (${exchanges.join(", ")})`);
} catch (error) {
  console.error('http: FAILED', error);
  console.error(log);
  process.exitCode = 1;
} finally {
  child.kill('SIGKILL');
  rmSync(root, { recursive: true, force: true });
}
