// Starts the built server on an ephemeral loopback port and waits for the port in its log.
import { spawn } from 'node:child_process';

export async function startHttpServer(server, root, token) {
  const child = spawn(server, ['--root', root, '--http', '0', '--token', token], { stdio: ['ignore', 'ignore', 'pipe'] });
  let log = '';
  const port = await new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error(`no port in:\n${log}`)), 10000);
    child.stderr.on('data', (chunk) => {
      log += chunk;
      const m = /127\.0\.0\.1:(\d+)/.exec(log);
      if (m) { clearTimeout(timer); resolve(Number(m[1])); }
    });
  });
  return { child, port };
}
