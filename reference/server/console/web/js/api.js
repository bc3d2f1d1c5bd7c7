// The console's calls to /admin/api/. Reads are GET; changes are POST with a JSON
// body and the session's change token in X-Zsm-Csrf (the cookie that names the
// session is HttpOnly and never visible here).

let csrfToken = '';
// Who is signed in: { operator, role }; role is viewer, editor or administrator.
export const session = { operator: '', role: 'viewer' };

const ranks = { viewer: 0, editor: 1, administrator: 2 };
// Whether the signed-in operator's role reaches `role`.
export function may(role) {
  return ranks[session.role] >= ranks[role];
}

export class ApiError extends Error {
  constructor(status, message, data = {}) {
    super(message);
    this.status = status;
    this.data = data;
  }
}

async function call(method, route, body) {
  const init = { method, credentials: 'same-origin', headers: {} };
  if (method === 'POST') {
    init.headers['Content-Type'] = 'application/json';
    init.headers['X-Zsm-Csrf'] = csrfToken;
    init.body = JSON.stringify(body ?? {});
  }
  const res = await fetch('/admin/api/' + route, init);
  let data = {};
  try {
    data = await res.json();
  } catch {
    data = { error: `unreadable reply (${res.status})` };
  }
  if (!res.ok) throw new ApiError(res.status, data.error || `HTTP ${res.status}`, data);
  return data;
}

export function get(route, params = {}) {
  const query = new URLSearchParams(Object.entries(params).filter(([, v]) => v !== '' && v != null));
  const text = query.toString();
  return call('GET', text ? `${route}?${text}` : route);
}

export function post(route, body) {
  return call('POST', route, body);
}

// Resumes a session the cookie still names; false when signed out.
export async function resume() {
  try {
    const s = await get('session');
    csrfToken = s.csrf_token;
    session.operator = s.operator;
    session.role = s.role;
    return true;
  } catch (e) {
    if (e.status === 401) return false;
    throw e;
  }
}

export async function login(name, password) {
  csrfToken = (await post('login', name ? { name, password } : { password })).csrf_token;
  await resume();
}

export async function logout() {
  try {
    await post('logout', {});
  } finally {
    csrfToken = '';
  }
}
