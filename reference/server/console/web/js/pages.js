// The console's pages. Each takes the element to fill and draws itself from the
// API; the app redraws it after every change and, for live pages, every few
// seconds.
import { get, may, post } from './api.js';
import { ago, checkbox, field, formValues, h, options, rulesText, table, toast } from './dom.js';

// Runs a change, reports it, and redraws the page.
async function change(route, body, done, redraw) {
  try {
    const reply = await post(route, body);
    toast(done(reply));
    await redraw();
    return reply;
  } catch (e) {
    toast(e.message, true);
    return null;
  }
}

// What a refused save shows: the fields as the operator opened them, as they
// are now and as the operator wanted them, and the two ways on.
function conflictBox(prefix, headline, rows, reapply, discard) {
  return h('div', { class: 'conflict', id: `${prefix}-conflict`, role: 'alert' },
    h('p', {}, h('strong', {}, headline), ' Nothing of yours was saved. Here is what changed:'),
    table(`${prefix}-conflict-table`, [['Field', (r) => r.field], ['When you opened it', (r) => r.was],
      ['Now', (r) => r.now], ['Yours', (r) => r.mine]], rows, 'No field differs.'),
    h('div', { class: 'row' },
      h('button', { type: 'button', id: `${prefix}-reapply`, onclick: reapply }, 'Reapply my changes to the current version'),
      h('button', { type: 'button', class: 'secondary', onclick: discard }, 'Discard mine')));
}

// Saves an edit made from `base` (null: something new) and keeps it in
// `state[key]`: gone once saved; after a refusal because someone changed or
// added the thing meanwhile, what is there now beside the operator's `mine`,
// which survives redraws until they reapply or discard it.
async function saveVersioned(route, body, base, mine, { state, key, done, redraw, draw }) {
  if (base) body.version = base.version;
  try {
    const r = await post(route, body);
    state[key] = null;
    toast(done(r));
    await redraw();
  } catch (e) {
    if (e.status === 409 && e.data.current) {
      state[key] = { base: e.data.current, mine, theirs: base };
      draw();
    }
    toast(e.message, true);
  }
}

function rulesInputs(r = { max_assets: 10, auto_delete: true, max_bitrate: 0 }) {
  return [
    field('Max items', h('input', { name: 'max_assets', type: 'number', min: 0, max: 100000, value: r.max_assets, required: true })),
    field('Max bit rate (0: any)', h('input', { name: 'max_bitrate', type: 'number', min: 0, value: r.max_bitrate })),
    checkbox('Delete old items automatically', { name: 'auto_delete', checked: r.auto_delete }),
  ];
}

