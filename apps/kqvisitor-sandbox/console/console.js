// The operator console: signs in, lists the operator's chats, shows the one picked and sends
// answers. Everything a visitor wrote is put on the page as text (textContent), never as markup.
'use strict';

const $ = (id) => document.getElementById(id);
let picked = null;  // the chat shown
let events = null;  // the live stream of changes

async function call(method, path, body) {
  const response = await fetch('/console/api/' + path, {
    method,
    headers: body ? { 'Content-Type': 'application/json' } : {},
    body: body ? JSON.stringify(body) : undefined,
    credentials: 'same-origin',
  });
  const answer = await response.json().catch(() => ({}));
  if (response.status === 401 && path !== 'signin') {
    showSignIn();
  }
  if (!response.ok) {
    throw new Error(answer.error || 'The sandbox answered ' + response.status + '.');
  }
  return answer;
}

function element(tag, className, text) {
  const made = document.createElement(tag);
  if (className) made.className = className;
  if (text !== undefined) made.textContent = text;
  return made;
}

function timeOf(seconds) {
  return seconds ? new Date(seconds * 1000).toLocaleTimeString() : '';
}

function showSignIn() {
  if (events) events.close();
  events = null;
  picked = null;
  $('desk').hidden = true;
  $('signin').hidden = false;
  $('signin-id').focus();
}

function showDesk(me) {
  $('signin').hidden = true;
  $('desk').hidden = false;
  $('me').textContent = me.name + ' (' + me.id + ')';
  $('online').checked = me.online;
  if (!events) {
    events = new EventSource('/console/api/events');
    events.addEventListener('changed', refresh);
  }
  refresh();
}

async function refresh() {
  const chats = await call('GET', 'chats');
  const list = $('chats');
  list.replaceChildren();
  $('no-chats').hidden = chats.length > 0;
  for (const chat of chats) {
    const item = element('li', (chat.ended ? 'ended ' : '') + (chat.id === picked ? 'picked' : ''));
    item.dataset.chat = chat.id;
    const who = element('div', 'who');
    who.append(element('span', 'visitor', chat.visitor || 'Visitor'));
    if (chat.unread > 0) who.append(element('span', 'unread', String(chat.unread)));
    item.append(who);
    item.append(element('div', 'meta', chat.website + ' · ' + timeOf(chat.started) +
                                       (chat.ended ? ' · ended' : '')));
    item.append(element('div', 'last', chat.lastLine));
    item.addEventListener('click', () => pick(chat.id));
    list.append(item);
  }
  if (picked) await showChat();
}

function pick(chatId) {
  picked = chatId;
  $('answer-error').textContent = '';
  refresh();
  $('answer').focus();
}

// A line's text, with this sandbox's uploaded files shown: images inline, other files as links.
function body(text) {
  const made = element('span', 'text');
  const file = /^(https?:\/\/[^/\s]+)\/files\/\d+\/[^\s]+$/.exec(text.trim());
  if (!file) {
    made.textContent = text;
    return made;
  }
  const link = element('a', 'file', decodeURIComponent(text.trim().split('/').pop()));
  link.href = text.trim();
  link.target = '_blank';
  link.rel = 'noopener';
  made.append(link);
  if (file[1] === location.origin && /\.(png|jpe?g|gif|webp)$/i.test(text.trim())) {
    const image = element('img');
    image.src = text.trim();
    image.alt = link.textContent;
    made.append(image);
  }
  return made;
}

async function showChat() {
  const chat = await call('GET', 'chats/' + picked);
  $('chat-title').textContent = (chat.visitor || 'Visitor') + ' · chat ' + chat.id +
                                (chat.ended ? ' (ended)' : '');
  $('end').hidden = chat.ended;
  $('answer-form').hidden = chat.ended;
  const transcript = $('transcript');
  transcript.replaceChildren();
  if (chat.greeting) transcript.append(element('li', 'greeting', chat.greeting));
  for (const line of chat.lines) {
    const ending = line.text === '[destroy room]';
    const item = element('li', ending ? 'notice' : line.sender);
    item.dataset.sender = line.sender;
    item.append(element('time', '', timeOf(line.at)));
    item.append(ending ? element('span', 'text', 'The chat was ended.') : body(line.text));
    transcript.append(item);
  }
  transcript.scrollTop = transcript.scrollHeight;
}

$('signin-form').addEventListener('submit', async (event) => {
  event.preventDefault();
  $('signin-error').textContent = '';
  try {
    showDesk(await call('POST', 'signin',
                        { id: $('signin-id').value, password: $('signin-password').value }));
  } catch (error) {
    $('signin-error').textContent = error.message;
  }
});

$('signout').addEventListener('click', async () => {
  await call('POST', 'signout').catch(() => {});
  showSignIn();
});

$('online').addEventListener('change', async () => {
  try {
    await call('POST', 'presence', { online: $('online').checked });
  } catch (error) {
    $('online').checked = !$('online').checked;
  }
});

$('answer').addEventListener('keydown', async (event) => {
  if (event.key !== 'Enter' || event.shiftKey) return;
  event.preventDefault();
  const text = $('answer').value.trim();
  if (!text || !picked) return;
  try {
    await call('POST', 'chats/' + picked + '/messages', { text });
    $('answer').value = '';
    $('answer-error').textContent = '';
  } catch (error) {
    $('answer-error').textContent = error.message;
  }
});

$('end').addEventListener('click', async () => {
  try {
    await call('POST', 'chats/' + picked + '/end');
  } catch (error) {
    $('answer-error').textContent = error.message;
  }
});

call('GET', 'me').then(showDesk, showSignIn);
