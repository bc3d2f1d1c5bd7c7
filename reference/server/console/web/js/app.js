// The console's shell: signs in, follows the #/page address, draws the page and
// keeps live pages fresh.
import * as api from './api.js';
import * as pages from './pages.js';
import { toast } from './dom.js';

const names = ['dashboard', 'feeds', 'items', 'devices', 'accounts', 'audit', 'operators'];
const titles = {
  dashboard: 'Dashboard', feeds: 'Feeds', items: 'Items', devices: 'Devices',
  accounts: 'Accounts', audit: 'Audit log', operators: 'Operators',
};
const livePages = new Set(['dashboard', 'devices']);
const state = {};
let timer = 0;
let drawing = null;
let again = false;

function currentPage() {
  const name = location.hash.replace(/^#\/?/, '');
  return names.includes(name) ? name : 'dashboard';
}

function showLogin(message = '') {
  clearInterval(timer);
  document.title = 'Sign in · zsm-server console';
  document.getElementById('nav').hidden = true;
  document.getElementById('page').replaceChildren();
  document.getElementById('login').hidden = false;
  document.getElementById('login-error').textContent = message;
  document.getElementById('password').focus();
}

async function draw() {
  // One drawing at a time; a request that comes while one runs (a new address, a
  // change) draws once more afterwards, so that the page shown is the one asked for.
  if (drawing) {
    again = true;
    return drawing;
  }
  drawing = (async () => {
    do {
      again = false;
      const name = currentPage();
      document.title = `${titles[name]} · zsm-server console`;
      for (const a of document.querySelectorAll('#nav a')) a.classList.toggle('active', a.dataset.page === name);
      const root = document.getElementById('page');
      state[name] ??= {};
      try {
        await pages[name](root, draw, state[name]);
        root.dataset.page = name;
      } catch (e) {
        if (e.status === 401) {
          showLogin('Your session ended; sign in again.');
          again = false;
        } else {
          toast(e.message, true);
        }
      }
    } while (again);
    drawing = null;
  })();
  return drawing;
}

function start() {
  document.getElementById('login').hidden = true;
  document.getElementById('nav-operators').hidden = !api.may('administrator');
  document.getElementById('who').textContent = api.session.operator === 'console'
    ? '' : `${api.session.operator} (${api.session.role})`;
  document.getElementById('nav').hidden = false;
  clearInterval(timer);
  timer = setInterval(() => {
    // Do not redraw under someone typing into a form, nor a page that holds
    // something open for the operator (a device being managed).
    const name = currentPage();
    if (livePages.has(name) && !state[name]?.hold && !document.activeElement?.closest('form')) draw();
  }, 3000);
  draw();
}

document.getElementById('login-form').addEventListener('submit', async (ev) => {
  ev.preventDefault();
  const password = document.getElementById('password');
  const name = document.getElementById('operator').value.trim();
  try {
    await api.login(name, password.value);
    password.value = '';
    start();
  } catch (e) {
    showLogin(e.message);
  }
});

document.getElementById('logout').addEventListener('click', async () => {
  await api.logout().catch(() => {});
  showLogin('Signed out.');
});

window.addEventListener('hashchange', () => {
  if (!document.getElementById('nav').hidden) draw();
});

api.resume().then((signedIn) => (signedIn ? start() : showLogin()), (e) => showLogin(e.message));