export async function dashboard(root, redraw) {
  const [figures, audit] = await Promise.all([get('figures'), get('audit', { limit: 15 })]);
  const s = figures.store;
  const tile = (n, label, id) => h('div', { class: 'tile', id }, h('div', { class: 'n' }, n), h('div', { class: 'l' }, label));
  const minutes = figures.minutes;
  const perMinute = minutes.map((m) => Object.values(m.requests).reduce((a, b) => a + b, 0));
  const peak = Math.max(1, ...perMinute);
  const bars = minutes.map((m, i) => {
    const bar = h('div', { class: m.errors ? 'err' : null, title: `${new Date(m.minute_ms).toLocaleTimeString()}: ${perMinute[i]} requests, ${m.errors} errors` });
    bar.style.height = `${(100 * perMinute[i]) / peak}%`;
    return bar;
  });
  const lastMinute = minutes.at(-1);
  const endpoints = Object.entries(figures.totals).map(([name, t]) => ({ name, ...t, now: lastMinute.requests[name] ?? 0 }));
  root.replaceChildren(
    h('h1', {}, 'Dashboard'),
    h('div', { class: 'tiles' },
      tile(s.feeds, 'feeds', 'tile-feeds'), tile(s.feed_items, 'feed items', 'tile-items'),
      tile(s.devices, 'devices', 'tile-devices'), tile(s.devices_seen_last_hour, 'seen in the last hour', 'tile-active'),
      tile(s.accounts, 'accounts', 'tile-accounts')),
    h('section', { class: 'card' }, h('h2', {}, 'Requests per minute, last hour'), h('div', { class: 'chart', id: 'chart' }, bars)),
    h('section', { class: 'card' }, h('h2', {}, 'By endpoint since ', new Date(figures.since_ms).toLocaleString()),
      table('endpoints', [
        ['Endpoint', (e) => e.name], ['This minute', (e) => e.now], ['Requests', (e) => e.requests],
        ['Errors', (e) => e.errors], ['Signature refusals', (e) => e.signature_refusals]],
      endpoints, 'No requests yet.')),
    // Every server sharing the store adds its counts every few seconds.
    h('section', { class: 'card' }, h('h2', {}, 'By server'),
      table('nodes', [
        ['Server', (n) => n.name], ['Last hour', (n) => n.last_hour_requests], ['Requests', (n) => n.requests],
        ['Errors', (n) => n.errors], ['Last counted', (n) => (n.last_minute_ms ? ago(n.last_minute_ms) : '-')]],
      Object.entries(figures.nodes ?? {}).map(([name, n]) => ({ name, ...n })), 'No server has counted requests yet.')),
    h('section', { class: 'card' }, h('div', { class: 'row' }, h('h2', {}, 'Recent changes'), h('a', { href: '#/audit' }, 'Whole audit log')),
      table('audit', [
        ['When', (e) => ago(e.at_ms)], ['Who', (e) => e.operator || '—'], ['What', (e) => e.action],
        ['Concerning', (e) => e.target], ['From', (e) => e.peer]],
      audit.entries, 'No changes recorded.')));
}

