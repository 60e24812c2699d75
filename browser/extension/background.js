// Background of the extension: a service worker in Chromium, an event page in Firefox. It owns the
// connection to the Linkwash host, answers the content script and the popup, keeps top-level
// navigations clean and serves the "Copy clean link" menu. All cleaning is the host's: nothing
// here decides what a tracker is, except the small set of parameters Chromium strips before the
// request (rules/trackers.json), which the host is asked about afterwards and overrides.
'use strict';

if (typeof importScripts === 'function') importScripts('host.js');

const api = globalThis.browser ?? globalThis.chrome;
const host = new LinkwashHost(api);
const isFirefox = typeof api.runtime.getBrowserInfo === 'function';

// How long each kind of request may wait for the host. Nothing in a page waits for these: the
// content script never holds a click.
const NAVIGATION_TIMEOUT_MS = 1000;
const CONTENT_TIMEOUT_MS = 2000;
const POPUP_TIMEOUT_MS = 3000;

// Pages may only ask for what the content script needs; the popup may use every action.
const CONTENT_ACTIONS = new Set(['cleanURL', 'recordContentClean']);
const POPUP_ACTIONS = new Set([
  'cleanURL', 'isDomainDisabled', 'setDomainDisabled', 'getLastClean', 'applyLastClean',
  'getXRedirectChoice', 'setXRedirectChoice', 'buildMissedReport', 'copyMissedReport',
  'recordStat',
]);

// Must match rules/trackers.json.
const STRIPPED_BEFORE_REQUEST = new Set(
    ['utm_source', 'utm_medium', 'utm_campaign', 'utm_term', 'utm_content', 'fbclid', 'gclid']);
const SWITCHED_OFF_RULE_ID = 1;
const TAB_ALLOWANCE_MS = 10000;

// Starting the host loads its rules, which takes far longer than a clean: do it now rather than
// on the first navigation, which would otherwise go through uncleaned. A link without a query
// changes nothing and is not recorded.
host.request({action: 'cleanURL', url: 'https://localhost/'}, POPUP_TIMEOUT_MS);

// Tabs on their way back to an original address through Undo: that one navigation is left alone.
const leaveAlone = new Map();  // tabId -> url

function isWebURL(url) {
  return typeof url === 'string' && /^https?:/i.test(url);
}

// --- Messages from the content script and the popup -------------------------------------------

function fromOwnPage(sender) {
  return sender.id === api.runtime.id && typeof sender.url === 'string' &&
      sender.url.startsWith(api.runtime.getURL(''));
}

async function handleMessage(message, sender) {
  const own = fromOwnPage(sender);
  if (message.command === 'undo' && own) return undoLastClean(message.tabId);
  const allowed = own ? POPUP_ACTIONS : CONTENT_ACTIONS;
  if (!allowed.has(message.action)) return {error: 'Not allowed'};
  const reply = await host.request(message, own ? POPUP_TIMEOUT_MS : CONTENT_TIMEOUT_MS);
  if (message.action === 'setDomainDisabled' && reply.ok === true) {
    await noteSiteSwitch(reply.host, reply.disabled === true);
  }
  return reply;
}

api.runtime.onMessage.addListener((message, sender, sendResponse) => {
  if (!message || typeof message !== 'object') return false;
  handleMessage(message, sender).then(sendResponse, (error) => sendResponse({hostError: String(error)}));
  return true;  // answered asynchronously
});

async function undoLastClean(tabId) {
  const reply = await host.request({action: 'applyLastClean'}, POPUP_TIMEOUT_MS);
  if (reply.applied === true && isWebURL(reply.originalURL) && Number.isInteger(tabId)) {
    leaveAlone.set(tabId, reply.originalURL);
    await allowTabOnce(tabId);
    await api.tabs.update(tabId, {url: reply.originalURL});
  }
  return reply;
}

// --- Chromium: rules that strip before the request, and what the host says afterwards ---------

let ruleUpdates = Promise.resolve();

function serialized(work) {
  ruleUpdates = ruleUpdates.then(work, work).catch(() => {});
  return ruleUpdates;
}

// The stripping rules must not touch a site switched off in Linkwash: each site the extension
// learns is switched off gets an allow rule (one rule holds them all).
function noteSiteSwitch(siteHost, disabled) {
  if (isFirefox || !siteHost) return Promise.resolve();
  return serialized(async () => {
    const rules = await api.declarativeNetRequest.getDynamicRules();
    const current = rules.find((rule) => rule.id === SWITCHED_OFF_RULE_ID);
    const hosts = new Set(current ? current.condition.requestDomains : []);
    for (const name of [siteHost, 'www.' + siteHost]) {
      if (disabled) hosts.add(name); else hosts.delete(name);
    }
    const addRules = hosts.size === 0 ? [] : [{
      id: SWITCHED_OFF_RULE_ID,
      priority: 50,
      action: {type: 'allow'},
      condition: {requestDomains: [...hosts], resourceTypes: ['main_frame']},
    }];
    await api.declarativeNetRequest.updateDynamicRules(
        {removeRuleIds: [SWITCHED_OFF_RULE_ID], addRules});
  });
}

let nextAllowanceId = 1000;

