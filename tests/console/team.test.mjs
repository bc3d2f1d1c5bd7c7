// The console for a team, in Debian's chromium, headless: named operators made
// with `zsm-server add-operator` replace the one console password; a stranger's
// wrong passwords make only the stranger wait, also on a second server process
// on the same data folder, which shares sessions; two operators editing one feed
// at once get a refusal and the chance to reapply instead of a silent overwrite;
// each role is refused what it may not do, in the pages and in the API; the
// audit log names every operator and pages and filters; the session cookie is
// Secure when a trusted proxy says the console was reached over https.
//
// Clients are told apart by the X-Forwarded-For a trusted proxy sets: the
// servers trust 127.0.0.1 as that proxy, and each browser context sends its own.
import { chromium } from 'playwright-core';
import assert from 'node:assert/strict';
import { spawn, execFile } from 'node:child_process';
import { mkdtempSync, mkdirSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';

const server = process.env.ZSM_SERVER;
const shots = process.env.ZSM_SCREENSHOTS ?? 'screenshots';
const work = mkdtempSync(join(tmpdir(), 'zsm-console-team-'));
const data = join(work, 'server');
mkdirSync(shots, { recursive: true });
const passwords = { alice: 'alice has a long password', ada: 'ada also runs the place', ed: 'ed edits the feeds', vic: 'vic only looks around' };

function step(text) {
  console.log(`- ${text}`);
}

// Runs a zsm-server command with `input` on its standard input.
function command(args, input, env = {}) {
  return new Promise((resolve, reject) => {
    const child = execFile(server, args, { env: { ...process.env, ...env }, timeout: 60000 },
      (error, stdout, stderr) => (error ? reject(new Error(`${args.join(' ')}: ${stderr}`)) : resolve(stdout)));
    child.stdin.end(input);
  });
}

function startServer() {
  const child = spawn(server, ['serve', '--data', data, '--port', '0', '--console-trusted-proxy', '127.0.0.1'],
    { stdio: ['ignore', 'pipe', 'pipe'] });
  let log = '';
  child.stderr.on('data', (d) => { log += d; });
  return new Promise((resolve, reject) => {
    let out = '';
    const timer = setTimeout(() => reject(new Error(`server silent; log:\n${log}`)), 20000);
    child.stdout.on('data', (d) => {
      out += d;
      const m = out.match(/listening on (http:\/\/\S+)/);
      if (m) {
        clearTimeout(timer);
        resolve({ child, url: m[1], log: () => log });
      }
    });
    child.on('exit', (code) => reject(new Error(`server exited ${code}; log:\n${log}`)));
  });
}

// A browser context that is one client: its own address, as a proxy reports it.
async function client(browser, address, extra = {}) {
  const context = await browser.newContext({
    viewport: { width: 1280, height: 860 },
    extraHTTPHeaders: { 'X-Forwarded-For': address, ...extra },
  });
  const page = await context.newPage();
  page.errors = [];
  page.on('pageerror', (e) => page.errors.push(e.message));
  return { context, page };
}

async function signIn(page, url, name, password) {
  await page.goto(`${url}/admin/`);
  await page.locator('#login').waitFor();
  await page.fill('#operator', name);
  await page.fill('#password', password);
  await page.click('#login-form button');
}

async function open(page, url, name) {
  await page.goto(`${url}/admin/#/${name}`);
  await page.locator(`#page[data-page="${name}"]`).waitFor();
}

// A change made from the page's own script, as a hand-made request would be:
// the same session, token and Origin as the page's buttons.
function apiPost(page, route, body) {
  return page.evaluate(async ([route, body]) => {
    const { csrf_token: csrf } = await (await fetch('/admin/api/session')).json();
    const res = await fetch(`/admin/api/${route}`, {
      method: 'POST', headers: { 'Content-Type': 'application/json', 'X-Zsm-Csrf': csrf }, body: JSON.stringify(body),
    });
    return { status: res.status, body: await res.json() };
  }, [route, body]);
}

function apiGet(page, route) {
  return page.evaluate(async (route) => (await fetch(`/admin/api/${route}`)).json(), route);
}

let servers = [];
let browser;
try {
  step('the one console password works until the first operator exists');
  await command(['set-console-password', '--data', data], 'the old shared password\n');
  await assert.rejects(command(['add-operator', 'ed', '--role', 'editor', '--data', data], `${passwords.ed}\n`),
    /first operator must be an administrator/);
  await command(['add-operator', 'alice', '--role', 'administrator', '--data', data], `${passwords.alice}\n`);
  await command(['add-operator', 'ada', '--role', 'administrator', '--data', data], `${passwords.ada}\n`);
  await command(['add-operator', 'ed', '--role', 'editor', '--data', data], `${passwords.ed}\n`);
  await command(['add-operator', 'vic', '--role', 'viewer', '--data', data], `${passwords.vic}\n`);
  await assert.rejects(command(['add-operator', 'vic', '--role', 'viewer', '--data', data], `${passwords.vic}\n`),
    /exists/);
  await command(['add-feed', '--id', 'news', '--title', 'News', '--data', data], '');
  servers = [await startServer(), await startServer()];
  const [url, otherUrl] = servers.map((s) => s.url);
  step(`servers at ${url} and ${otherUrl}, one data folder`);

  browser = await chromium.launch({ executablePath: process.env.ZSM_CHROMIUM ?? '/usr/bin/chromium', headless: true });
  const stranger = await client(browser, '203.0.113.9');
  const alice = await client(browser, '198.51.100.4');
  const ed = await client(browser, '198.51.100.5');
  const vic = await client(browser, '198.51.100.6');

  await signIn(alice.page, url, '', 'the old shared password');
  await alice.page.locator('#login-error', { hasText: 'operator name' }).waitFor();

  step("a stranger's wrong passwords make the stranger wait, longer each time, on either server");
  let refusal = '';
  for (let i = 0; i < 14 && !refusal.includes('try again'); ++i) {
    await signIn(stranger.page, i % 2 ? otherUrl : url, `admin${i}`, `guess ${i}`);
    await stranger.page.locator('#login-error:not(:empty)').waitFor();
    refusal = await stranger.page.locator('#login-error').textContent();
    await stranger.page.fill('#password', '');
  }
  assert.match(refusal, /try again in \d+ s/);
  // Even the right password waits while the stranger is held back.
  const held = await stranger.context.request.post(`${otherUrl}/admin/api/login`,
    { headers: { Origin: otherUrl }, data: { name: 'alice', password: passwords.alice } });
  assert.equal(held.status(), 429);
  assert.ok(Number(held.headers()['retry-after']) >= 1);

  step('meanwhile the operator signs in at once, and the session holds on the other server');
  await signIn(alice.page, url, 'alice', passwords.alice);
  await alice.page.locator('#page[data-page="dashboard"]').waitFor();
  assert.match(await alice.page.locator('#who').textContent(), /alice \(administrator\)/);
  // Cookies are kept per host, not per port: the other server gets the same one.
  const shared = await alice.context.request.get(`${otherUrl}/admin/api/session`);
  assert.equal(shared.status(), 200);
  assert.equal((await shared.json()).operator, 'alice');

  step('the session cookie is Secure when the proxy says https');
  const tls = await client(browser, '198.51.100.7', { 'X-Forwarded-Proto': 'https' });
  const secure = await tls.context.request.post(`${url}/admin/api/login`,
    { headers: { Origin: url }, data: { name: 'vic', password: passwords.vic } });
  assert.equal(secure.status(), 200);
  assert.match(secure.headers()['set-cookie'], /; Secure/);
  const plain = await (await client(browser, '198.51.100.8')).context.request.post(`${url}/admin/api/login`,
    { headers: { Origin: url }, data: { name: 'vic', password: passwords.vic } });
  assert.doesNotMatch(plain.headers()['set-cookie'], /Secure/);

  const ada = await client(browser, '198.51.100.10');
  for (const [who, c] of [['ada', ada], ['ed', ed], ['vic', vic]]) {
    await signIn(c.page, url, who, passwords[who]);
    await c.page.locator('#page[data-page="dashboard"]').waitFor();
  }

  step('two operators edit one feed at once: the later save is refused and reapplied');
  await open(alice.page, url, 'feeds');
  await open(ed.page, url, 'feeds');
  await alice.page.click('button[data-feed="news"]');
  await ed.page.click('button[data-feed="news"]');
  assert.equal(await ed.page.isChecked('#apply-to-subscribers'), false);
  assert.match(await ed.page.locator('label', { has: ed.page.locator('#apply-to-subscribers') }).textContent(),
    /Give the 0 subscribed device\(s\)/);
  await alice.page.fill('#feed-edit [name=title]', 'Harbour News');
  await alice.page.click('#feed-edit button[type=submit]');
  await alice.page.locator('#toast', { hasText: 'Feed news saved' }).waitFor();
  await ed.page.fill('#feed-edit [name=max_assets]', '3');
  await ed.page.click('#feed-edit button[type=submit]');
  const conflict = ed.page.locator('#feed-conflict');
  await conflict.waitFor();
  const conflictText = await conflict.textContent();
  assert.match(conflictText, /Title.*News.*Harbour News/s);
  assert.match(conflictText, /Max items/);
  let feed = (await apiGet(alice.page, 'feeds')).feeds.find((f) => f.id === 'news');
  assert.equal(feed.title, 'Harbour News');
  assert.equal(feed.rules.max_assets, 10, 'the refused save wrote nothing');
  await ed.page.screenshot({ path: join(shots, 'team-conflict-desktop.png'), fullPage: true });
  // The form now holds what is stored with only ed's own change on top.
  assert.equal(await ed.page.inputValue('#feed-edit [name=title]'), 'Harbour News');
  assert.equal(await ed.page.inputValue('#feed-edit [name=max_assets]'), '3');
  await ed.page.click('#feed-reapply');
  await ed.page.locator('#toast', { hasText: 'Feed news saved' }).waitFor();
  feed = (await apiGet(alice.page, 'feeds')).feeds.find((f) => f.id === 'news');
  assert.equal(feed.title, 'Harbour News', "the colleague's title stays");
  assert.equal(feed.rules.max_assets, 3, 'the reapplied change is in');

  step('two administrators edit one account at once: the later save is refused and reapplied');
  assert.equal((await apiPost(alice.page, 'accounts/save', { user: 'harbour' })).status, 200);
  await open(alice.page, url, 'accounts');
  await open(ada.page, url, 'accounts');
  await alice.page.click('button[data-account="harbour"]');
  await ada.page.click('button[data-account="harbour"]');
  await alice.page.fill('#account-edit [name=key]', 'key-from-alice');
  await alice.page.click('#account-edit button[type=submit]');
  await alice.page.locator('#toast', { hasText: 'Account harbour saved' }).waitFor();
  await ada.page.fill('#account-edit [name=key]', 'key-from-ada');
  await ada.page.click('#account-edit button[type=submit]');
  const accountConflict = ada.page.locator('#account-conflict');
  await accountConflict.waitFor();
  assert.match(await accountConflict.textContent(), /Public key.*key-from-alice.*key-from-ada/s);
  const harbour = async () => (await apiGet(alice.page, 'accounts')).accounts.find((a) => a.user === 'harbour');
  assert.equal((await harbour()).key, 'key-from-alice', 'the refused save wrote nothing');
  await ada.page.screenshot({ path: join(shots, 'team-account-conflict-desktop.png'), fullPage: true });
  // The refusal waits for the operator through a redraw of the page.
  await ada.page.waitForTimeout(3500);
  await accountConflict.waitFor();
  await ada.page.click('#account-reapply');
  await ada.page.locator('#toast', { hasText: 'Account harbour saved' }).waitFor();
  assert.equal((await harbour()).key, 'key-from-ada', 'the reapplied change is in');
  await ada.page.locator('#account-conflict').waitFor({ state: 'detached' });
  // Two administrators adding one new account: the second is told, and nothing of theirs is written.
  await ada.page.fill('#account-save [name=user]', 'lobby');
  await ada.page.fill('#account-save [name=key]', 'lobby-key-from-ada');
  assert.equal((await apiPost(alice.page, 'accounts/save', { user: 'lobby', key: 'lobby-key-from-alice' })).status, 200);
  await ada.page.click('#account-save button');
  await ada.page.locator('#account-conflict', { hasText: 'Someone else added this account meanwhile' }).waitFor();
  assert.equal((await apiGet(alice.page, 'accounts')).accounts.find((a) => a.user === 'lobby').key, 'lobby-key-from-alice');

  step('each role is refused what it may not do, in the pages and in the API');
  // A viewer sees no form and no change button anywhere.
  for (const [name, forbidden] of [['feeds', '#feed-create, button[data-feed]'], ['items', '#item-publish, button.danger'],
    ['devices', 'button[data-device]'], ['accounts', '#account-save']]) {
    await open(vic.page, url, name);
    assert.equal(await vic.page.locator(forbidden).count(), 0, `viewer sees ${forbidden} on ${name}`);
  }
  assert.equal(await vic.page.locator('#nav-operators').isHidden(), true);
  await open(ed.page, url, 'accounts');
  assert.equal(await ed.page.locator('#account-save').count(), 0);
  await open(ed.page, url, 'feeds');
  assert.equal(await ed.page.locator('#feed-create').count(), 1);
  const attempts = [
    ['feeds/create', { id: 'sport' }, 'editor'],
    ['items/publish', { feed: 'news', url: 'https://cdn.example/a.mp4', title: 'A' }, 'editor'],
    ['accounts/save', { user: 'kiosk' }, 'administrator'],
    ['operators/save', { name: 'olga', role: 'viewer', password: 'olga password 1' }, 'administrator'],
  ];
  const rank = { vic: 0, ed: 1, alice: 2 };
  const needs = { editor: 1, administrator: 2 };
  for (const [route, body, role] of attempts) {
    for (const [who, c] of [['vic', vic], ['ed', ed], ['alice', alice]]) {
      const reply = await apiPost(c.page, route, body);
      const allowed = rank[who] >= needs[role];
      if (allowed) assert.ok(reply.status === 200 || reply.status === 409, `${who} ${route}: ${JSON.stringify(reply)}`);
      else assert.equal(reply.status, 403, `${who} ${route}: ${JSON.stringify(reply)}`);
    }
  }
  assert.equal((await ed.page.evaluate(async () => (await fetch('/admin/api/operators')).status)), 403);

  step('an administrator manages operators in the page');
  await open(alice.page, url, 'operators');
  await alice.page.locator('#operators-table', { hasText: 'olga' }).waitFor();
  await alice.page.fill('#operator-save [name=name]', 'pat');
  await alice.page.selectOption('#operator-save [name=role]', 'editor');
  await alice.page.fill('#operator-save [name=password]', 'pat has a password');
  await alice.page.click('#operator-save button');
  await alice.page.locator('#operators-table tr', { hasText: 'pat' }).locator('text=editor').waitFor();

  step('two administrators change one operator at once: a stale role never comes back');
  await open(ada.page, url, 'operators');
  await ada.page.click('button[data-operator="pat"]');
  await alice.page.click('button[data-operator="pat"]');
  await alice.page.selectOption('#operator-edit [name=role]', 'viewer');
  await alice.page.click('#operator-edit button[type=submit]');
  await alice.page.locator('#toast', { hasText: 'pat is viewer' }).waitFor();
  // Ada, from the page she opened before, gives pat a new password only.
  await ada.page.fill('#operator-edit [name=password]', 'pat has another password');
  await ada.page.click('#operator-edit button[type=submit]');
  const operatorConflict = ada.page.locator('#operator-conflict');
  await operatorConflict.waitFor();
  assert.match(await operatorConflict.textContent(), /Role.*editor.*viewer.*kept/s);
  await ada.page.click('#operator-reapply');
  await ada.page.locator('#toast', { hasText: 'pat is viewer' }).waitFor();
  const pat = (await apiGet(alice.page, 'operators')).operators.find((o) => o.name === 'pat');
  assert.equal(pat.role, 'viewer', "the colleague's demotion stands");
  const patClient = await client(browser, '198.51.100.11');
  await signIn(patClient.page, url, 'pat', 'pat has another password');
  await patClient.page.locator('#page[data-page="dashboard"]').waitFor();
  assert.match(await patClient.page.locator('#who').textContent(), /pat \(viewer\)/, 'the reapplied password is in');

  step('the audit log names every operator, filters and pages');
  for (let i = 0; i < 12; ++i) {
    await apiPost(ed.page, i % 2 ? 'publishers/revoke' : 'publishers/grant', { feed: 'news', user: 'nobody' });
  }
  await open(vic.page, url, 'audit');
  const whoColumn = async () => vic.page.locator('#audit-table td[data-label="Who"]').allTextContents();
  const firstPage = await vic.page.locator('#audit-table tbody tr').count();
  assert.equal(firstPage, 20);
  assert.equal(await vic.page.isDisabled('#audit-newer'), true);
  await vic.page.click('#audit-older');
  await vic.page.locator('#audit-newer:not([disabled])').waitFor();
  await vic.page.click('#audit-newer');
  await vic.page.locator('#audit-newer[disabled]').waitFor();
  await vic.page.fill('#audit-filter [name=operator]', 'ed');
  await vic.page.selectOption('#audit-filter [name=action]', 'feed.');
  await vic.page.click('#audit-filter button');
  await vic.page.locator('#audit-table', { hasText: 'feed.update' }).waitFor();
  assert.deepEqual([...new Set(await whoColumn())], ['ed']);
  const actions = await vic.page.locator('#audit-table td[data-label="What"]').allTextContents();
  assert.ok(actions.every((a) => a.startsWith('feed.')), actions.join());
  // A time window that ended before anything happened lists nothing.
  await vic.page.fill('#audit-filter [name=to]', '2001-01-01T00:00');
  await vic.page.click('#audit-filter button');
  await vic.page.locator('#audit-table', { hasText: 'No entry matches' }).waitFor();
  const all = await apiGet(alice.page, 'audit?limit=1000');
  const refused = all.entries.filter((e) => e.action === 'login.refused');
  assert.equal(refused.length, 10, JSON.stringify(refused));
  assert.ok(refused.every((e) => e.peer === '203.0.113.9'), JSON.stringify(refused));
  for (const e of all.entries.filter((x) => x.action !== 'login.refused')) {
    assert.ok(e.operator, `entry without operator: ${JSON.stringify(e)}`);
  }
  await vic.page.setViewportSize({ width: 390, height: 844 });
  await vic.page.screenshot({ path: join(shots, 'team-audit-phone.png'), fullPage: true });

  for (const c of [stranger, alice, ed, vic]) assert.deepEqual(c.page.errors, []);
  console.log('console team test passed');
} catch (e) {
  console.error(e);
  for (const s of servers) console.error(`server log:\n${s.log()}`);
  process.exitCode = 1;
} finally {
  await browser?.close();
  for (const s of servers) s.child.kill('SIGTERM');
  rmSync(work, { recursive: true, force: true });
}
