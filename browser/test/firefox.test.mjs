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
// Fixed, so that the test knows the popup's address.
const EXTENSION_UUID = '5b0e7a52-3d1c-4c43-9a3e-4f1f8f6f0c11';

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
    timeout: WAIT_MS,
    protocolTimeout: WAIT_MS,
    extraPrefsFirefox: {
      'network.dns.forceResolve': '127.0.0.1',
      'network.proxy.type': 0,
      'dom.security.https_first': false,
      'extensions.webextensions.uuids': JSON.stringify({[support.firefoxId]: EXTENSION_UUID}),
    },
  });
  await browser.installExtension(support.extensionDir);
  return browser;
}

async function openPopup(browser, page) {
  const popup = await browser.newPage();
  const base = `moz-extension://${EXTENSION_UUID}/popup.html`;
  await popup.goto(base);
  const url = page.url();
  const tabId = await until(() => popup.evaluate(
      async (wanted) => (await browser.tabs.query({})).find((tab) => tab.url === wanted)?.id, url),
      WAIT_MS, 'the tab id');
  await popup.goto(`${base}?tab=${tabId}`);
  await popup.waitForSelector('#controls:not([hidden]), #no-host:not([hidden])', {timeout: WAIT_MS});
  return popup;
}

const text = (page, selector) => page.$eval(selector, (node) => node.textContent);
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

test('a pressed tracked link is cleaned in place and the click lands clean; Undo goes back', async () => {
  const page = await firefox.newPage();
  const tracked = `${sites.origin('shop.test')}/item?id=7&utm_source=news&fbclid=abc`;
  const clean = support.linkwash(['clean', tracked], env);
  const delays = [];
  for (let round = 0; round < 5; ++round) {
    await page.goto(`${sites.origin('news.test')}/links`);
    await page.hover('#tracked');
    const started = Date.now();
    await page.mouse.down();
    await page.waitForFunction((wanted) => document.getElementById('tracked').href === wanted,
        {timeout: WAIT_MS, polling: 5}, clean);
    delays.push(Date.now() - started);
    await page.mouse.up();
    await waitForURL(page, clean);
  }
  assert.ok(!sites.requests.includes(tracked), 'the tracked address was requested');
  console.log(`firefox: press to clean link, median ${support.median(delays)} ms of ${delays}`);

  const popup = await openPopup(firefox, page);
  assert.equal(await text(popup, '#last-cleaned'), clean);
  await popup.click('#undo');
  await waitForURL(page, tracked);
  await new Promise((resolve) => setTimeout(resolve, 500));
  assert.equal(page.url(), tracked, 'Undo was cleaned again');
  await popup.close();
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

test('a site switched off in the popup keeps its parameters', async () => {
  const page = await firefox.newPage();
  const tracked = `${sites.origin('shop.test')}/off?id=3&utm_source=x`;
  await page.goto(`${sites.origin('shop.test')}/start`);
  const popup = await openPopup(firefox, page);
  await popup.click('#site-switch');
  await until(async () => (await text(popup, '#status')).includes('left as they are'), WAIT_MS, 'switch');
  await page.goto(tracked);
  await new Promise((resolve) => setTimeout(resolve, 500));
  assert.equal(page.url(), tracked);
  await popup.click('#site-switch');
  await until(async () => (await text(popup, '#status')).includes('are cleaned'), WAIT_MS, 'switch');
  const [answer] = await support.askHost([{action: 'isDomainDisabled', host: 'shop.test'}], env);
  assert.deepEqual(answer, {host: 'shop.test', disabled: false});
  await popup.close();
  await page.close();
});

test('the popup changes the X/Twitter choice the host keeps', async () => {
  const page = await firefox.newPage();
  await page.goto(`${sites.origin('shop.test')}/item?id=5`);
  const popup = await openPopup(firefox, page);
  await popup.select('#x-choice', 'twitterViewer');
  await until(async () => (await text(popup, '#status')).includes('frontend'), WAIT_MS, 'choice');
  const [choice] = await support.askHost([{action: 'getXRedirectChoice'}], env);
  assert.deepEqual(choice, {ok: true, choice: 'twitterViewer'});
  await popup.select('#x-choice', 'off');
  await until(async () => (await text(popup, '#status')).includes('stay on X'), WAIT_MS, 'choice');
  await popup.close();
  await page.close();
});

test('without the host, links still work and the popup says how to install it', async () => {
  const bare = await launch(path.join(scratch, 'home-no-host'), env);
  try {
    const page = await bare.newPage();
    await page.goto(`${sites.origin('news.test')}/links`);
    await Promise.all([page.waitForNavigation({timeout: WAIT_MS}), page.click('#tracked')]);
    assert.match(page.url(), /\/item\?id=7&utm_source=news&fbclid=abc$/);
    const popup = await openPopup(bare, page);
    assert.equal(await text(popup, '#install-command'), 'linkwash browser install');
  } finally {
    await bare.close();
  }
});