// Lets the next top-level navigation of one tab through the stripping rules (Undo, or a link the
// host keeps as it is). The allowance ends when that navigation commits, or after a few seconds.
function allowTabOnce(tabId) {
  if (isFirefox) return Promise.resolve();
  const id = nextAllowanceId++;
  const remove = () => serialized(() => api.declarativeNetRequest.updateSessionRules({removeRuleIds: [id]}));
  allowances.set(tabId, remove);
  setTimeout(remove, TAB_ALLOWANCE_MS);
  return serialized(() => api.declarativeNetRequest.updateSessionRules({
    addRules: [{
      id,
      priority: 100,
      action: {type: 'allow'},
      condition: {tabIds: [tabId], resourceTypes: ['main_frame']},
    }],
  }));
}
const allowances = new Map();  // tabId -> remove()

// Where the stripping rules send `url`, or null when they leave it alone. Remaining parameters
// are kept byte for byte, as the rules do.
function strippedByRules(url) {
  const hashAt = url.indexOf('#');
  const beforeHash = hashAt < 0 ? url : url.slice(0, hashAt);
  const queryAt = beforeHash.indexOf('?');
  if (queryAt < 0) return null;
  const pieces = beforeHash.slice(queryAt + 1).split('&');
  const kept = pieces.filter((piece) => {
    const eq = piece.indexOf('=');
    return eq < 0 || !STRIPPED_BEFORE_REQUEST.has(piece.slice(0, eq));
  });
  if (kept.length === pieces.length) return null;
  const query = kept.length ? '?' + kept.join('&') : '';
  return beforeHash.slice(0, queryAt) + query + (hashAt < 0 ? '' : url.slice(hashAt));
}

// Chromium cannot hold a navigation for an answer, so the host is asked as it starts and the tab
// is sent on to the clean address (or back to the original when the rules stripped a link the
// host keeps). A tab that has meanwhile gone elsewhere is left alone.
async function settleNavigation(tabId, url) {
  const reply = await host.request({action: 'cleanURL', url}, NAVIGATION_TIMEOUT_MS);
  if (reply.hostError) return;
  if (reply.skippedDisabled === true) await noteSiteSwitch(reply.host, true);
  const wanted = reply.cleaned === true && isWebURL(reply.cleanedURL) ? reply.cleanedURL : url;
  const byRules = strippedByRules(url);
  if ((byRules ?? url) === wanted) return;
  let tab;
  try {
    tab = await api.tabs.get(tabId);
  } catch {
    return;  // the tab was closed
  }
  const now = tab.pendingUrl || tab.url;
  if (now === wanted || (now !== url && now !== byRules)) return;
  if (wanted === url) {
    leaveAlone.set(tabId, url);
    await allowTabOnce(tabId);
  }
  await api.tabs.update(tabId, {url: wanted});
}

if (!isFirefox) {
  api.declarativeNetRequest.updateEnabledRulesets({enableRulesetIds: ['trackers']}).catch(() => {});
  api.webNavigation.onBeforeNavigate.addListener((details) => {
    if (details.frameId !== 0 || !isWebURL(details.url)) return;
    if (leaveAlone.get(details.tabId) === details.url) {
      leaveAlone.delete(details.tabId);
      return;
    }
    settleNavigation(details.tabId, details.url);
  });
  api.webNavigation.onCommitted.addListener((details) => {
    if (details.frameId !== 0) return;
    const remove = allowances.get(details.tabId);
    if (remove) {
      allowances.delete(details.tabId);
      remove();
    }
  });
}

// --- Firefox: the request waits for the host and goes straight to the clean address -----------

if (isFirefox) {
  api.webRequest.onBeforeRequest.addListener((details) => {
    if (details.method !== 'GET') return {};
    if (leaveAlone.get(details.tabId) === details.url) {
      leaveAlone.delete(details.tabId);
      return {};
    }
    return host.request({action: 'cleanURL', url: details.url}, NAVIGATION_TIMEOUT_MS).then((reply) => {
      const cleaned = reply.cleaned === true && isWebURL(reply.cleanedURL) ? reply.cleanedURL : null;
      return cleaned && cleaned !== details.url ? {redirectUrl: cleaned} : {};
    });
  }, {urls: ['http://*/*', 'https://*/*'], types: ['main_frame']}, ['blocking']);
}

api.tabs.onRemoved.addListener((tabId) => leaveAlone.delete(tabId));

// --- "Copy clean link" --------------------------------------------------------------------------

const MENU_ID = 'copy-clean-link';

api.runtime.onInstalled.addListener(() => {
  api.contextMenus.create({id: MENU_ID, title: 'Copy clean link', contexts: ['link']}, () => {
    void api.runtime.lastError;  // already there after an update
  });
});

api.contextMenus.onClicked.addListener(async (info, tab) => {
  if (info.menuItemId !== MENU_ID || !isWebURL(info.linkUrl)) return;
  const reply = await host.request({action: 'cleanURL', url: info.linkUrl}, POPUP_TIMEOUT_MS);
  const text = reply.cleaned === true && isWebURL(reply.cleanedURL) ? reply.cleanedURL : info.linkUrl;
  // The service worker has no clipboard: the page's content script writes it.
  try {
    await api.tabs.sendMessage(tab.id, {command: 'copyText', text}, {frameId: info.frameId ?? 0});
  } catch {
    if (navigator.clipboard) await navigator.clipboard.writeText(text).catch(() => {});
  }
});