export async function feeds(root, redraw) {
  const [{ feeds: list }, { accounts }] = await Promise.all([get('feeds'), get('accounts')]);
  const users = accounts.map((a) => [a.user, a.user]);
  const createForm = h('form', { class: 'grid', id: 'feed-create' },
    field('Identifier', h('input', { name: 'id', required: true, maxlength: 128, autocapitalize: 'off' })),
    field('Title', h('input', { name: 'title', maxlength: 512 })),
    ...rulesInputs(),
    checkbox('Devices may subscribe', { name: 'subscribable', checked: true }),
    h('button', { type: 'submit' }, 'Create feed'));
  createForm.addEventListener('submit', async (ev) => {
    ev.preventDefault();
    const v = formValues(createForm);
    await change('feeds/create', v, () => `Feed ${v.id} created`, redraw);
  });

  const editor = h('div', { id: 'feed-editor' });
  // `base` is the feed as the form was opened; a save carries its version, and a
  // save refused because someone saved meanwhile shows both sides.
  const edit = (base, mine = null, theirs = null) => {
    const stored = { title: base.title, subscribable: base.subscribable, ...base.rules };
    const changedFields = (from, values) => Object.fromEntries(
      ['title', 'subscribable', 'max_assets', 'auto_delete', 'max_bitrate']
        .filter((k) => k in values && values[k] !== (k in from ? from[k] : from.rules[k]))
        .map((k) => [k, values[k]]));
    // After a refusal the form holds what is stored now with this operator's own
    // changes on top, so that saving it reapplies them and nothing else.
    const shown = theirs ? { ...stored, ...changedFields(theirs, mine) } : stored;
    const form = h('form', { class: 'grid', id: 'feed-edit' },
      field('Title', h('input', { name: 'title', value: shown.title, maxlength: 512 })),
      ...rulesInputs(shown),
      checkbox('Devices may subscribe', { name: 'subscribable', checked: shown.subscribable }),
      checkbox(`Give the ${base.subscribers} subscribed device(s) these rules too`,
        { name: 'apply_to_subscribers', checked: Boolean(mine?.apply_to_subscribers), id: 'apply-to-subscribers' }),
      h('button', { type: 'submit' }, 'Save'));
    const save = async (values, version) => {
      const { apply_to_subscribers: apply, ...fields } = values;
      const body = { id: base.id, version, apply_to_subscribers: apply,
        ...fields };
      try {
        const r = await post('feeds/update', body);
        toast(`Feed ${base.id} saved` + (apply ? `; ${r.devices_updated} device(s) get the new rules at their next sync` : ''));
        editor.replaceChildren();
        await redraw();
      } catch (e) {
        if (e.status === 409 && e.data.current) {
          edit({ ...base, ...e.data.current, subscribers: base.subscribers }, values, base);
          toast(e.message, true);
        } else {
          toast(e.message, true);
        }
      }
    };
    form.addEventListener('submit', (ev) => {
      ev.preventDefault();
      save(formValues(form), base.version);
    });
    let conflict = null;
    if (theirs) {
      // `theirs` is what this operator started from; `base` is what is stored now.
      const label = { title: 'Title', subscribable: 'Devices may subscribe', max_assets: 'Max items', auto_delete: 'Delete old items', max_bitrate: 'Max bit rate' };
      const value = (f, k) => String(k in f ? f[k] : f.rules[k]);
      const yours = (k) => (k in mine ? String(mine[k]) : value(theirs, k));
      const rows = Object.keys(label).filter((k) => value(theirs, k) !== value(base, k) || yours(k) !== value(theirs, k))
        .map((k) => ({ field: label[k], was: value(theirs, k), now: value(base, k), mine: yours(k) }));
      const mineChanged = changedFields(theirs, mine);
      conflict = conflictBox('feed', 'Someone else saved this feed after you opened it.', rows,
        () => save({ ...mineChanged, apply_to_subscribers: mine.apply_to_subscribers }, base.version),
        () => edit(base));
    }
    const grant = h('form', { class: 'grid', id: 'publisher-grant' },
      field('Account', h('select', { name: 'user' }, options(users))),
      h('button', { type: 'submit', class: 'secondary' }, 'Let publish'));
    grant.addEventListener('submit', async (ev) => {
      ev.preventDefault();
      const { user } = formValues(grant);
      await change('publishers/grant', { feed: base.id, user }, () => `${user} may publish into ${base.id}`, redraw);
    });
    editor.replaceChildren(h('section', { class: 'card' },
      h('h2', {}, `Edit ${base.id}`), conflict, form,
      h('h2', {}, 'Publishers'),
      h('p', {}, base.publishers.length ? base.publishers.map((u) => h('span', { class: 'tag' }, u,
        ' ', h('button', { type: 'button', class: 'revoke', title: `revoke ${u}`, 'aria-label': `Revoke ${u}`, onclick: () => change('publishers/revoke', { feed: base.id, user: u }, () => `${u} no longer publishes ${base.id}`, redraw) }, '×'))) : h('span', { class: 'muted' }, 'None.')),
      grant));
    editor.scrollIntoView({ behavior: 'smooth' });
  };

  root.replaceChildren(
    h('h1', {}, 'Feeds'),
    h('section', { class: 'card' },
      table('feeds-table', [
        ['Feed', (f) => h('strong', {}, f.id)], ['Title', (f) => f.title],
        ['Subscribable', (f) => h('span', { class: f.subscribable ? 'tag ok' : 'tag off' }, f.subscribable ? 'yes' : 'no')],
        ['Rules', (f) => rulesText(f.rules)], ['Items', (f) => f.items], ['Subscribers', (f) => f.subscribers],
        ['Publishers', (f) => f.publishers.join(', ') || '—'],
        ['', (f) => (may('editor') ? h('button', { type: 'button', class: 'secondary', 'data-feed': f.id, onclick: () => edit(f) }, 'Edit') : '')]],
      list, 'No feeds yet: create one below.')),
    editor,
    may('editor') ? h('section', { class: 'card' }, h('h2', {}, 'New feed'), createForm) : null);
}

