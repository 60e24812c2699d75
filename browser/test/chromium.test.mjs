// The extension end to end in Debian's chromium (headless, driven by playwright-core), with the
// host registered in the test profile by `linkwash browser install --user-data-dir`.
import {after, before, test} from 'node:test';
import assert from 'node:assert/strict';
import {existsSync} from 'node:fs';
import path from 'node:path';
import {chromium} from 'playwright-core';

import * as support from './support.mjs';

const CHROMIUM = process.env.LINKWASH_CHROMIUM || '/usr/bin/chromium';
const {WAIT_MS, until} = support;

let sites;
let scratch;
let env;
let browser;

async function launch(profile, extraEnv) {
  const args = [
    `--disable-extensions-except=${support.extensionDir}`,
    `--load-extension=${support.extensionDir}`,
    '--host-resolver-rules=MAP *.test 127.0.0.1',
    '--disable-features=HttpsUpgrades,HttpsFirstBalancedModeAutoEnable,DisableLoadExtensionCommandLineSwitch',
    '--no-first-run',
    '--no-sandbox',  // the tests may run as root, where the sandbox refuses to start
  ];
  const context = await chromium.launchPersistentContext(profile, {
    executablePath: CHROMIUM,
    headless: true,
    args,
    ignoreDefaultArgs: ['--disable-extensions', '--disable-component-extensions-with-background-pages'],
    env: {...process.env, ...extraEnv},
    timeout: WAIT_MS,
  });
  context.setDefaultTimeout(WAIT_MS);
  const ours = (worker) => worker.url().startsWith(`chrome-extension://${support.chromiumId}/`);
  const worker = context.serviceWorkers().find(ours) ||
      await context.waitForEvent('serviceworker', {predicate: ours, timeout: WAIT_MS});
  return {context, worker};
}

// Polls rather than waiting for one navigation: the extension may replace it on the way.
async function landsOn(page, url) {
  await until(() => page.url() === url, WAIT_MS, url);
  await page.waitForLoadState('load').catch(() => {});
}

async function tabIdOf(worker, page) {
  const url = page.url();
  return until(() => worker.evaluate(
      async (wanted) => (await chrome.tabs.query({})).find((tab) => tab.url === wanted)?.id, url),
      WAIT_MS, 'the tab id');
}

async function openPopup({context, worker}, page) {
  const popup = await context.newPage();
  await popup.goto(`chrome-extension://${support.chromiumId}/popup.html?tab=${await tabIdOf(worker, page)}`);
  await popup.locator('#controls:visible, #no-host:visible').first().waitFor();
  return popup;
}

before(async () => {
  support.requireProgram(support.linkwashBin);
  support.requireProgram(support.hostBin);
  support.requireProgram(CHROMIUM);
  sites = await support.startSites();
  scratch = support.scratchDir('chromium');
  env = {LINKWASH_HOME: path.join(scratch, 'home')};
  const profile = path.join(scratch, 'profile');
  support.linkwash(['browser', 'install', '--user-data-dir', profile], env);
  assert.ok(existsSync(path.join(profile, 'NativeMessagingHosts', 'com.morvellabs.linkwash.json')));
  browser = await launch(profile, env);
});

after(async () => {
  await browser?.context.close();
  await sites?.close();
  if (scratch) support.removeDir(scratch);
});

test('a pressed tracked link is cleaned in place and the click lands clean; Undo goes back', async () => {
  const page = await browser.context.newPage();
  const tracked = `${sites.origin('shop.test')}/item?id=7&utm_source=news&fbclid=abc`;
  const clean = support.linkwash(['clean', tracked], env);
  assert.notEqual(clean, tracked);
  const delays = [];
  for (let round = 0; round < 5; ++round) {
    await page.goto(`${sites.origin('news.test')}/links`);
    const link = page.locator('#tracked');
    await page.evaluate(support.watchRewrite);
    await link.hover();
    await page.mouse.down();
    // A person's press lasts far longer than the host takes; the release waits for the rewrite.
    await page.waitForFunction((wanted) => document.getElementById('tracked').href === wanted, clean);
    delays.push(Math.round(await page.evaluate(() => window.rewrittenAt - window.pressedAt)));
    await page.mouse.up();
    await page.waitForURL(clean);
  }
  assert.ok(!sites.requests.includes(tracked), 'the tracked address was requested');
  console.log(`chromium: press to clean link, median ${support.median(delays)} ms of ${delays}`);

  const popup = await openPopup(browser, page);
  assert.equal(await popup.locator('#last-cleaned').textContent(), clean);
  await popup.click('#undo');
  await page.waitForURL(tracked);
  await popup.locator('#status', {hasText: 'original'}).waitFor();
  await page.waitForTimeout(500);
  assert.equal(page.url(), tracked, 'Undo was cleaned again');
  await popup.close();
  await page.close();
});

