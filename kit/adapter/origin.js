// Asks the origins, through locations of adapter.conf that take a URL as their arguments, so that
// several can be asked at once.
import urls from 'url.js';

const HOST = /^([a-z0-9._-]+|\[[0-9a-f:.]+\])(:[0-9]+)?$/;
const HOPS = 5; // redirections
// weir makes 6 requests without a pause if it is answered with an error. Three tries for each of
// them outlast an origin that is away for 10 s, and end before weir's patience, which is 6 s.
const TRIES = 3;
const PAUSE = 1000; // ms before the next try
const LONGEST = 2500; // ms after which there is no other
const MOST_KEPT = 86400; // s

function checkListed(r, url) {
  const listed = HOST.test(url.host) && r.variables.weir_origins.trim().split(/\s+/).some(
    (origin) => origin.startsWith('*.') ? url.host.endsWith(origin.slice(1)) : url.host === origin);
  if (!listed) {
    throw urls.refusal(`not a listed origin: ${url.host}`, 403);
  }
}

function pause() {
  return new Promise((resolve) => {
    setTimeout(resolve, PAUSE);
  });
}

// A HEAD is not tried again, since a GET follows.
async function ask(r, url, location, method) {
  const began = Date.now();
  for (let left = method === 'HEAD' ? 1 : TRIES; ; left--) {
    const reply = await r.subrequest(location, { method, args: urls.text(url) });
    const away = reply.status >= 502 && reply.status <= 504;
    if (!away || left === 1 || Date.now() - began > LONGEST) {
      return reply;
    }
    await pause();
  }
}

// The reply of the origin, a 200 or 304, and the URL that it came from.
async function fetch(r, url, location, method) {
  for (let hop = 0; hop < HOPS; hop++) {
    checkListed(r, url);
    const reply = await ask(r, url, location, method || 'GET');
    const moved = reply.headersOut.Location;
    if (reply.status < 300 || reply.status === 304) {
      return { url, reply };
    }
    if (reply.status >= 400 || !moved) {
      const status = reply.status >= 400 ? reply.status : 502;
      const reason = await reasonOf(r, url, reply);
      throw urls.refusal(reason ? `${reason}: ${urls.text(url)}` : `${reply.status} from ${urls.text(url)}`, status);
    }
    url = urls.resolve(url, moved);
  }
  throw urls.refusal(`redirected too often: ${urls.text(url)}`);
}

// Why there was no answer; empty if there was one. A certificate is at fault if the host answers
// when none is asked for: with nothing but the path "/", which gives nothing away.
async function reasonOf(r, url, reply) {
  const variables = reply.variables, host = url.host;
  if (!variables.upstream_addr) {
    return `the name ${host} can't be resolved`;
  }
  if (parseInt(variables.upstream_header_time) >= 0 || reply.status < 502) {
    return '';
  }
  if (reply.status === 504) {
    return `${host} does not answer in time`;
  }
  if (variables.upstream_bytes_sent !== '0') {
    return `${host} closes the connection without an answer`;
  }
  const probe = url.scheme === 'https'
    ? await r.subrequest('/unverified', { method: 'HEAD', args: `https://${host}/` }) : reply;
  return probe.status === 502 ? `${host} refuses connections` : `no trusted certificate of ${host}`;
}

// Like fetch(), of a whole document. An origin may compress although it was asked not to.
async function fetchWhole(r, url, location) {
  const got = await fetch(r, url, location);
  return got.reply.headersOut['Content-Encoding'] === 'gzip' ? fetch(r, got.url, '/unpacked') : got;
}

// Seconds for which nginx may keep a segment without asking the origin again, as the origin says;
// undefined if it says nothing. Never 0: those who ask at the same time share an answer.
function freshness(headers) {
  const control = String(headers['Cache-Control'] || '').toLowerCase();
  const age = /s-maxage="?(\d+)/.exec(control) || /max-age="?(\d+)/.exec(control);
  let seconds = 0;
  if (/no-store|no-cache|private/.test(control)) {
    seconds = 0;
  } else if (age) {
    seconds = Number(age[1]);
  } else if (headers.Expires) {
    seconds = Math.floor((Date.parse(headers.Expires) - Date.now()) / 1000) || 0;
  } else if (!headers.ETag && !headers['Last-Modified']) {
    return undefined;
  }
  return String(Math.max(1, Math.min(seconds, MOST_KEPT)));
}

export default { fetch, fetchWhole, freshness };
