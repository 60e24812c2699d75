// Cleans links in pages just before they are followed. A press on a link (mouse, touch, pen) or
// keyboard focus on it asks the host for the clean address and rewrites the link in place, so the
// click that follows goes to the clean address. No click is ever held back: when the answer comes
// after the click (a press shorter than the host's answer, a slow or missing host), the original
// link is followed as the page meant it, and the background cleans the navigation instead.
// Nothing else in the page is touched.
'use strict';

(() => {
  const api = globalThis.browser ?? globalThis.chrome;
  // An answer later than this is of no use: the press is long over.
  const ANSWER_MS = 2000;
  const asked = new WeakMap();  // link -> {original, cleaned}

  // The reply, or null when the host is slow, missing or the extension went away.
  function ask(message) {
    return new Promise((resolve) => {
      const timer = setTimeout(() => resolve(null), ANSWER_MS);
      const done = (reply) => {
        clearTimeout(timer);
        resolve(reply && typeof reply === 'object' && !reply.hostError ? reply : null);
      };
      try {
        api.runtime.sendMessage(message).then(done, () => done(null));
      } catch {
        done(null);
      }
    });
  }

  function linkOf(event) {
    const path = typeof event.composedPath === 'function' ? event.composedPath() : [event.target];
    for (const node of path) {
      if (node instanceof HTMLAnchorElement || node instanceof HTMLAreaElement) {
        return /^https?:/i.test(node.href) ? node : null;
      }
    }
    return null;
  }

  function precleanLink(event) {
    const link = linkOf(event);
    if (!link) return;
    const href = link.href;
    const known = asked.get(link);
    if (known && (known.original === href || known.cleaned === href)) return;
    const entry = {original: href, cleaned: null};
    asked.set(link, entry);
    ask({action: 'cleanURL', url: href}).then((reply) => {
      if (!reply) asked.delete(link);  // ask again on the next press
      if (!reply || reply.cleaned !== true || typeof reply.cleanedURL !== 'string') return;
      if (!/^https?:/i.test(reply.cleanedURL) || link.href !== href) return;  // the page changed it
      entry.cleaned = reply.cleanedURL;
      link.href = reply.cleanedURL;
    });
  }

  // Keeps the last clean the one the person followed, so that Undo in the popup goes back to it.
  function linkFollowed(event) {
    if (event.type === 'auxclick' && event.button !== 1) return;
    const link = linkOf(event);
    const entry = link && asked.get(link);
    if (!entry || !entry.cleaned || link.href !== entry.cleaned) return;
    ask({action: 'recordContentClean', originalURL: entry.original, cleanedURL: entry.cleaned});
  }

  const options = {capture: true, passive: true};
  window.addEventListener('pointerdown', precleanLink, options);
  window.addEventListener('focusin', precleanLink, options);
  window.addEventListener('click', linkFollowed, options);
  window.addEventListener('auxclick', linkFollowed, options);

  async function copyText(text) {
    try {
      await navigator.clipboard.writeText(text);
      return true;
    } catch {
      // Without focus the asynchronous clipboard refuses; the menu click still allows this.
      const area = document.createElement('textarea');
      area.value = text;
      area.style.cssText = 'position:fixed;top:0;left:0;opacity:0';
      (document.body || document.documentElement).appendChild(area);
      area.select();
      const copied = document.execCommand('copy');
      area.remove();
      return copied;
    }
  }

  api.runtime.onMessage.addListener((message, sender, sendResponse) => {
    if (!message || message.command !== 'copyText' || typeof message.text !== 'string') return false;
    copyText(message.text).then((ok) => sendResponse({ok}));
    return true;
  });
})();