export async function items(root, redraw, state) {
  const [{ feeds: feedList }, { accounts }, { files }] = await Promise.all([get('feeds'), get('accounts'), get('media')]);
  state.feed ??= '';
  const { items: list } = await get('items', { feed: state.feed, limit: 200 });
  const filter = h('label', { class: 'inline' }, 'Show',
    h('select', { id: 'items-filter', onchange: (ev) => { state.feed = ev.target.value; redraw(); } },
      options([['', 'All items'], ...feedList.map((f) => [f.id, `feed ${f.id}`])], state.feed)));
  const target = [...feedList.filter((f) => f.subscribable).map((f) => [`feed:${f.id}`, `feed ${f.id}`]),
    ...accounts.map((a) => [`user:${a.user}`, `direct item for ${a.user}`])];
  const form = h('form', { class: 'grid', id: 'item-publish' },
    field('Publish to', h('select', { name: 'target', required: true }, options(target, state.feed ? `feed:${state.feed}` : undefined))),
    field('Title', h('input', { name: 'title', required: true, maxlength: 1024 })),
    field('File in the media folder', h('select', { name: 'media' }, options([['', '— or give a URL —'], ...files.map((f) => [f.path, f.path])]))),
    field('or URL', h('input', { name: 'url', type: 'url', placeholder: 'https://…' })),
    field('Description', h('input', { name: 'desc' })),
    field('Identifier (empty: made up)', h('input', { name: 'uuid', maxlength: 256, autocapitalize: 'off' })),
    h('button', { type: 'submit' }, 'Publish'));
  form.addEventListener('submit', async (ev) => {
    ev.preventDefault();
    const v = formValues(form);
    const [kind, ...rest] = v.target.split(':');
    const body = { title: v.title, desc: v.desc, uuid: v.uuid || null, media: v.media || null, url: v.url || null };
    body[kind === 'feed' ? 'feed' : 'user'] = rest.join(':');
    await change('items/publish', body, (r) => `Published ${r.uuid}; ${r.notified_devices} device(s) notified`, redraw);
  });
  root.replaceChildren(
    h('h1', {}, 'Items'),
    may('editor') ? h('section', { class: 'card' }, h('h2', {}, 'Publish an item'), form) : null,
    h('section', { class: 'card' },
      h('div', { class: 'row' }, h('h2', {}, 'Published'), filter),
      table('items-table', [
        ['Item', (i) => h('strong', {}, i.metadata.title || i.uuid)], ['Identifier', (i) => i.uuid],
        ['In', (i) => (i.feed ? `feed ${i.feed}` : `direct for ${i.user}`)],
        ['Source', (i) => i.media || i.metadata.downloadURL || ''], ['Created', (i) => ago(i.created_ms)],
        ['', (i) => !may('editor') ? '' : h('button', { type: 'button', class: 'danger', onclick: () => {
          if (confirm(`Remove ${i.uuid}? Devices that have it keep their copy until their rules delete it.`)) {
            change('items/remove', { uuid: i.uuid }, () => `Removed ${i.uuid}`, redraw);
          }
        } }, 'Remove')]],
      list, 'No items.')));
}

