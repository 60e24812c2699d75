// What both browsers' end-to-end tests share: the built programs, a fresh Linkwash home, a local
// web server standing in for the sites, and a direct line to the host for expected answers.
import {spawn, spawnSync} from 'node:child_process';
import {mkdtempSync, rmSync, existsSync} from 'node:fs';
import http from 'node:http';
import {tmpdir} from 'node:os';
import path from 'node:path';
import {fileURLToPath} from 'node:url';

export const extensionDir = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '../extension');
export const chromiumId = 'dldldimlamkgipjkanckoilidmncnoje';
export const firefoxId = 'linkwash@morvellabs.com';

const binDir = process.env.LINKWASH_BIN_DIR || path.resolve(extensionDir, '../../build/bin');
export const linkwashBin = path.join(binDir, 'linkwash');
export const hostBin = path.join(binDir, 'linkwash-host');

// Every wait in these tests is bounded by this, or by a smaller figure.
export const WAIT_MS = 15000;

export function requireProgram(file) {
  if (!existsSync(file)) throw new Error(`setup failure: ${file} is missing (run ./scripts/setup and build)`);
}

export function scratchDir(name) {
  return mkdtempSync(path.join(tmpdir(), `linkwash-${name}-`));
}

export function removeDir(dir) {
  rmSync(dir, {recursive: true, force: true});
}

// Runs `linkwash` with the test's home; throws with its output when it fails.
export function linkwash(args, env) {
  const run = spawnSync(linkwashBin, args, {env: {...process.env, ...env}, encoding: 'utf8', timeout: WAIT_MS});
  if (run.status !== 0) throw new Error(`linkwash ${args.join(' ')} failed: ${run.stderr}${run.stdout}`);
  return run.stdout.trim();
}

// Asks a host of our own (same home as the browser's) what it answers to `messages`.
export function askHost(messages, env) {
  return new Promise((resolve, reject) => {
    const child = spawn(hostBin, [], {env: {...process.env, ...env}, stdio: ['pipe', 'pipe', 'ignore']});
    const timer = setTimeout(() => child.kill('SIGKILL'), WAIT_MS);
    const chunks = [];
    child.stdout.on('data', (chunk) => chunks.push(chunk));
    child.on('error', reject);
    child.on('close', () => {
      clearTimeout(timer);
      const bytes = Buffer.concat(chunks);
      const replies = [];
      for (let at = 0; at + 4 <= bytes.length;) {
        const length = bytes.readUInt32LE(at);
        replies.push(JSON.parse(bytes.subarray(at + 4, at + 4 + length).toString('utf8')));
        at += 4 + length;
      }
      resolve(replies);
    });
    for (const message of messages) {
      const body = Buffer.from(JSON.stringify(message), 'utf8');
      const length = Buffer.alloc(4);
      length.writeUInt32LE(body.length);
      child.stdin.write(Buffer.concat([length, body]));
    }
    child.stdin.end();
  });
}

// A web server on 127.0.0.1 for every *.test site. "/links" is a page of links to shop.test;
// every other address answers a page naming itself. `requests` lists what was asked for.
export async function startSites() {
  const requests = [];
  const server = http.createServer((request, response) => {
    const url = `http://${request.headers.host}${request.url}`;
    requests.push(url);
    const port = server.address().port;
    response.setHeader('Content-Type', 'text/html; charset=utf-8');
    response.setHeader('Cache-Control', 'no-store');
    if (request.url === '/links') {
      const shop = `http://shop.test:${port}`;
      response.end(`<!DOCTYPE html><title>links</title>
        <a id="tracked" href="${shop}/item?id=7&utm_source=news&fbclid=abc">tracked</a>
        <a id="clean" href="${shop}/about">clean</a>`);
      return;
    }
    response.end(`<!DOCTYPE html><title>page</title><p id="here">${url.replace(/</g, '&lt;')}</p>`);
  });
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  const port = server.address().port;
  return {
    port,
    requests,
    origin: (site) => `http://${site}:${port}`,
    close: () => new Promise((resolve) => {
      server.closeAllConnections();
      server.close(resolve);
    }),
  };
}

// Polls `check` until it returns something truthy; throws after `ms`.
export async function until(check, ms = WAIT_MS, what = 'condition') {
  const end = Date.now() + ms;
  for (;;) {
    const value = await check();
    if (value) return value;
    if (Date.now() > end) throw new Error(`timed out waiting for ${what}`);
    await new Promise((resolve) => setTimeout(resolve, 20));
  }
}

export function median(values) {
  const sorted = [...values].sort((a, b) => a - b);
  return sorted[Math.floor(sorted.length / 2)];
}

// Times, inside the page, from the press on #tracked to its rewrite.
export function watchRewrite() {
  const link = document.getElementById('tracked');
  link.addEventListener('pointerdown', (event) => { window.pressedAt = event.timeStamp; });
  new MutationObserver(() => { window.rewrittenAt ??= performance.now(); }).observe(link, {attributes: true});
}
