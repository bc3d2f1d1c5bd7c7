// The operator's console in Debian's chromium, headless: sign-in refusals, a feed
// and an item made through the pages, a real device (zsm) subscribing and syncing
// and showing up on the devices page, a rule changed in the console reaching the
// device at its next sync, and forged requests refused. What an operator meets
// daily is checked too: a secret the console made up stays shown, the device
// panel stays open under the live timer, no page scrolls sideways at 390 px with
// long keys, URLs and identifiers, controls are labelled, legible and large
// enough, and every page has its own title. Screenshots of every page at desktop
// and phone widths go to $ZSM_SCREENSHOTS.
import { chromium } from 'playwright-core';
import assert from 'node:assert/strict';
import { spawn, execFile } from 'node:child_process';
import { mkdtempSync, mkdirSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { promisify } from 'node:util';

const run = promisify(execFile);
const server = process.env.ZSM_SERVER;
const zsm = process.env.ZSM_CLI;
const shots = process.env.ZSM_SCREENSHOTS ?? 'screenshots';
const password = 'console test password';
const work = mkdtempSync(join(tmpdir(), 'zsm-console-'));
const data = join(work, 'server');
const device = join(work, 'device');
mkdirSync(shots, { recursive: true });

function step(text) {
  console.log(`- ${text}`);
}

async function zsmJson(...args) {
  const { stdout } = await run(zsm, ['--data', device, '--json', '--timeout', '20', ...args],
    { timeout: 60000 });
  return JSON.parse(stdout);
}

// Starts `zsm-server serve` on a free loopback port; resolves with its URL.
function startServer() {
  const child = spawn(server, ['serve', '--data', data, '--port', '0'], { stdio: ['ignore', 'pipe', 'pipe'] });
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

const widths = { desktop: { width: 1280, height: 860 }, phone: { width: 390, height: 844 } };

// Screenshots at both widths; at neither may the page scroll sideways, and every
// check box must be large enough to hit.
async function screenshots(page, name) {
  for (const [label, size] of Object.entries(widths)) {
    await page.setViewportSize(size);
    await page.waitForTimeout(150);
    await page.screenshot({ path: join(shots, `${name}-${label}.png`), fullPage: true });
    const { scroll, client, widest } = await page.evaluate(() => {
      let widest = '';
      let right = 0;
      for (const el of document.querySelectorAll('main *')) {
        const r = el.getBoundingClientRect();
        if (r.right > right) { right = r.right; widest = `${el.tagName}#${el.id}.${el.className}: ${el.textContent.slice(0, 40)}`; }
      }
      return { scroll: document.documentElement.scrollWidth, client: document.documentElement.clientWidth, widest };
    });
    assert.ok(scroll <= client, `${name} at ${label} scrolls sideways: ${scroll} > ${client} px (widest: ${widest})`);
    for (const box of await page.locator('#page input[type=checkbox]').all()) {
      const b = await box.boundingBox();
      if (b) assert.ok(b.width >= 16 && b.height >= 16, `${name} at ${label}: a check box of ${b.width}x${b.height} px`);
    }
  }
  await page.setViewportSize(widths.desktop);
}

// WCAG contrast ratio of two "rgb(r, g, b)" colours.
function contrast(a, b) {
  const lum = (c) => {
    const [r, g, bl] = c.match(/\d+(\.\d+)?/g).slice(0, 3).map(Number).map((v) => {
      const s = v / 255;
      return s <= 0.03928 ? s / 12.92 : ((s + 0.055) / 1.055) ** 2.4;
    });
    return 0.2126 * r + 0.7152 * g + 0.0722 * bl;
  };
  const [x, y] = [lum(a), lum(b)].sort((p, q) => q - p);
  return (x + 0.05) / (y + 0.05);
}

async function open(page, url, name) {
  await page.goto(`${url}/admin/#/${name}`);
  await page.locator(`#page[data-page="${name}"]`).waitFor();
}

let srv;
let browser;
try {
  // A media file to publish, and the console's password, before the server starts.
  mkdirSync(join(data, 'media', 'clips'), { recursive: true });
  writeFileSync(join(data, 'media', 'clips', 'harbour.mp4'), Buffer.alloc(64 * 1024, 7));
  writeFileSync(join(data, 'media', 'clips', 'market.mp4'), Buffer.alloc(48 * 1024, 9));
  await run(server, ['set-console-password', '--data', data],
    { env: { ...process.env, ZSM_CONSOLE_PASSWORD: password } });
  srv = await startServer();
  const url = srv.url;
  step(`server at ${url}`);

  browser = await chromium.launch({ executablePath: process.env.ZSM_CHROMIUM ?? '/usr/bin/chromium', headless: true });
  const context = await browser.newContext({ viewport: widths.desktop });
  const page = await context.newPage();
  const pageErrors = [];
  page.on('pageerror', (e) => pageErrors.push(e.message));

  step('no session: the API refuses, the pages ask for a password');
  assert.equal((await context.request.get(`${url}/admin/api/feeds`)).status(), 401);
  await page.goto(`${url}/admin/`);
  await page.locator('#login').waitFor();
  await screenshots(page, 'login');

  step('a wrong password is refused');
  await page.fill('#password', 'not the password');
  await page.click('#login-form button');
  await page.locator('#login-error', { hasText: 'wrong password' }).waitFor();
  assert.equal(await page.locator('#nav').isHidden(), true);

  step('the right password signs in; the cookie is HttpOnly and SameSite=Strict');
  await page.fill('#password', password);
  await page.click('#login-form button');
  await page.locator('#page[data-page="dashboard"]').waitFor();
  const [cookie] = await context.cookies();
  assert.equal(cookie.name, 'zsm_console');
  assert.equal(cookie.httpOnly, true);
  assert.equal(cookie.sameSite, 'Strict');
  assert.equal(await page.evaluate(() => document.cookie), '');

  step('an account for the device, with a key and a secret the console makes up, both still shown after the page redraws');
  await open(page, url, 'accounts');
  await page.fill('#account-save [name=user]', 'harbour');
  await page.click('#account-save button');
  await page.locator('#toast', { hasText: 'Account harbour saved' }).waitFor();
  await page.waitForTimeout(1000);
  const secret = (await page.locator('#new-secret').textContent({ timeout: 2000 })).trim();
  const deviceKey = (await page.locator('#new-key').textContent({ timeout: 2000 })).trim();
  assert.match(secret, /^[0-9a-f]{48}$/);
  assert.match(deviceKey, /^harbour-[0-9a-f]{16}$/);
  await page.locator('#accounts-table', { hasText: deviceKey }).waitFor();
  await page.click('#secret-noted');
  assert.equal(await page.locator('#new-secret').count(), 0);
  // An account with a long public key, as a real key is.
  const longKey = Buffer.alloc(96, 'kiosk public key material ').toString('base64');
  await page.fill('#account-save [name=user]', 'kiosk');
  await page.fill('#account-save [name=key]', longKey);
  await page.fill('#account-save [name=secret]', 'kiosk secret kiosk secret');
  await page.click('#account-save button');
  await page.locator('#accounts-table', { hasText: 'kiosk' }).waitFor();

  step('a feed');
  await open(page, url, 'feeds');
  await page.fill('#feed-create [name=id]', 'harbour-news');
  await page.fill('#feed-create [name=title]', 'Harbour News');
  await page.fill('#feed-create [name=max_assets]', '5');
  await page.click('#feed-create button');
  await page.locator('#feeds-table', { hasText: 'Harbour News' }).waitFor();

  step('two items from the media folder');
  await open(page, url, 'items');
  for (const [title, file] of [['Harbour at dawn', 'clips/harbour.mp4'], ['Fish market', 'clips/market.mp4']]) {
    await page.selectOption('#item-publish [name=target]', 'feed:harbour-news');
    await page.fill('#item-publish [name=title]', title);
    await page.selectOption('#item-publish [name=media]', file);
    await page.click('#item-publish button');
    await page.locator('#items-table', { hasText: title }).waitFor();
    await page.waitForTimeout(1100);  // distinct creation seconds keep the order plain
  }
  // An item on a CDN with a long address and a 32-digit identifier, for the
  // kiosk (the device here has no network beyond this server).
  await page.selectOption('#item-publish [name=target]', 'user:kiosk');
  await page.fill('#item-publish [name=title]', 'Harbour from the air');
  await page.fill('#item-publish [name=url]',
    'https://media-eu-west-1.cdn.example.net/harbour-news/2026/11/24/aerial/master-playlist-1080p-h264-aac.m3u8');
  await page.fill('#item-publish [name=uuid]', '12345678901234567890123456789012');
  await page.click('#item-publish button');
  await page.locator('#items-table', { hasText: '12345678901234567890123456789012' }).waitFor();

  step("the items page's feed filter has a label");
  assert.equal(await page.getByLabel('Show').getAttribute('id'), 'items-filter');

  step('the device subscribes and syncs');
  await zsmJson('config', '--server', url, '--user', 'harbour', '--key', deviceKey, '--secret', secret);
  const deviceId = (await zsmJson('config')).device_id;
  assert.ok(deviceId);
  await zsmJson('subscribe', 'harbour-news');
  await zsmJson('sync', '--since', '1d', '--watch', '--watch-timeout', '30');
  let feeds = await zsmJson('feeds');
  let feed = feeds.feeds?.find((f) => f.feed === 'harbour-news') ?? feeds.find?.((f) => f.feed === 'harbour-news');
  assert.ok(feed, JSON.stringify(feeds));
  assert.equal(feed.max_items, 5);
  assert.equal(feed.items.length, 2, JSON.stringify(feed));

  step('the device appears on the devices page, subscribed');
  await open(page, url, 'devices');
  const row = page.locator('#devices-table tr', { hasText: deviceId });
  await row.waitFor({ timeout: 10000 });
  await row.locator('.tag', { hasText: 'harbour-news' }).waitFor();
  assert.match(await row.textContent(), /s ago|min ago/);

  step('the Manage panel stays open under the live timer');
  await page.click(`button[data-device="${deviceId}"]`);
  await page.locator('#device-rules').waitFor();
  await page.click('#page h1');  // focus outside any form: the timer would redraw
  await page.waitForTimeout(4000);
  assert.equal(await page.locator('#device-rules').isVisible(), true, 'the Manage panel closed by itself');
  await page.fill('#device-rules [name=max_assets]', '4');
  await page.click('#device-rules button');
  await page.locator('#toast', { hasText: 'Rules set' }).waitFor();
  await page.locator('#devices-table', { hasText: 'harbour-news: max 4' }).waitFor();
  assert.equal(await page.locator('#device-rules').isVisible(), true, 'the panel closed after a change');
  await page.click('#device-panel-close');
  assert.equal(await page.locator('#device-rules').count(), 0);

  step('a rule changed in the console reaches the device at its next sync');
  await open(page, url, 'feeds');
  await page.click('button[data-feed="harbour-news"]');
  // Unticked unless asked, and the box says how many devices a tick changes.
  assert.equal(await page.isChecked('#apply-to-subscribers'), false);
  assert.match(await page.locator('label', { has: page.locator('#apply-to-subscribers') }).textContent(),
    /Give the 1 subscribed device\(s\) these rules too/);
  await page.fill('#feed-edit [name=max_assets]', '1');
  await page.check('#apply-to-subscribers');
  await page.click('#feed-edit button[type=submit]');
  await page.locator('#toast', { hasText: '1 device(s)' }).waitFor();
  await zsmJson('sync');
  feeds = await zsmJson('feeds');
  feed = feeds.feeds?.find((f) => f.feed === 'harbour-news') ?? feeds.find?.((f) => f.feed === 'harbour-news');
  assert.equal(feed.max_items, 1, JSON.stringify(feed));
  assert.equal(feed.rules_from, 'server');
  await open(page, url, 'devices');
  await page.locator('#devices-table', { hasText: 'harbour-news: max 1' }).waitFor();

  step('forged requests are refused');
  // A page of another site posts a form at the console: SameSite keeps the cookie
  // at home, and the Origin names the other site; either refuses it.
  let forged;
  await page.route('http://attacker.test/**', (r) => r.fulfill({
    contentType: 'text/html',
    body: `<form method="post" enctype="text/plain" action="${url}/admin/api/feeds/create">
      <input name='{"id":"forged","x":"' value='"}'></form>
      <script>document.forms[0].submit()</script>`,
  }));
  const forgedReply = page.waitForResponse((r) => r.url().endsWith('/admin/api/feeds/create'));
  await page.goto('http://attacker.test/');
  forged = await forgedReply;
  assert.equal(forged.status(), 403);
  assert.ok(!((await forged.request().allHeaders()).cookie ?? '').includes('zsm_console'),
    'the session cookie went along with a cross-site form');
  // The same with the cookie attached (as a browser without SameSite would): no
  // token, or another site's Origin, is refused all the same.
  for (const headers of [{ Origin: url }, { Origin: 'http://attacker.test', 'X-Zsm-Csrf': 'x'.repeat(64) }]) {
    const reply = await context.request.post(`${url}/admin/api/feeds/create`, { headers, data: { id: 'forged' } });
    assert.equal(reply.status(), 403, JSON.stringify(headers));
  }
  const list = await (await context.request.get(`${url}/admin/api/feeds`)).json();
  assert.deepEqual(list.feeds.map((f) => f.id), ['harbour-news']);

  step('the publisher revoke button is legible');
  await open(page, url, 'feeds');
  await page.click('button[data-feed="harbour-news"]');
  await page.selectOption('#publisher-grant [name=user]', 'harbour');
  await page.click('#publisher-grant button');
  await page.locator('#toast', { hasText: 'harbour may publish' }).waitFor();
  await page.locator('#feeds-table td[data-label="Publishers"]', { hasText: 'harbour' }).waitFor();
  await page.click('button[data-feed="harbour-news"]');
  const revoke = page.locator('button.revoke[aria-label="Revoke harbour"]');
  await revoke.waitFor();
  const [fg, bg] = await revoke.evaluate((el) => {
    let back = el;
    while (back && getComputedStyle(back).backgroundColor.match(/rgba\(0, 0, 0, 0\)|transparent/)) back = back.parentElement;
    return [getComputedStyle(el).color, getComputedStyle(back).backgroundColor];
  });
  assert.ok(contrast(fg, bg) >= 4.5, `revoke × contrast ${contrast(fg, bg).toFixed(2)}:1 (${fg} on ${bg})`);

  step('screenshots of every page, none scrolling sideways; each page has its own title');
  const titles = new Set();
  for (const name of ['dashboard', 'feeds', 'items', 'devices', 'accounts', 'audit']) {
    await open(page, url, name);
    if (name === 'feeds') await page.click('button[data-feed="harbour-news"]');
    if (name === 'devices') await page.click(`button[data-device="${deviceId}"]`);
    await screenshots(page, name);
    titles.add(await page.title());
  }
  assert.equal(titles.size, 6, [...titles].join(' | '));
  await open(page, url, 'dashboard');
  const audit = await page.locator('#audit').textContent();
  for (const action of ['feed.create', 'item.publish', 'feed.update', 'account.create', 'login.refused']) {
    assert.ok(audit.includes(action), `audit log lacks ${action}`);
  }
  assert.ok(Number(await page.locator('#tile-devices .n').textContent()) >= 1);

  step('signing out ends the session');
  await page.click('#logout');
  await page.locator('#login').waitFor();
  assert.equal((await context.request.get(`${url}/admin/api/devices`)).status(), 401);
  assert.deepEqual(pageErrors, []);
  console.log(`console test passed; screenshots in ${shots}`);
} catch (e) {
  console.error(e);
  if (srv) console.error(`server log:\n${srv.log()}`);
  process.exitCode = 1;
} finally {
  await browser?.close();
  srv?.child.kill('SIGTERM');
  rmSync(work, { recursive: true, force: true });
}
