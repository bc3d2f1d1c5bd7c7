// The console's calls to /admin/api/. Reads are GET; changes are POST with a JSON
// body and the session's change token in X-Zsm-Csrf (the cookie that names the
// session is HttpOnly and never visible here).

let csrfToken = '';

export class ApiError extends Error {
  constructor(status, message) {
    super(message);
    this.status = status;
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
  if (!res.ok) throw new ApiError(res.status, data.error || `HTTP ${res.status}`);
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
    csrfToken = (await get('session')).csrf_token;
    return true;
  } catch (e) {
    if (e.status === 401) return false;
    throw e;
  }
}

export async function login(password) {
  csrfToken = (await post('login', { password })).csrf_token;
}

export async function logout() {
  try {
    await post('logout', {});
  } finally {
    csrfToken = '';
  }
}