export async function devices(root, redraw, state) {
  const [{ devices: list }, { feeds: feedList }, { items: recent }, { pushes }] = await Promise.all([
    get('devices'), get('feeds'), get('items', { limit: 50 }), get('pushes', { all: 1, limit: 20 })]);
  const panel = h('div', { id: 'device-panel' });
  // The rules shown are the ones the device's catalog reports for the chosen
  // feed; a save carries their version.
  const open = (d, chosen = null) => {
    const choices = d.subscriptions.length ? d.subscriptions : feedList.map((f) => f.id);
    const feed = choices.includes(chosen) ? chosen : choices[0];
    const defaults = feedList.find((f) => f.id === feed);
    const current = d.rules[feed] ?? defaults?.rules;
    const version = d.rules_versions[feed] ?? defaults?.rules_version;
    const rules = h('form', { class: 'grid', id: 'device-rules' },
      field('Feed', h('select', { name: 'feed', onchange: (ev) => open(d, ev.target.value) }, options(choices.map((f) => [f, f]), feed))),
      ...rulesInputs(current),
      h('button', { type: 'submit' }, 'Set rules'));
    rules.addEventListener('submit', async (ev) => {
      ev.preventDefault();
      await change('devices/rules', { user: d.user, device: d.device, version, ...formValues(rules) },
        () => `Rules set for ${d.device}; they apply at its next sync`, redraw);
    });
    const push = h('form', { class: 'grid', id: 'device-push' },
      field('Item', h('select', { name: 'item' }, options(recent.map((i) => [i.uuid, `${i.metadata.title || i.uuid} (${i.uuid})`])))),
      h('button', { type: 'submit', class: 'secondary' }, 'Send push notice'));
    push.addEventListener('submit', async (ev) => {
      ev.preventDefault();
      await change('devices/push', { user: d.user, device: d.device, ...formValues(push) },
        (r) => `Push notice ${r.notice.id} recorded for ${d.device}`, redraw);
    });
    // The page is not redrawn by the live timer while a device is being managed.
    state.hold = { user: d.user, device: d.device, feed };
    const close = h('button', { type: 'button', class: 'secondary', id: 'device-panel-close', onclick: () => {
      state.hold = null;
      panel.replaceChildren();
    } }, 'Close');
    panel.replaceChildren(h('section', { class: 'card' },
      h('div', { class: 'row' }, h('h2', {}, `${d.user} / ${d.device}`), close),
      h('p', { class: 'muted' }, 'Live updates of this page pause while this panel is open.'),
      rules, h('h2', {}, 'Push'), push));
  };
  root.replaceChildren(
    h('h1', {}, 'Devices'),
    h('section', { class: 'card' },
      table('devices-table', [
        ['Device', (d) => h('strong', {}, d.device)], ['Account', (d) => d.user],
        ['Last seen', (d) => ago(d.last_seen_ms)],
        ['Subscriptions', (d) => d.subscriptions.length ? d.subscriptions.map((f) => h('span', { class: 'tag', title: d.rules[f] ? rulesText(d.rules[f]) : '' }, f)) : '—'],
        ['Rules', (d) => Object.entries(d.rules).map(([f, r]) => h('div', {}, `${f}: ${rulesText(r)}`))],
        ['Push', (d) => `${d.push_service || 'no token'}, ${d.pending_pushes} pending`],
        ['', (d) => (may('editor') ? h('button', { type: 'button', class: 'secondary', 'data-device': d.device, onclick: () => open(d) }, 'Manage') : '')]],
      list, 'No device has called yet.')),
    panel,
    h('section', { class: 'card' }, h('h2', {}, 'Recent push notices'),
      table('pushes-table', [
        ['Device', (p) => `${p.user}/${p.device}`], ['Item', (p) => p.item], ['Feed', (p) => p.feed || 'direct'],
        ['When', (p) => ago(p.created_ms)], ['Delivered', (p) => (p.delivered ? 'yes' : 'pending')]],
      pushes, 'No push notices.')));
  // A redraw (after a change, or on coming back) keeps the device open.
  const held = state.hold && list.find((d) => d.user === state.hold.user && d.device === state.hold.device);
  if (held) open(held, state.hold.feed);
  else state.hold = null;
}

