// Turns any origin's HLS (RFC 8216) into playlists and segments that weir plays. For nginx's njs from
// 0.7 on, which knows neither classes nor destructuring nor "for ... of", and crashes on an "await"
// within the arguments of a call.
//
//   [/NAME]/https/HOST/PATH           a playlist, as the user writes it
//   [/NAME]/https/HOST/PATH?weir=N    a media playlist whose numbers are to be raised by N + 1
//   [/NAME]/https-segment/HOST/PATH?weir=N[,VECTOR,KEY]
//                                     segment N; a vector and a key's URL if it is to be sealed for weir
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
const BLOCK = 16; // bytes, of AES
const ZERO = Buffer.alloc(BLOCK), NO_VECTOR = ZERO.toString('hex');
const NULL_PACKET = `471fff10${'ff'.repeat(184)}`; // of MPEG-TS, whose content is of no account
const NULLS = 4; // the fewest that fill whole blocks
const SYNC = 0x47; // the first byte of MPEG-TS
const PASS = 305, PASS_BRIEFLY = 306; // no refusals: the server in front fetches X-Weir-Target itself
// A folder, which is resolved once, and the usual form of a name with its query, which needs no work.
const SEGMENT = /^([^?#]*\/)?([\w~-][\w.~%-]*(?:\?[\w.~!$&'()*+,;=:@%/?-]*)?)$/;
const LONG = 128; // bytes of a segment's URL that take as long as a line
const LONGEST = 8192; // bytes of a usual one
const AT_ONCE = 8; // variants
const LOADING = 500; // lines that could be read in the time that a variant takes, besides its own
const MOST_BYTES = 8 << 20; // of the playlists of a request, or of what is encrypted again
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
  got.lines = await playlists.linesOf(text);
  return got;
}

// nginx's cache remembers how far a playlist has come.
async function parseMedia(r, url, got) {
  const media = await playlists.parseMedia(got.url, got.lines);
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

// Returns the function that makes the addresses of a playlist's segments.
function segmentAddresses(r, asked, media) {
  const folders = {};
  return (uri) => {
    const found = uri.length < LONGEST && SEGMENT.exec(uri), folder = found ? found[1] || '' : uri;
    const known = folders[folder] || address(r, asked, '-segment', urls.resolve(media.url, folder || '.'));
    folders[folder] = known;
    return found ? known + found[2] : known;
  };
}

// A new address each time, since weir keeps a key's address but not always the key. An empty one makes it
// stop decrypting.
function keyTag(r, asked, key, args) {
  const uri = key ? withArgs(address(r, asked, '-key', key.url), args) : '';
  return `#EXT-X-KEY:METHOD=${key ? 'AES-128' : 'NONE'},IV=0x${NO_VECTOR},URI="${uri}"`;
}

async function mediaPlaylist(r, asked, media, raise) {
  const skipped = Math.max(0, -media.first - raise);
  if (skipped >= media.segments.length) {
    throw urls.refusal('no segments that the first variant has, too');
  }
  const first = media.first + skipped + raise + 1;
  const segmentAddress = segmentAddresses(r, asked, media), parts = [];
  let written = ['#EXTM3U', `#EXT-X-TARGETDURATION:${media.target}`, `#EXT-X-MEDIA-SEQUENCE:${first}`];
  let key = null, keyUrl = '';
  for (let at = skipped; at < media.segments.length; at++) {
    if (at % urls.SLICE === 0) {
      parts.push(written.join('\n')); // joining all at once would take as long as the rest
      written = [];
      await urls.rest();
    }
    const segment = media.segments[at], number = media.first + at;
    if (segment.key !== key) {
      const before = keyUrl;
      key = segment.key;
      keyUrl = key ? urls.text(key.url) : '';
      if (keyUrl !== before) {
        written.push(keyTag(r, asked, key, `${first},${number}`));
      }
    }
    if (segment.jump) {
      written.push('#EXT-X-DISCONTINUITY');
    }
    const vector = key ? playlists.vectorOf(media, at) : NO_VECTOR;
    const sealed = vector === NO_VECTOR ? '' : `,${vector},${encodeURIComponent(keyUrl)}`;
    urls.spend(Math.floor(segment.uri.length / LONG) + (sealed ? 1 : 0));
    written.push(`#EXTINF:${segment.length},`, withArgs(segmentAddress(segment.uri), number + sealed));
  }
  return parts.concat(written, media.ended ? '#EXT-X-ENDLIST' : []);
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
      ? await mediaPlaylist(r, asked, media, parseInt(asked.args[0]) || 0)
      : ['#EXTM3U', '#EXT-X-STREAM-INF:BANDWIDTH=1', withArgs(address(r, asked, '', asked.url), 0)];
  }
  r.headersOut['X-Accel-Expires'] = String(seconds);
  r.headersOut['Content-Type'] = 'application/vnd.apple.mpegurl';
  r.return(200, `${written.join('\n')}\n`);
}

async function encrypt(cipher, vector, data) {
  const sealed = await crypto.subtle.encrypt({ name: 'AES-CBC', iv: vector }, cipher, data);
  return Buffer.from(sealed);
}

// Of a `part` that ends without padding, too.
async function decrypt(cipher, vector, data, part) {
  const padding = part ? await encrypt(cipher, data.slice(-BLOCK), '') : '';
  const sealed = part ? Buffer.concat([data, padding]) : data;
  const clear = await crypto.subtle.decrypt({ name: 'AES-CBC', iv: vector }, cipher, sealed);
  return Buffer.from(clear);
}

// weir decrypts with a zero vector only, but of a segment's own vector CBC needs no more than for its
// first block. So null packets precede MPEG-TS, the last block of which, as encrypted, is that vector.
// Null for anything else, such as packed audio.
async function nullPackets(cipher, vector, sealed) {
  const clear = await decrypt(cipher, vector, sealed.slice(0, BLOCK), true);
  if (clear[0] !== SYNC) {
    return null;
  }
  const nulls = await encrypt(cipher, ZERO, Buffer.from(NULL_PACKET.repeat(NULLS), 'hex'));
  return Buffer.concat([nulls.slice(0, -2 * BLOCK), vector]); // the padding goes, too
}

// Encrypts for a zero vector what is encrypted for another one.
async function sealAgain(cipher, vector, sealed) {
  const nulls = await nullPackets(cipher, vector, sealed);
  if (nulls) {
    return Buffer.concat([nulls, sealed]);
  }
  if (sealed.length > MOST_BYTES) {
    throw urls.refusal(`too large: more than ${MOST_BYTES} encrypted bytes that are not MPEG-TS`);
  }
  const clear = await decrypt(cipher, vector, sealed);
  return encrypt(cipher, ZERO, clear);
}

// MPEG-TS is passed on as it comes if its first block can be had alone; anything else must be here first.
async function serveEncrypted(r, asked) {
  const keyUrl = urls.parse(decodeURIComponent(asked.args[2]));
  if (!VECTOR.test(asked.args[1])) {
    throw urls.refusal('no vector', 404);
  }
  const vector = Buffer.from(asked.args[1], 'hex');
  const key = await origin.fetch(r, keyUrl, '/key'), raw = key.reply.responseBuffer;
  r.variables.weir_range = `bytes=0-${BLOCK - 1}`;
  let got = await origin.fetchWhole(r, asked.url, '/fetch'), body = '';
  r.variables.weir_range = '';
  try {
    const cipher = await crypto.subtle.importKey('raw', raw, { name: 'AES-CBC' }, false, ['encrypt', 'decrypt']);
    if (got.reply.status === 206) {
      const size = /\/([0-9]+)$/.exec(got.reply.headersOut['Content-Range']);
      const nulls = size && await nullPackets(cipher, vector, got.reply.responseBuffer);
      if (nulls) {
        keep(r, got.reply);
        r.variables.weir_target = urls.text(got.url);
        r.variables.weir_prefix = nulls.toString('hex');
        r.variables.weir_length = Number(size[1]) + nulls.length;
        r.internalRedirect('@seal');
        return;
      }
      got = await origin.fetchWhole(r, got.url, '/fetch');
    }
    if (got.reply.status === 200) {
      body = await sealAgain(cipher, vector, got.reply.responseBuffer);
    }
  } catch (error) {
    throw error.reason ? error
      : urls.refusal(`can't decrypt ${urls.text(got.url)} with ${urls.text(key.url)}: ${error}`);
  }
  sendWhole(r, got.reply, body);
}

function sealHead(r) {
  if (r.status === 200) {
    r.headersOut['Content-Length'] = r.variables.weir_length;
  }
}

// Only once: nginx passes on the rest by itself.
function sealBody(r, data, flags) {
  if (r.status === 200) {
    r.sendBuffer(Buffer.from(r.variables.weir_prefix, 'hex'));
  }
  r.sendBuffer(data, flags);
  r.done();
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

// What has a length can be passed on as it comes; anything else must be here first.
async function serveSegment(r, asked) {
  if (asked.args.length > 1) {
    await serveEncrypted(r, asked);
    return;
  }
  const head = await origin.fetch(r, asked.url, '/fetch', 'HEAD').catch(() => null);
  if (head && head.reply.status === 304) {
    sendWhole(r, head.reply, '');
  } else if (head && head.reply.headersOut['Content-Length'] && !head.reply.headersOut['Content-Encoding']) {
    const fields = head.reply.headersOut, past = fields.Expires && !(Date.parse(fields.Expires) > Date.now());
    r.headersOut['X-Weir-Target'] = urls.text(head.url);
    r.return(past || origin.freshness(fields) === '1' ? PASS_BRIEFLY : PASS);
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

export default { serve, sealHead, sealBody };