test('a typed tracked address lands clean', async () => {
  const page = await browser.context.newPage();
  // utm_source is stripped before the request; mc_eid only by the host afterwards.
  const cases = [`${sites.origin('shop.test')}/a?utm_source=x&id=1`, `${sites.origin('shop.test')}/b?mc_eid=9&id=2`];
  const timings = {rules: [], host: [], direct: []};
  for (let round = 0; round < 5; ++round) {
    for (const [kind, typed] of [['rules', cases[0]], ['host', cases[1]]]) {
      const clean = support.linkwash(['clean', typed], env);
      assert.notEqual(clean, typed, typed);
      let started = Date.now();
      await page.goto(typed, {waitUntil: 'commit'}).catch(() => {});  // may be replaced on the way
      await landsOn(page, clean);
      timings[kind].push(Date.now() - started);
      started = Date.now();
      await page.goto(clean);
      timings.direct.push(Date.now() - started);
    }
  }
  console.log(`chromium: typed navigation to the clean page, median ms: stripped before the request ` +
      `${support.median(timings.rules)}, cleaned by the host ${support.median(timings.host)}, ` +
      `clean address typed ${support.median(timings.direct)}`);
  await page.close();
});

test('a site switched off in the popup keeps its parameters, and on again is cleaned', async () => {
  const page = await browser.context.newPage();
  const tracked = `${sites.origin('shop.test')}/off?id=3&utm_source=x&mc_eid=9`;
  await page.goto(`${sites.origin('shop.test')}/start`);
  const popup = await openPopup(browser, page);
  assert.equal(await popup.locator('#site-host').textContent(), 'shop.test');
  await popup.uncheck('#site-switch');
  await popup.locator('#status', {hasText: 'left as they are'}).waitFor();
  const [answer] = await support.askHost([{action: 'isDomainDisabled', host: 'shop.test'}], env);
  assert.deepEqual(answer, {host: 'shop.test', disabled: true});

  await page.goto(tracked);
  await page.waitForTimeout(800);
  assert.equal(page.url(), tracked);

  await popup.check('#site-switch');
  await popup.locator('#status', {hasText: 'are cleaned'}).waitFor();
  await page.goto(tracked, {waitUntil: 'commit'}).catch(() => {});
  await landsOn(page, support.linkwash(['clean', tracked], env));
  await popup.close();
  await page.close();
});

test('the popup shows and changes what the host has', async () => {
  const page = await browser.context.newPage();
  await page.goto(`${sites.origin('shop.test')}/item?id=5`);
  let popup = await openPopup(browser, page);
  assert.equal(await popup.locator('#x-choice').inputValue(), 'off');
  await popup.selectOption('#x-choice', 'nitter');
  await popup.locator('#status', {hasText: 'frontend'}).waitFor();
  const [choice] = await support.askHost([{action: 'getXRedirectChoice'}], env);
  assert.deepEqual(choice, {ok: true, choice: 'nitter'});
  await popup.close();
  popup = await openPopup(browser, page);
  assert.equal(await popup.locator('#x-choice').inputValue(), 'nitter');

  // The report opens the mail link the host built; the test keeps the mail program out of it.
  await popup.evaluate(() => {
    HTMLAnchorElement.prototype.click = function () { window.openedMail = this.href; };
  });
  await popup.click('#report');
  const mail = await until(() => popup.evaluate(() => window.openedMail), WAIT_MS, 'the mail link');
  const [report] = await support.askHost([{action: 'buildMissedReport', originalURL: page.url()}], env);
  assert.ok(mail.startsWith('mailto:') && report.mailtoURL.startsWith('mailto:'));
  assert.equal(new URL(mail).searchParams.get('subject'), new URL(report.mailtoURL).searchParams.get('subject'));
  await popup.selectOption('#x-choice', 'off');
  await popup.locator('#status', {hasText: 'stay on X'}).waitFor();
  await popup.close();
  await page.close();
});

test('without the host, links still work and the popup says how to install it', async () => {
  const profile = path.join(scratch, 'profile-no-host');
  const bare = await launch(profile, env);
  try {
    const page = await bare.context.newPage();
    await page.goto(`${sites.origin('news.test')}/links`);
    await page.click('#tracked');
    await page.waitForURL(/\/item\?id=7/);
    assert.match(await page.locator('#here').textContent(), /\/item\?id=7/);
    const popup = await openPopup(bare, page);
    assert.ok(await popup.locator('#no-host').isVisible());
    assert.equal(await popup.locator('#install-command').textContent(), 'linkwash browser install');
  } finally {
    await bare.context.close();
  }
});