export async function accounts(root, redraw, state) {
  const { accounts: list } = await get('accounts');
  // A secret the console made up is shown until the operator says it is noted:
  // redrawing the page after the save must not take it away.
  const shown = h('div', { id: 'account-secret' });
  const showSecret = () => {
    const r = state.revealed;
    if (!r) {
      shown.replaceChildren();
      return;
    }
    shown.replaceChildren(h('section', { class: 'card' }, h('h2', {}, `Secret of ${r.user}`),
      h('p', {}, 'Shown this once: give it to the devices of this account.'),
      h('p', {}, 'Key ', h('span', { class: 'secret', id: 'new-key' }, r.key)),
      h('p', {}, 'Secret ', h('span', { class: 'secret', id: 'new-secret' }, r.secret)),
      h('button', { type: 'button', class: 'secondary', id: 'secret-noted', onclick: () => { state.revealed = null; showSecret(); } }, 'I have noted it')));
  };
  const reveal = (r) => {
    if (r.secret) {
      state.revealed = { user: r.user, key: r.key, secret: r.secret };
      showSecret();
    }
    return `Account ${r.user} saved`;
  };

  // An edit starts from the account as listed (`base`, with its version) or
  // from nothing (a new account). A save refused because someone changed or
  // made the account meanwhile keeps the operator's values (`mine`) beside
  // what is stored now, until they reapply or discard them; the live redraw
  // keeps all of it.
  const editor = h('div', { id: 'account-editor' });
  const save = async (base, mine) => {
    const body = { user: base ? base.user : mine.user, key: mine.key || null, secret: mine.secret || null };
    if (mine.new_secret) body.new_secret = true;
    await saveVersioned('accounts/save', body, base, { ...mine, user: body.user },
      { state, key: 'accountEdit', done: reveal, redraw, draw: () => drawEditor() });
  };
  const drawEditor = () => {
    const edit = state.accountEdit;
    if (!edit) {
      editor.replaceChildren();
      return;
    }
    const { base, mine, theirs } = edit;
    let conflict = null;
    if (mine) {
      const yoursKey = mine.key || 'kept';
      const yoursSecret = mine.secret ? 'yours, typed' : mine.new_secret ? 'a new one made up' : 'kept';
      const rows = [
        { field: 'Public key', was: theirs ? theirs.key : '(no account)', now: base.key, mine: yoursKey },
        { field: 'Secret', was: theirs ? 'as you saw it' : '(no account)', now: theirs && theirs.key === base.key ? 'changed' : 'unknown to you', mine: yoursSecret },
      ];
      conflict = conflictBox('account', theirs ? 'Someone else changed this account after you opened it.' : 'Someone else added this account meanwhile.',
        rows, () => save(base, mine), () => { state.accountEdit = { base }; drawEditor(); });
    }
    const form = h('form', { class: 'grid', id: 'account-edit' },
      field('Public key (empty: keep it)', h('input', { name: 'key', value: mine?.key || base.key, maxlength: 512, autocapitalize: 'off' })),
      field('Secret (empty: keep it)', h('input', { name: 'secret', type: 'password', maxlength: 512, autocomplete: 'new-password' })),
      h('div', { class: 'row' },
        h('button', { type: 'submit' }, 'Save'),
        h('button', { type: 'button', class: 'secondary', onclick: () => { state.accountEdit = null; drawEditor(); } }, 'Close')));
    form.addEventListener('submit', (ev) => {
      ev.preventDefault();
      const v = formValues(form);
      save(base, { key: v.key === base.key ? '' : v.key, secret: v.secret });
    });
    editor.replaceChildren(h('section', { class: 'card' }, h('h2', {}, `Edit ${base.user}`), conflict, form));
  };

  const form = h('form', { class: 'grid', id: 'account-save' },
    field('User', h('input', { name: 'user', required: true, maxlength: 128, autocapitalize: 'off' })),
    field('Public key (empty: made up)', h('input', { name: 'key', maxlength: 512, autocapitalize: 'off' })),
    field('Secret (empty: made up)', h('input', { name: 'secret', type: 'password', maxlength: 512, autocomplete: 'new-password' })),
    h('button', { type: 'submit' }, 'Add account'));
  form.addEventListener('submit', async (ev) => {
    ev.preventDefault();
    const v = formValues(form);
    await save(null, { user: v.user, key: v.key, secret: v.secret });
  });
  showSecret();
  // A redraw shows the open edit as it was, on the account as it is listed now
  // unless a refusal is waiting for the operator.
  if (state.accountEdit && !state.accountEdit.mine) {
    const now = list.find((a) => a.user === state.accountEdit.base.user);
    state.accountEdit = now ? { base: now } : null;
  }
  drawEditor();
  const admin = may('administrator');
  root.replaceChildren(
    h('h1', {}, 'Accounts'),
    shown,
    h('section', { class: 'card' },
      table('accounts-table', [
        ['Account', (a) => h('strong', {}, a.user)], ['Public key', (a) => a.key], ['Devices', (a) => a.devices],
        ['', (a) => !admin ? '' : h('div', { class: 'row' },
          h('button', { type: 'button', class: 'secondary', 'data-account': a.user, onclick: () => { state.accountEdit = { base: a }; drawEditor(); editor.scrollIntoView({ behavior: 'smooth' }); } }, 'Edit'),
          h('button', { type: 'button', class: 'secondary', onclick: () => {
            if (confirm(`Give ${a.user} a new secret? Its devices stop being accepted until they get it.`)) {
              save(a, { new_secret: true });
            }
          } }, 'New secret'))]],
      list, 'No accounts.')),
    editor,
    admin ? h('section', { class: 'card' }, h('h2', {}, 'Add an account'), form) : null);
}

