// The toolbar popup: this site's switch, the last clean with Undo, the X/Twitter frontend choice
// and the missed-tracker report. Everything it shows is the host's answer; without the host it
// says so and shows the command that installs it.
'use strict';

const api = globalThis.browser ?? globalThis.chrome;
const INSTALL_COMMAND = 'linkwash browser install';
const $ = (id) => document.getElementById(id);

async function send(message) {
  try {
    const reply = await api.runtime.sendMessage(message);
    return reply && typeof reply === 'object' ? reply : {hostError: 'no answer'};
  } catch (error) {
    return {hostError: String(error && error.message || error)};
  }
}

function say(text) {
  $('status').textContent = text;
}

function showNoHost(reason) {
  $('controls').hidden = true;
  $('no-host').hidden = false;
  $('install-command').textContent = INSTALL_COMMAND;
  $('host-error').textContent = reason ? `(${reason})` : '';
}

// The tab the popup is about: the active one, or the one named by ?tab= when the popup is opened
// in a tab of its own.
async function popupTab() {
  const named = Number(new URLSearchParams(location.search).get('tab'));
  if (Number.isInteger(named) && named > 0) return api.tabs.get(named);
  const [tab] = await api.tabs.query({active: true, currentWindow: true});
  return tab;
}

async function showLastClean(url) {
  const last = await send({action: 'getLastClean', url});
  $('last-clean').hidden = last.available !== true;
  $('last-cleaned').textContent = last.available === true ? last.cleanedURL : '';
}

async function main() {
  const tab = await popupTab().catch(() => null);
  const url = tab && /^https?:/i.test(tab.url || '') ? tab.url : null;
  const choice = await send({action: 'getXRedirectChoice'});
  if (choice.hostError || choice.ok !== true) return showNoHost(choice.hostError);
  $('controls').hidden = false;
  $('x-choice').value = choice.choice;

  if (url) {
    const site = await send({action: 'isDomainDisabled', url});
    $('site-host').textContent = site.host || '';
    $('site-switch').checked = site.disabled !== true;
    await showLastClean(url);
  } else {
    $('site-switch').closest('label').hidden = true;
    $('not-web').hidden = false;
    $('report').disabled = true;
  }

  $('site-switch').addEventListener('change', async () => {
    const disabled = !$('site-switch').checked;
    const reply = await send({action: 'setDomainDisabled', url, disabled});
    if (reply.ok !== true) {
      $('site-switch').checked = !disabled;
      return say(reply.error || 'Linkwash could not change this site.');
    }
    say(disabled ? `Links on ${reply.host} are left as they are.` : `Links on ${reply.host} are cleaned.`);
  });

  $('undo').addEventListener('click', async () => {
    const reply = await send({command: 'undo', tabId: tab.id});
    $('last-clean').hidden = true;
    say(reply.applied === true ? 'Back to the original address.' : 'There is nothing to undo.');
  });

  $('x-choice').addEventListener('change', async () => {
    const reply = await send({action: 'setXRedirectChoice', choice: $('x-choice').value});
    if (reply.ok !== true) return say('Linkwash could not store that choice.');
    say(reply.choice === 'off' ? 'X/Twitter links stay on X.' : 'X/Twitter links open in the frontend you chose.');
  });

  $('report').addEventListener('click', async () => {
    const built = await send({action: 'buildMissedReport', originalURL: url});
    if (built.ok !== true) return say(built.error || 'Linkwash could not build the report.');
    if (typeof built.mailtoURL === 'string' && built.mailtoURL.startsWith('mailto:')) {
      const mail = document.createElement('a');
      mail.id = 'report-mail';
      mail.href = built.mailtoURL;
      mail.hidden = true;
      document.body.appendChild(mail);
      mail.click();
      return say('Your mail program has the report ready to send.');
    }
    const copied = await send({action: 'copyMissedReport', originalURL: url});
    say(copied.ok === true ? 'The report is on the clipboard: paste it into a mail.' :
                             copied.error || 'Linkwash could not copy the report.');
  });
}

main();
