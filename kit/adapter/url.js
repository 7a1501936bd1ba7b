// URLs of an origin, as { scheme, host, path, query } (RFC 3986), and what weir can't be given.

const URL = /^(https?):\/\/([^/?#]*)([^?#]*)([^#]*)/i;
const FORBIDDEN = /[^!-~]|["<>\\^`{|}]/g; // in a request line

const MOST_WORK = 80000; // lines of playlists: less than 0.5 s of processor time
const RESOLVING = 20; // lines that could be read in the time that a URL takes to be resolved,
const BYTES = 8; // and for each so many bytes of it another one

let work = 0; // of this request, which has a virtual machine to itself

// Thrown where weir can't have what it asked for; answered with the status and the reason.
function refusal(reason, status) {
  return { status: status || 502, reason };
}

// Bounds the time in which nginx's worker serves no other request.
function spend(lines) {
  work += lines;
  if (work > MOST_WORK) {
    throw refusal(`too large: more than ${MOST_WORK} lines, or fewer with keys or unusual URLs`);
  }
}

// Lets the worker serve other requests, after so many lines.
const SLICE = 500;
function rest() {
  return new Promise((done) => {
    setTimeout(done, 1); // with 0, nginx runs it before anything else
  });
}

function escape(written) {
  return written.replace(FORBIDDEN, (char) => encodeURIComponent(char));
}

function parse(written) {
  const found = URL.exec(escape(written));
  if (!found) {
    throw refusal(`no http or https: ${written}`);
  }
  return { scheme: found[1].toLowerCase(), host: found[2].toLowerCase(), path: found[3] || '/',
    query: found[4] };
}

function text(url) {
  return `${url.scheme}://${url.host}${url.path}${url.query}`;
}

function withoutDots(path) {
  if (!path.includes('/.')) {
    return path;
  }
  const parts = path.split('/').slice(1), kept = [];
  parts.forEach((part) => {
    if (part === '..') {
      kept.pop();
    } else if (part !== '.') {
      kept.push(part);
    }
  });
  const folder = /^[.]{1,2}$/.test(parts[parts.length - 1]);
  return `/${kept.join('/')}${folder && kept.length ? '/' : ''}`;
}

// RFC 3986, 5.2; characters that a request line must not contain are escaped.
function resolve(base, reference) {
  spend(RESOLVING + Math.ceil(reference.length / BYTES));
  const escaped = escape(reference.split('#', 1)[0].trim());
  let url;
  if (/^[a-z][a-z0-9+.-]*:/i.test(escaped)) {
    url = parse(escaped);
  } else if (escaped.startsWith('//')) {
    url = parse(`${base.scheme}:${escaped}`);
  } else {
    const parts = /^([^?]*)(.*)$/.exec(escaped);
    const folder = parts[1].startsWith('/') ? '' : base.path.replace(/[^/]*$/, '');
    url = { scheme: base.scheme, host: base.host, path: parts[1] ? folder + parts[1] : base.path,
      query: escaped ? parts[2] : base.query };
  }
  url.path = withoutDots(url.path);
  return url;
}

export default { SLICE, parse, refusal, resolve, rest, spend, text };
