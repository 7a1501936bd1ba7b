// Makes what any origin has (RFC 8216) what weir can play. For nginx's njs from 0.7 on, which knows
// neither classes nor destructuring nor "for ... of", and crashes on an "await" within the
// arguments of a call.
//
//   [/NAME]/https/HOST/PATH           a playlist, as the user writes it
//   [/NAME]/https/HOST/PATH?weir=N    a media playlist whose numbers are to be raised by N + 1
//   [/NAME]/https-segment/HOST/PATH[?weir=VECTOR,KEY]
//                                     a segment, to be decrypted if there are a vector and a key's URL
//   [/NAME]/https-key/HOST/PATH?weir=N    a key; N only makes its address a new one
//
// The same with http. An origin's own query stands before "weir=", which is always last.
import playlists from 'playlist.js';
import urls from 'url.js';

const ASKED = /^((?:\/[^/?]+)??)\/(https?)(-segment|-key)?\/([^/?#]+)([^?#]*)([^#]*)/;
const OURS = /[?&]weir=([^&]*)$/;
const HOST = /^([a-z0-9._-]+|\[[0-9a-f:.]+\])(:[0-9]+)?$/;
const VECTOR = /^[0-9a-f]{32}$/;
const ZERO = '0'.repeat(32);
const BLOCK = 16; // bytes, of AES
const HOPS = 5; // redirections

// What was asked for: the origin's URL, the kind, and what stood behind "weir=".
function parseRequest(uri) {
  const found = ASKED.exec(uri);
  if (!found) {
    throw urls.refusal('not /http/HOST/PATH or /https/HOST/PATH', 404);
  }
  const ours = OURS.exec(found[6]);
  return {
    name: found[1],
    kind: found[3] || '',
    args: ours ? ours[1].split(',') : [],
    url: urls.parse(`${found[2]}://${found[4]}${found[5]}${found[6].replace(OURS, '')}`),
  };
}

// What weir is to ask for instead of a URL of the origin.
function address(r, asked, kind, url, args) {
  const base = r.headersIn[kind ? 'X-Weir-Media' : 'X-Weir-Playlists'];
  const ours = args === undefined ? '' : `${url.query ? '&' : '?'}weir=${args}`;
  return `${base}${asked.name}/${url.scheme}${kind}/${url.host}${url.path}${url.query}${ours}`;
}

function checkListed(r, url) {
  const listed = HOST.test(url.host) && r.variables.weir_origins.trim().split(/\s+/).some(
    (origin) => origin.startsWith('*.') ? url.host.endsWith(origin.slice(1)) : url.host === origin);
  if (!listed) {
    throw urls.refusal(`not a listed origin: ${url.host}`, 403);
  }
}

// The reply of the origin, a 200, and the URL that it came from. One at a time: all
// subrequests share the variable.
async function fetch(r, url, location, method) {
  for (let hop = 0; hop < HOPS; hop++) {
    checkListed(r, url);
    r.variables.weir_target = urls.text(url);
    const reply = await r.subrequest(location, { method: method || 'GET' });
    const moved = reply.headersOut.Location;
    if (reply.status < 300) {
      return { url, reply };
    }
    if (reply.status >= 400 || !moved) {
      const status = reply.status >= 400 ? reply.status : 502;
      const own = status === 502 || status === 504 ? ", or it can't be reached" : '';
      throw urls.refusal(`${reply.status} from ${urls.text(url)}${own}`, status);
    }
    url = urls.resolve(url, moved);
  }
  throw urls.refusal(`redirected too often: ${urls.text(url)}`);
}

async function fetchLines(r, url) {
  const got = await fetch(r, url, '/fetch');
  return { url: got.url, lines: playlists.linesOf(got.reply.responseText) };
}

// The stream tag and address of each variant that weir can play, those left out in the log.
async function masterPlaylist(r, asked, url, lines) {
  const written = ['#EXTM3U'];
  let first, refused;
  const variants = playlists.usableVariants(url, lines);
  for (let at = 0; at < variants.length; at++) {
    try {
      const got = await fetchLines(r, variants[at].url);
      const media = playlists.parseMedia(got.url, got.lines);
      first = first || media;
      written.push(`#EXT-X-STREAM-INF:BANDWIDTH=${variants[at].bandwidth}`,
        address(r, asked, '', variants[at].url, playlists.offset(first, media)));
    } catch (error) {
      refused = error;
      r.error(`weir: left out ${urls.text(variants[at].url)}: ${error.reason || error}`);
    }
  }
  if (!first) {
    throw refused;
  }
  return written;
}

// weir decrypts with a zero vector only, and never stops decrypting within a playlist.
function weirDecrypts(segments) {
  return segments.every(
    (segment, at) => segment.key ? segment.vector === ZERO : !at || !segments[at - 1].key);
}

function mediaPlaylist(r, asked, media, raise) {
  const segments = media.segments.filter((segment) => segment.number + raise >= 0);
  if (!segments.length) {
    throw urls.refusal('no segments that the first variant has, too');
  }
  const first = segments[0].number + raise + 1, keyed = weirDecrypts(segments);
  const written = ['#EXTM3U', `#EXT-X-TARGETDURATION:${media.target}`, `#EXT-X-MEDIA-SEQUENCE:${first}`];
  let key = '';
  segments.forEach((segment) => {
    // A new address for each playlist, since weir keeps a key's address but not always the key.
    const next = segment.key && keyed ? address(r, asked, '-key', segment.key, first) : '';
    if (next !== key) {
      written.push(`#EXT-X-KEY:METHOD=AES-128,IV=0x${ZERO},URI="${next}"`);
    }
    key = next;
    if (segment.jump) {
      written.push('#EXT-X-DISCONTINUITY');
    }
    const args = segment.key && !keyed
      ? `${segment.vector},${encodeURIComponent(urls.text(segment.key))}` : undefined;
    written.push(`#EXTINF:${segment.length},`, address(r, asked, '-segment', segment.url, args));
  });
  return media.ended ? written.concat('#EXT-X-ENDLIST') : written;
}

async function servePlaylist(r, asked) {
  const got = await fetchLines(r, asked.url);
  let written, seconds = 1;
  if (playlists.isMaster(got.lines)) {
    written = await masterPlaylist(r, asked, got.url, got.lines);
  } else {
    const media = playlists.parseMedia(got.url, got.lines);
    seconds = Math.ceil(media.target / 2) - 1; // less than half
    written = asked.args.length
      ? mediaPlaylist(r, asked, media, parseInt(asked.args[0]) || 0)
      : ['#EXTM3U', '#EXT-X-STREAM-INF:BANDWIDTH=1', address(r, asked, '', asked.url, 0)];
  }
  r.headersOut['X-Accel-Expires'] = String(seconds);
  r.headersOut['Content-Type'] = 'application/vnd.apple.mpegurl';
  r.return(200, `${written.join('\n')}\n`);
}

function importKey(raw) {
  return crypto.subtle.importKey('raw', raw, { name: 'AES-CBC' }, false, ['encrypt', 'decrypt']);
}

function decrypt(cipher, iv, data) {
  return crypto.subtle.decrypt({ name: 'AES-CBC', iv }, cipher, data);
}

// The last block tells how long the clear segment will be, so that it can be decrypted while it
// comes. An origin that can't send its last bytes alone has sent it whole.
async function serveEncrypted(r, asked) {
  const vector = asked.args[0], keyUrl = urls.parse(decodeURIComponent(asked.args[1]));
  if (!VECTOR.test(vector)) {
    throw urls.refusal('no vector', 404);
  }
  const key = await fetch(r, keyUrl, '/key');
  r.variables.weir_range = `bytes=-${2 * BLOCK}`;
  const got = await fetch(r, asked.url, '/fetch');
  const raw = key.reply.responseBuffer, sealed = got.reply.responseBuffer;
  const size = /\/([0-9]+)$/.exec(got.reply.headersOut['Content-Range'] || '');
  const part = got.reply.status === 206 && size && sealed.length === 2 * BLOCK;
  let clear;
  try {
    const cipher = await importKey(raw);
    clear = part
      ? await decrypt(cipher, sealed.slice(0, BLOCK), sealed.slice(BLOCK))
      : await decrypt(cipher, Buffer.from(vector, 'hex'), sealed);
  } catch (error) {
    throw urls.refusal(`can't decrypt ${urls.text(got.url)} with ${urls.text(key.url)}: ${error}`);
  }
  if (!part) {
    r.return(200, Buffer.from(clear));
    return;
  }
  r.variables.weir_key = raw.toString('hex');
  r.variables.weir_vector = vector;
  r.variables.weir_length = size[1] - BLOCK + clear.byteLength;
  r.internalRedirect('@decrypt');
}

function decryptHead(r) {
  if (r.status === 200) {
    r.headersOut['Content-Length'] = r.variables.weir_length;
  }
}

let held = Buffer.from(''), last; // of this request, which has a virtual machine to itself

// nginx runs WebCrypto's promises before it goes on.
async function decryptBody(r, data, flags) {
  if (r.status !== 200) {
    r.sendBuffer(data, flags);
    return;
  }
  held = Buffer.concat([held, data]);
  // The last block has the padding: it is held until there is another, or no more.
  const taken = flags.last ? held.length : Math.floor((held.length - 1) / BLOCK) * BLOCK;
  if (taken <= 0) {
    return;
  }
  const vector = last || Buffer.from(r.variables.weir_vector, 'hex');
  let piece = held.slice(0, taken);
  last = piece.slice(-BLOCK);
  held = held.slice(taken);
  const cipher = await importKey(Buffer.from(r.variables.weir_key, 'hex'));
  if (!flags.last) { // a padding of its own, for WebCrypto to take off
    const padding = await crypto.subtle.encrypt({ name: 'AES-CBC', iv: last }, cipher, Buffer.from(''));
    piece = Buffer.concat([piece, Buffer.from(padding)]);
  }
  const clear = await decrypt(cipher, vector, piece);
  r.sendBuffer(Buffer.from(clear), { last: flags.last });
}

// nginx passes on as it comes what has a length; anything else must be here first.
async function serveSegment(r, asked) {
  if (asked.args.length) {
    await serveEncrypted(r, asked);
    return;
  }
  const head = await fetch(r, asked.url, '/fetch', 'HEAD').catch(() => null);
  if (head && head.reply.headersOut['Content-Length']) {
    r.internalRedirect('@pass');
    return;
  }
  const got = await fetch(r, asked.url, '/fetch');
  r.return(200, got.reply.responseBuffer);
}

async function serveKey(r, asked) {
  const got = await fetch(r, asked.url, '/key');
  r.headersOut['X-Accel-Expires'] = '60';
  r.return(200, got.reply.responseBuffer);
}

const SERVE = { '': servePlaylist, '-segment': serveSegment, '-key': serveKey };

async function serve(r) {
  try {
    const asked = parseRequest(r.variables.request_uri);
    await SERVE[asked.kind](r, asked);
  } catch (error) {
    const reason = String(error.reason || error).replace(/[^ -~]/g, '?');
    r.error(`weir: ${reason}; asked for ${r.variables.request_uri}`);
    r.headersOut['X-Weir-Adapter'] = reason;
    r.headersOut['Content-Type'] = 'text/plain';
    r.return(error.status || 502, `${reason}\n`);
  }
}

export default { serve, decryptHead, decryptBody };
