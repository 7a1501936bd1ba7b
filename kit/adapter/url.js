// URLs of an origin, as { scheme, host, path, query } (RFC 3986), and what weir can't be given.

const URL = /^(https?):\/\/([^/?#]*)([^?#]*)([^#]*)/i;

// Thrown where weir can't have what it asked for; answered with the status and the reason.
function refusal(reason, status) {
  return { status: status || 502, reason };
}

function parse(written) {
  const found = URL.exec(written);
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

// RFC 3986, 5.2; what may not stand in a request line is escaped.
function resolve(base, reference) {
  const escaped = reference.trim().replace(/#.*$/, '')
    .replace(/[^!-~]|["<>\\^`{|}]/g, (char) => encodeURIComponent(char));
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

export default { parse, refusal, resolve, text };
