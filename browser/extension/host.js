// The one connection to the Linkwash program on this computer (native messaging). Every request
// goes through a single long-lived host process, because the host keeps the last clean in memory:
// a process per message would forget it before the popup could offer Undo. The host answers
// messages one at a time and in order, so replies are matched to requests first in, first out.
'use strict';

const HOST_NAME = 'com.morvellabs.linkwash';
const INSTALL_COMMAND = 'linkwash browser install';

class LinkwashHost {
  constructor(api) {
    this.api = api;
    this.port = null;
    this.pending = [];  // {resolve, settled} in the order the messages were sent
    this.lastError = null;
  }

  // The host's reply to `message`, or {hostError: text} when the host is missing, fails or takes
  // longer than `timeoutMs`. Never rejects, so no caller can be broken by the host.
  request(message, timeoutMs) {
    return new Promise((resolve) => {
      const entry = {settled: false, resolve: null};
      const finish = (reply) => {
        if (entry.settled) return;
        entry.settled = true;
        clearTimeout(timer);
        resolve(reply);
      };
      entry.resolve = finish;
      const timer = setTimeout(() => finish({hostError: 'timeout'}), timeoutMs);
      let port;
      try {
        port = this.connect();
        this.pending.push(entry);
        port.postMessage(message);
      } catch (error) {
        this.dropPort(String(error && error.message || error));
      }
    });
  }

  connect() {
    if (this.port) return this.port;
    const port = this.api.runtime.connectNative(HOST_NAME);
    port.onMessage.addListener((reply) => {
      // A reply that arrives after its caller gave up still takes its slot in the queue.
      const entry = this.pending.shift();
      if (entry) entry.resolve(reply);
      this.lastError = null;
    });
    port.onDisconnect.addListener(() => {
      const error = this.api.runtime.lastError || port.error;
      if (this.port === port) this.dropPort(error ? error.message : 'disconnected');
    });
    this.port = port;
    return port;
  }

  dropPort(reason) {
    this.lastError = reason || 'disconnected';
    this.port = null;
    const waiting = this.pending;
    this.pending = [];
    for (const entry of waiting) entry.resolve({hostError: this.lastError});
  }
}

globalThis.LinkwashHost = LinkwashHost;
globalThis.LINKWASH_INSTALL_COMMAND = INSTALL_COMMAND;