const kinds = [['', 'Any change'], ['feed.', 'Feeds'], ['publisher.', 'Publishers'], ['item.', 'Items'],
  ['device.', 'Devices'], ['account.', 'Accounts'], ['operator.', 'Operators'], ['login', 'Sign-ins'],
  ['login.refused', 'Refused sign-ins'], ['logout', 'Sign-outs'], ['console.password', 'Console password']];

// Milliseconds since 1970 of a datetime-local value; '' when empty.
function localMs(value) {
  return value ? String(new Date(value).getTime()) : '';
}

export async function audit(root, redraw, state) {
  state.query ??= { operator: '', action: '', from: '', to: '' };
  state.pages ??= [];  // the `before` of each page shown before this one
  state.before ??= '';
  const q = state.query;
  const page = await get('audit', {
    limit: 20, before: state.before, operator: q.operator, action: q.action,
    from: localMs(q.from), to: localMs(q.to),
  });
  const filters = h('form', { class: 'grid', id: 'audit-filter' },
    field('Operator', h('input', { name: 'operator', value: q.operator, autocapitalize: 'off', spellcheck: 'false' })),
    field('Kind of change', h('select', { name: 'action' }, options(kinds, q.action))),
    field('From', h('input', { name: 'from', type: 'datetime-local', value: q.from })),
    field('Until', h('input', { name: 'to', type: 'datetime-local', value: q.to })),
    h('button', { type: 'submit' }, 'Show'));
  filters.addEventListener('submit', (ev) => {
    ev.preventDefault();
    state.query = formValues(filters);
    state.pages = [];
    state.before = '';
    redraw();
  });
  const newer = h('button', { type: 'button', class: 'secondary', id: 'audit-newer', disabled: state.pages.length === 0,
    onclick: () => { state.before = state.pages.pop() ?? ''; redraw(); } }, 'Newer');
  const older = h('button', { type: 'button', class: 'secondary', id: 'audit-older', disabled: !page.more,
    onclick: () => { state.pages.push(state.before); state.before = String(page.next_before); redraw(); } }, 'Older');
  root.replaceChildren(
    h('h1', {}, 'Audit log'),
    h('section', { class: 'card' }, h('h2', {}, 'Filter'), filters),
    h('section', { class: 'card' },
      table('audit-table', [
        ['When', (e) => new Date(e.at_ms).toLocaleString()], ['Who', (e) => e.operator || '—'],
        ['What', (e) => e.action], ['Concerning', (e) => e.target], ['From', (e) => e.peer],
        ['Details', (e) => (Object.keys(e.details).length ? h('code', { class: 'details' }, JSON.stringify(e.details)) : '')]],
      page.entries, 'No entry matches.'),
      h('div', { class: 'row pager' }, newer, h('span', { class: 'muted' }, `page ${state.pages.length + 1}`), older)));
}

