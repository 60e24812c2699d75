// The extension end to end in Debian's firefox-esr (headless, WebDriver BiDi through
// puppeteer-core), installed as a temporary add-on, with the host registered by
// `linkwash browser install --browser firefox` in the test's own home folder.
import {after, before, test} from 'node:test';
import assert from 'node:assert/strict';
import {mkdirSync} from 'node:fs';
import path from 'node:path';
import puppeteer from 'puppeteer-core';

import * as support from './support.mjs';

const FIREFOX = process.env.LINKWASH_FIREFOX || '/usr/bin/firefox-esr';
const {WAIT_MS, until} = support;
const LAUNCH_MS = 120000;

let sites;
let scratch;
let env;
let firefox;

async function launch(home, extraEnv) {
  mkdirSync(home, {recursive: true});
  const browser = await puppeteer.launch({
    browser: 'firefox',
    executablePath: FIREFOX,
    headless: true,
    userDataDir: path.join(home, 'profile'),
    env: {...process.env, ...extraEnv, HOME: home},
    // Firefox may take long to start on a busy machine; waits in the tests stay short.
    timeout: LAUNCH_MS,
    protocolTimeout: LAUNCH_MS,
    extraPrefsFirefox: {
      'network.dns.forceResolve': '127.0.0.1',
      'network.proxy.type': 0,
      'dom.security.https_first': false,
    },
  });
  await browser.installExtension(support.extensionDir);
  return browser;
}

const waitForURL = (page, url) => until(() => page.url() === url, WAIT_MS, url);

before(async () => {
  support.requireProgram(support.linkwashBin);
  support.requireProgram(support.hostBin);
  support.requireProgram(FIREFOX);
  sites = await support.startSites();
  scratch = support.scratchDir('firefox');
  env = {LINKWASH_HOME: path.join(scratch, 'linkwash')};
  const home = path.join(scratch, 'home');
  support.linkwash(['browser', 'install', '--browser', 'firefox', '--user-data-dir', path.join(home, '.mozilla')], env);
  firefox = await launch(home, env);
});

after(async () => {
  await firefox?.close();
  await sites?.close();
  if (scratch) support.removeDir(scratch);
});

test('a pressed tracked link is cleaned in place and the click lands clean', async () => {
  const page = await firefox.newPage();
  const tracked = `${sites.origin('shop.test')}/item?id=7&utm_source=news&fbclid=abc`;
  const clean = support.linkwash(['clean', tracked], env);
  const delays = [];
  for (let round = 0; round < 5; ++round) {
    await page.goto(`${sites.origin('news.test')}/links`);
    await page.evaluate(support.watchRewrite);
    await page.hover('#tracked');
    await page.mouse.down();
    await until(async () => (await page.$eval('#tracked', (link) => link.href)) === clean, WAIT_MS, 'the rewrite');
    delays.push(Math.round(await page.evaluate(() => window.rewrittenAt - window.pressedAt)));
    await page.mouse.up();
    await waitForURL(page, clean);
  }
  assert.ok(!sites.requests.includes(tracked), 'the tracked address was requested');
  console.log(`firefox: press to clean link, median ${support.median(delays)} ms of ${delays}`);

  await page.close();
});

test('a typed tracked address lands clean without being requested', async () => {
  const page = await firefox.newPage();
  const timings = {tracked: [], direct: []};
  for (let round = 0; round < 5; ++round) {
    const typed = `${sites.origin('shop.test')}/typed${round}?utm_source=x&mc_eid=9&id=1`;
    const clean = support.linkwash(['clean', typed], env);
    let started = Date.now();
    await page.goto(typed);
    await waitForURL(page, clean);
    timings.tracked.push(Date.now() - started);
    started = Date.now();
    await page.goto(clean);
    timings.direct.push(Date.now() - started);
    assert.ok(!sites.requests.includes(typed), 'the tracked address was requested');
  }
  console.log(`firefox: typed navigation, median ms: tracked address ${support.median(timings.tracked)}, ` +
      `clean address ${support.median(timings.direct)}`);
  await page.close();
});

test('a site switched off in Linkwash keeps its parameters', async () => {
  const page = await firefox.newPage();
  const tracked = `${sites.origin('shop.test')}/off?id=3&utm_source=x`;
  support.linkwash(['sites', 'disable', 'shop.test'], env);
  await page.goto(tracked);
  await new Promise((resolve) => setTimeout(resolve, 500));
  assert.equal(page.url(), tracked);
  support.linkwash(['sites', 'enable', 'shop.test'], env);
  await page.goto(tracked);
  await waitForURL(page, support.linkwash(['clean', tracked], env));
  await page.close();
});

test('without the host, links still work', async () => {
  const bare = await launch(path.join(scratch, 'home-no-host'), env);
  try {
    const page = await bare.newPage();
    await page.goto(`${sites.origin('news.test')}/links`);
    await Promise.all([page.waitForNavigation({timeout: WAIT_MS}), page.click('#tracked')]);
    assert.match(page.url(), /\/item\?id=7&utm_source=news&fbclid=abc$/);
  } finally {
    await bare.close();
  }
});
