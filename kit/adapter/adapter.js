// Turns any origin's HLS (RFC 8216) into playlists and segments that weir plays. For nginx's njs from
// 0.7 on, which knows neither classes nor destructuring nor "for ... of", and crashes on an "await"
// within the arguments of a call.
//
//   [/NAME]/https/HOST/PATH           a playlist, as the user writes it
//   [/NAME]/https/HOST/PATH?weir=N    a media playlist whose numbers are to be raised by N + 1
//   [/NAME]/https-segment/HOST/PATH?weir=N[,VECTOR,KEY]
//                                     segment N, to be decrypted if there are a vector and a key's URL
//   [/NAME]/https-key/HOST/PATH?weir=N    a key
//
// The same with http. An origin's own query precedes "weir=", which is always last. The number of a
// segment or key only makes its address unique, since origins use names again.
import origin from 'origin.js';
import playlists from 'playlist.js';
import urls from 'url.js';

const ASKED = /^((?:\/[^/?]+)??)\/(https?)(-segment|-key)?\/([^/?#]+)([^?#]*)([^#]*)/;
const OURS = /[?&]weir=([^&]*)$/;
const VECTOR = /^[0-9a-f]{32}$/;
const ZERO = '0'.repeat(32);
const BLOCK = 16; // bytes, of AES
// The usual forms of a segment's URL, which need not be taken apart.
const RELATIVE = /^(?:[\w-][\w.-]*\/)*[\w-][\w.-]*(?:\?[\w.~!$&'()*+,;=:@%/?-]*)?$/;
const ABSOLUTE = /^(https?):\/(\/[a-z0-9.-]+(?::\d+)?\/(?:[\w-][\w.-]*\/)*[\w-][\w.-]*(?:\?[\w.~!$&'()*+,;=:@%/?-]*)?)$/;
const AT_ONCE = 8; // variants
const LOADING = 500; // lines that could be read in the time that a variant takes, besides its own
const MOST_BYTES = 8 << 20; // of the playlists of a request
const MOST_REASON = 1000; // bytes of a header field

let bytes = 0; // of playlists of this request, which has a virtual machine to itself

// The parts of a request: the origin's URL, the kind, and the arguments after "weir=".
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

// The adapter's address for a URL of the origin, to which args may be added.
function address(r, asked, kind, url) {
  const base = r.headersIn[kind ? 'X-Weir-Media' : 'X-Weir-Playlists'];
  return `${base}${asked.name}/${url.scheme}${kind}/${url.host}${url.path}${url.query}`;
}

function withArgs(text, args) {
  return `${text}${text.includes('?') ? '&' : '?'}weir=${args}`;
}

function printable(text) {
  return String(text).replace(/[^ -~]/g, '?').slice(0, MOST_REASON);
}

async function fetchLines(r, url) {
  const got = await origin.fetchWhole(r, url, '/playlist');
  const text = got.reply.responseText;
  bytes += text.length;
  if (bytes > MOST_BYTES) {
    throw urls.refusal(`too large: more than ${MOST_BYTES} bytes of playlists`);
  }
  got.lines = playlists.linesOf(text);
  return got;
}

// nginx's cache remembers how far a playlist has come.
async function parseMedia(r, url, got) {
  const media = playlists.parseMedia(got.url, got.lines);
  const args = urls.text(url);
  const kept = await r.subrequest('/recall', { args });
  const note = kept.status === 200 ? kept.responseText : '';
  const next = playlists.goOn(media, note);
  if (next !== note) {
    await r.subrequest(`/remember/${next}`, { args });
  }
  return media;
}

// Loads several variants at once; `error` tells why one can't be played.
async function loadVariants(r, variants) {
  let next = 0;
  const loader = async () => {
    while (next < variants.length) {
      const variant = variants[next++];
      try {
        urls.spend(LOADING);
        const got = await fetchLines(r, variant.url);
        variant.media = await parseMedia(r, variant.url, got);
      } catch (error) {
        variant.error = error;
      }
    }
  };
  await Promise.all(variants.slice(0, AT_ONCE).map(loader));
}

// The stream tag and address of each variant that weir can play; the others are named in the log
// and in a header field, since weir would take a comment for a variant.
async function masterPlaylist(r, asked, got) {
  const written = ['#EXTM3U'], left = [];
  const variants = playlists.usableVariants(got.url, got.lines);
  await loadVariants(r, variants);
  const first = variants.find((variant) => variant.media);
  if (!first) {
    throw variants[variants.length - 1].error;
  }
  variants.forEach((variant) => {
    if (variant.media) {
      written.push(`#EXT-X-STREAM-INF:BANDWIDTH=${variant.bandwidth}`, withArgs(
        address(r, asked, '', variant.url), playlists.offset(first.media, variant.media)));
    } else {
      left.push(`left out ${urls.text(variant.url)}: ${variant.error.reason || variant.error}`);
    }
  });
  if (left.length) {
    r.error(`weir: ${left.map(printable).join('; ')}`);
    r.headersOut['X-Weir-Adapter'] = printable(left.join('; '));
  }
  return written;
}

// weir decrypts with a zero vector only, and never stops decrypting within a playlist.
function weirDecrypts(media, from) {
  return media.segments.every((segment, at) => at < from || (segment.key
    ? playlists.vectorOf(media, at) === ZERO : at === from || !media.segments[at - 1].key));
}

function mediaPlaylist(r, asked, media, raise) {
  const skipped = Math.max(0, -media.first - raise);
  if (skipped >= media.segments.length) {
    throw urls.refusal('no segments that the first variant has, too');
  }
  const first = media.first + skipped + raise + 1, keyed = weirDecrypts(media, skipped);
  const written = ['#EXTM3U', `#EXT-X-TARGETDURATION:${media.target}`, `#EXT-X-MEDIA-SEQUENCE:${first}`];
  const folder = address(r, asked, '-segment', urls.resolve(media.url, '.'));
  const base = r.headersIn['X-Weir-Media'] + asked.name;
  const segmentAddress = (uri) => {
    const found = RELATIVE.test(uri) ? null : ABSOLUTE.exec(uri);
    return found ? `${base}/${found[1]}-segment${found[2]}` : RELATIVE.test(uri) ? folder + uri
      : address(r, asked, '-segment', urls.resolve(media.url, uri));
  };
  let key = null;
  for (let at = skipped; at < media.segments.length; at++) {
    const segment = media.segments[at], number = media.first + at;
    if (keyed && segment.key !== key) {
      // A new address for each playlist, since weir keeps a key's address but not always the key.
      const next = withArgs(address(r, asked, '-key', segment.key.url), first);
      written.push(`#EXT-X-KEY:METHOD=AES-128,IV=0x${ZERO},URI="${next}"`);
    }
    key = segment.key;
    if (segment.jump) {
      written.push('#EXT-X-DISCONTINUITY');
    }
    const sealed = key && !keyed
      ? `,${playlists.vectorOf(media, at)},${encodeURIComponent(urls.text(key.url))}` : '';
    written.push(`#EXTINF:${segment.length},`, withArgs(segmentAddress(segment.uri), number + sealed));
  }
  return media.ended ? written.concat('#EXT-X-ENDLIST') : written;
}

async function servePlaylist(r, asked) {
  const got = await fetchLines(r, asked.url);
  let written, seconds = 1;
  if (playlists.isMaster(got.lines)) {
    written = await masterPlaylist(r, asked, got);
  } else {
    const media = await parseMedia(r, asked.url, got);
    seconds = Math.ceil(media.target / 2) - 1; // less than half
    written = asked.args.length
      ? mediaPlaylist(r, asked, media, parseInt(asked.args[0]) || 0)
      : ['#EXTM3U', '#EXT-X-STREAM-INF:BANDWIDTH=1', withArgs(address(r, asked, '', asked.url), 0)];
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
  const vector = asked.args[1], keyUrl = urls.parse(decodeURIComponent(asked.args[2]));
  if (!VECTOR.test(vector)) {
    throw urls.refusal('no vector', 404);
  }
  const key = await origin.fetch(r, keyUrl, '/key');
  const got = await origin.fetchWhole(r, asked.url, '/tail');
  if (got.reply.status === 304) {
    sendWhole(r, got.reply, '');
    return;
  }
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
    sendWhole(r, got.reply, Buffer.from(clear));
    return;
  }
  keep(r, got.reply);
  r.variables.weir_target = urls.text(got.url);
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

function keep(r, reply) {
  r.variables.weir_keep = origin.freshness(reply.headersOut) || '';
}

function sendWhole(r, reply, body) {
  const seconds = origin.freshness(reply.headersOut);
  ['ETag', 'Last-Modified'].filter((name) => reply.headersOut[name]).forEach((name) => {
    r.headersOut[name] = reply.headersOut[name];
  });
  if (seconds) {
    r.headersOut['X-Accel-Expires'] = seconds;
  }
  r.return(reply.status, body);
}

// nginx passes on as it comes what has a length; anything else must be here first.
async function serveSegment(r, asked) {
  if (asked.args.length > 1) {
    await serveEncrypted(r, asked);
    return;
  }
  const head = await origin.fetch(r, asked.url, '/fetch', 'HEAD').catch(() => null);
  if (head && head.reply.status === 304) {
    sendWhole(r, head.reply, '');
  } else if (head && head.reply.headersOut['Content-Length'] && !head.reply.headersOut['Content-Encoding']) {
    keep(r, head.reply);
    r.variables.weir_target = urls.text(head.url);
    r.internalRedirect('@pass');
  } else {
    const got = await origin.fetchWhole(r, asked.url, '/fetch');
    sendWhole(r, got.reply, got.reply.responseBuffer);
  }
}

async function serveKey(r, asked) {
  const got = await origin.fetch(r, asked.url, '/key');
  r.headersOut['X-Accel-Expires'] = '60';
  r.return(200, got.reply.responseBuffer);
}

const SERVE = { '': servePlaylist, '-segment': serveSegment, '-key': serveKey };

async function serve(r) {
  try {
    const asked = parseRequest(r.variables.request_uri);
    await SERVE[asked.kind](r, asked);
  } catch (error) {
    const reason = printable(error.reason || error);
    r.error(`weir: ${reason}; asked for ${r.variables.request_uri}`);
    r.headersOut['X-Weir-Adapter'] = reason;
    r.headersOut['Content-Type'] = 'text/plain';
    r.return(error.status || 502, `${reason}\n`);
  }
}

export default { serve, decryptHead, decryptBody };