export async function operators(root, redraw, state) {
  if (!may('administrator')) {
    root.replaceChildren(h('h1', {}, 'Operators'), h('p', { class: 'muted' }, 'Only an administrator manages operators.'));
    return;
  }
  const { operators: list } = await get('operators');
  const roles = [['viewer', 'viewer: reads only'], ['editor', 'editor: feeds, items, devices'], ['administrator', 'administrator: also accounts and operators']];

  // As for accounts: a change starts from the operator as listed and carries
  // their version; a refusal shows what changed and offers to reapply.
  const editor = h('div', { id: 'operator-editor' });
  const save = async (base, mine) => {
    // A role left as it was shown is not sent back over a colleague's change.
    const body = { name: base ? base.name : mine.name, role: mine.role ?? base.role, password: mine.password || null };
    await saveVersioned('operators/save', body, base, { ...mine, name: body.name },
      { state, key: 'operatorEdit', done: (r) => `${r.name} is ${r.role}`, redraw, draw: () => drawEditor() });
  };
  const drawEditor = () => {
    const edit = state.operatorEdit;
    if (!edit) {
      editor.replaceChildren();
      return;
    }
    const { base, mine, theirs } = edit;
    let conflict = null;
    if (mine) {
      const rows = [
        { field: 'Role', was: theirs ? theirs.role : '(no operator)', now: base.role, mine: mine.role ?? 'kept' },
        { field: 'Password', was: theirs ? 'as you saw it' : '(no operator)', now: theirs && theirs.role === base.role ? 'changed' : 'unknown to you', mine: mine.password ? 'a new one' : 'kept' },
      ];
      conflict = conflictBox('operator', theirs ? 'Someone else changed this operator after you opened it.' : 'Someone else added this operator meanwhile.',
        rows, () => save(base, mine), () => { state.operatorEdit = { base }; drawEditor(); });
    }
    const form = h('form', { class: 'grid', id: 'operator-edit' },
      field('Role', h('select', { name: 'role' }, options(roles, mine?.role || base.role))),
      field('Password (empty: keep)', h('input', { name: 'password', type: 'password', minlength: 8, autocomplete: 'new-password' })),
      h('div', { class: 'row' },
        h('button', { type: 'submit' }, 'Save'),
        h('button', { type: 'button', class: 'secondary', onclick: () => { state.operatorEdit = null; drawEditor(); } }, 'Close')));
    form.addEventListener('submit', (ev) => {
      ev.preventDefault();
      const v = formValues(form);
      save(base, { role: v.role !== base.role ? v.role : undefined, password: v.password });
    });
    editor.replaceChildren(h('section', { class: 'card' }, h('h2', {}, `Change ${base.name}`), conflict, form));
  };
  if (state.operatorEdit && !state.operatorEdit.mine) {
    const now = list.find((o) => o.name === state.operatorEdit.base.name);
    state.operatorEdit = now ? { base: now } : null;
  }
  drawEditor();

  const form = h('form', { class: 'grid', id: 'operator-save' },
    field('Name', h('input', { name: 'name', required: true, maxlength: 128, autocapitalize: 'off' })),
    field('Role', h('select', { name: 'role' }, options(roles, 'viewer'))),
    field('Password', h('input', { name: 'password', type: 'password', minlength: 8, required: true, autocomplete: 'new-password' })),
    h('button', { type: 'submit' }, 'Add operator'));
  form.addEventListener('submit', async (ev) => {
    ev.preventDefault();
    const v = formValues(form);
    await save(null, { name: v.name, role: v.role, password: v.password });
  });
  root.replaceChildren(
    h('h1', {}, 'Operators'),
    h('section', { class: 'card' },
      table('operators-table', [
        ['Operator', (o) => h('strong', {}, o.name)], ['Role', (o) => o.role], ['Since', (o) => ago(o.created_ms)],
        ['', (o) => h('div', { class: 'row' },
          h('button', { type: 'button', class: 'secondary', 'data-operator': o.name, onclick: () => { state.operatorEdit = { base: o }; drawEditor(); editor.scrollIntoView({ behavior: 'smooth' }); } }, 'Change'),
          h('button', { type: 'button', class: 'danger', onclick: () => {
            if (confirm(`Remove ${o.name}? Their sessions end at once.`)) {
              change('operators/remove', { name: o.name }, () => `${o.name} removed`, redraw);
            }
          } }, 'Remove'))]],
      list, 'No operators: the console signs in with its one password.')),
    editor,
    h('section', { class: 'card' }, h('h2', {}, 'Add an operator'), form));
}
