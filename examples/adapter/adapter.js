// Makes playlists and segments of any origin what weir can play (RFC 8216). For nginx's njs
// from 0.7 on, which knows neither classes nor destructuring nor "for ... of", and crashes on an
// "await" within the arguments of a call.
//
//   [/NAME]/https/HOST/PATH           a playlist: as the user writes it
//   [/NAME]/https/HOST/PATH?weir=N    a media playlist whose numbers are to be raised by N
//   [/NAME]/https-segment/HOST/PATH[?weir=VECTOR,KEY]
//                                     a segment; decrypted if there are a vector and the key's URL
//   [/NAME]/https-key/HOST/PATH?weir=N    a key; N only makes its address a new one
//
// The same with http. An origin's own query stands before "weir=", which is always last.

const ASKED = /^((?:\/[^\/?]+)??)\/(https?)(-segment|-key)?\/([^\/?#]+)([^?#]*)([^#]*)/;
const URL = /^(https?):\/\/([^\/?#]*)([^?#]*)([^#]*)/i;
const OURS = /[?&]weir=([^&]*)$/;
const HOST = /^([a-z0-9._-]+|\[[0-9a-f:.]+\])(:[0-9]+)?$/;
const VECTOR = /^[0-9a-f]{32}$/;
const ZERO = '0'.repeat(32);
const VIDEO = /^(avc|hvc|hev|dvh|dva|mp4v|vp0|av01)/i;
const HOPS = 5; // redirections
const BANDWIDTH = 1000000; // of a media playlist that no master playlist names

// What weir is answered where it can't be given what it asked for.
function refusal(reason, status) {
    return {status: status || 502, reason: reason};
}

// --- URLs -------------------------------------------------------------------------------

function parse_url(text) {
    const found = URL.exec(text);
    if (!found) {
        throw refusal(`no http or https: ${text}`);
    }
    return {scheme: found[1].toLowerCase(), host: found[2].toLowerCase(), path: found[3] || '/',
            query: found[4]};
}

function url_text(url) {
    return `${url.scheme}://${url.host}${url.path}${url.query}`;
}

function without_dots(path) {
    const kept = [];
    path.split('/').slice(1).forEach((part, at, all) => {
        if (part == '..') {
            kept.pop();
        } else if (part != '.') {
            kept.push(part);
        }
        if (at == all.length - 1 && (part == '.' || part == '..')) {
            kept.push('');
        }
    });
    return `/${kept.join('/')}`;
}

// RFC 3986, 5.2; what may not stand in a request line is escaped.
function resolve(base, reference) {
    const text = reference.trim().replace(/#.*$/, '')
        .replace(/[^!-~]|["<>\\^`{|}]/g, (char) => encodeURIComponent(char));
    let url;
    if (/^[a-z][a-z0-9+.-]*:/i.test(text)) {
        url = parse_url(text);
    } else if (text.startsWith('//')) {
        url = parse_url(`${base.scheme}:${text}`);
    } else {
        const parts = /^([^?]*)(.*)$/.exec(text);
        const folder = parts[1].startsWith('/') ? '' : base.path.replace(/[^\/]*$/, '');
        url = {scheme: base.scheme, host: base.host,
               path: parts[1] ? folder + parts[1] : base.path,
               query: parts[1] || parts[2] ? parts[2] : base.query};
    }
    url.path = without_dots(url.path);
    return url;
}

// What was asked for: the origin's URL, the kind, and what stood behind "weir=".
function parse_request(uri) {
    const found = ASKED.exec(uri);
    if (!found) {
        throw refusal('not /http/HOST/PATH or /https/HOST/PATH', 404);
    }
    const ours = OURS.exec(found[6]);
    return {name: found[1], kind: found[3] || '', args: ours ? ours[1].split(',') : [],
            url: parse_url(`${found[2]}://${found[4]}${found[5]}${found[6].replace(OURS, '')}`)};
}

// The same of another URL, for weir to ask for.
function address(r, asked, kind, url, args) {
    const base = r.headersIn[kind ? 'X-Weir-Media' : 'X-Weir-Playlists'];
    const ours = args === undefined ? '' : `${url.query ? '&' : '?'}weir=${args}`;
    return `${base}${asked.name}/${url.scheme}${kind}/${url.host}${url.path}${url.query}${ours}`;
}

// --- Fetching ---------------------------------------------------------------------------

function check_listed(r, url) {
    const listed = HOST.test(url.host) && r.variables.weir_origins.trim().split(/\s+/).some(
        (origin) => origin.startsWith('*.') ? url.host.endsWith(origin.slice(1)) : url.host == origin);
    if (!listed) {
        throw refusal(`not a listed origin: ${url.host}`, 403);
    }
}

// The reply of the origin, a 200, and the URL that it came from. One at a time: all
// subrequests share the variable.
async function fetch(r, url, location, method) {
    for (let hop = 0; hop < HOPS; hop++) {
        check_listed(r, url);
        r.variables.weir_target = url_text(url);
        const reply = await r.subrequest(location, {method: method || 'GET'});
        const moved = reply.headersOut.Location;
        if (reply.status < 300) {
            return {url: url, reply: reply};
        }
        if (reply.status >= 400 || !moved) {
            throw refusal(`${reply.status} from ${url_text(url)}`,
                          reply.status >= 400 ? reply.status : 502);
        }
        url = resolve(url, moved);
    }
    throw refusal(`redirected too often: ${url_text(url)}`);
}

// --- Playlists --------------------------------------------------------------------------

function attributes(line) {
    const found = {};
    const pattern = /([A-Z0-9-]+)=("[^"]*"|[^",]*)/g;
    const text = line.slice(line.indexOf(':') + 1);
    let pair;
    while ((pair = pattern.exec(text))) {
        found[pair[1]] = pair[2].replace(/^"|"$/g, '');
    }
    return found;
}

async function fetch_lines(r, url) {
    const got = await fetch(r, url, '/fetch');
    const lines = got.reply.responseText.replace(/^\uFEFF/, '').split('\n')
        .map((line) => line.trim()).filter((line) => line);
    if (lines[0] != '#EXTM3U') {
        throw refusal(`no playlist: ${url_text(got.url)}`);
    }
    if (lines.some((line) => line.startsWith('#EXT-X-DEFINE:'))) {
        throw refusal('EXT-X-DEFINE is not supported');
    }
    return {url: got.url, lines: lines.slice(1)};
}

function is_master(lines) {
    return lines.some((line) => line.startsWith('#EXT-X-STREAM-INF:'));
}

// The variants of a master playlist in which sound and picture come together.
function usable_variants(url, lines) {
    const muxed = {}, variants = [];
    lines.filter((line) => line.startsWith('#EXT-X-MEDIA:')).map(attributes).forEach((media) => {
        const group = `${media.TYPE} ${media['GROUP-ID']}`;
        muxed[group] = muxed[group] || !media.URI;
    });
    let tag, separate = false;
    lines.forEach((line) => {
        if (line.startsWith('#EXT-X-STREAM-INF:')) {
            tag = attributes(line);
        } else if (tag && !line.startsWith('#')) {
            const apart = ['AUDIO', 'VIDEO'].some((type) => muxed[`${type} ${tag[type]}`] === false);
            separate = separate || apart;
            if (!apart && parseInt(tag.BANDWIDTH) > 0) {
                variants.push({bandwidth: parseInt(tag.BANDWIDTH), url: resolve(url, line),
                               sound: tag.CODECS && !tag.RESOLUTION
                                      && !tag.CODECS.split(',').some((codec) => VIDEO.test(codec.trim()))});
            }
            tag = undefined;
        }
    });
    if (!variants.length) {
        throw refusal(separate ? 'separate audio or video (EXT-X-MEDIA with a URI)' : 'no variants');
    }
    const seen = variants.filter((variant) => !variant.sound);
    return seen.length ? seen : variants;
}

// Milliseconds since 1970 of an EXT-X-PROGRAM-DATE-TIME, or NaN.
function time_of(text) {
    const at = /^(\d+)-(\d+)-(\d+)T(\d+):(\d+):(\d+)([.]\d+)?(?:([+-])(\d\d):?(\d\d))?/.exec(text);
    if (!at) {
        return NaN;
    }
    const zone = at[8] ? (at[8] == '-' ? -1 : 1) * (at[9] * 60 + Number(at[10])) : 0;
    return Date.UTC(at[1], at[2] - 1, at[3], at[4], at[5] - zone, at[6]) + (at[7] || 0) * 1000;
}

const REFUSED = {
    '#EXT-X-MAP': 'fragmented MP4 (EXT-X-MAP)',
    '#EXT-X-BYTERANGE': 'byte ranges (EXT-X-BYTERANGE)',
    '#EXT-X-I-FRAMES-ONLY': 'trick play (EXT-X-I-FRAMES-ONLY)',
};

// The key and the vector of a tag, null where there is none. No vector stands for the number.
function parse_key(url, tag) {
    if (tag.METHOD == 'NONE') {
        return null;
    }
    if (tag.METHOD != 'AES-128') {
        throw refusal(`encryption with ${tag.METHOD} (EXT-X-KEY)`);
    }
    if ((tag.KEYFORMAT || 'identity') != 'identity' || !tag.URI) {
        throw refusal(`keys of ${tag.KEYFORMAT || 'no URI'} (EXT-X-KEY)`);
    }
    const vector = (tag.IV || '').toLowerCase().replace(/^0x/, '');
    return {url: resolve(url, tag.URI), vector: vector && vector.padStart(32, '0')};
}

function parse_media(url, lines) {
    const media = {target: 1, ended: false, segments: []};
    let number = 0, key = null, time = NaN, length = 0, jump = false;
    lines.forEach((line) => {
        const tag = line.split(':')[0];
        const value = line.slice(tag.length + 1);
        if (REFUSED[tag]) {
            throw refusal(REFUSED[tag]);
        } else if (tag == '#EXT-X-TARGETDURATION') {
            media.target = Math.ceil(parseFloat(value)) || 1;
        } else if (tag == '#EXT-X-MEDIA-SEQUENCE') {
            number = parseInt(value) || 0;
        } else if (tag == '#EXT-X-KEY') {
            key = parse_key(url, attributes(line));
        } else if (tag == '#EXT-X-PROGRAM-DATE-TIME') {
            time = time_of(value);
        } else if (tag == '#EXT-X-DISCONTINUITY') {
            jump = true;
        } else if (tag == '#EXTINF') {
            length = parseFloat(value) || 0;
        } else if (tag == '#EXT-X-ENDLIST') {
            media.ended = true;
        } else if (!line.startsWith('#')) {
            media.segments.push({number: number, url: resolve(url, line), length: length, time: time,
                                 jump: jump, key: key && key.url, vector: key
                                     && (key.vector || number.toString(16).padStart(32, '0'))});
            number++;
            time += length * 1000;
            jump = false;
        }
    });
    if (!media.segments.length) {
        throw refusal('no segments yet');
    }
    return media;
}

// By how much the numbers of a variant are to be raised to be those of the first: by their
// times, else by their beginnings if both are whole, else by their ends if those are far apart.
function offset(first, other) {
    for (let at = other.segments.length - 1; at >= 0; at--) {
        const own = other.segments[at];
        const match = first.segments.find(
            (segment) => Math.abs(segment.time - own.time) < own.length * 500);
        if (match) {
            return match.number - own.number;
        }
    }
    const last = (media) => media.segments[media.segments.length - 1].number;
    if (first.ended && other.ended) {
        return first.segments[0].number - other.segments[0].number;
    }
    const apart = last(first) - last(other);
    return Math.abs(apart) > 2 ? apart : 0;
}

// The stream tag and address of each variant that weir can play, those left out in the log.
async function master_playlist(r, asked, url, lines) {
    const written = ['#EXTM3U'];
    let first, refused;
    const variants = usable_variants(url, lines);
    for (let at = 0; at < variants.length; at++) {
        try {
            const got = await fetch_lines(r, variants[at].url);
            const media = parse_media(got.url, got.lines);
            first = first || media;
            written.push(`#EXT-X-STREAM-INF:BANDWIDTH=${variants[at].bandwidth}`,
                         address(r, asked, '', variants[at].url, offset(first, media)));
        } catch (error) {
            refused = error;
            r.error(`weir: left out ${url_text(variants[at].url)}: ${error.reason || error}`);
        }
    }
    if (!first) {
        throw refused;
    }
    return written;
}

function media_playlist(r, asked, media, raise) {
    const segments = media.segments.filter((segment) => segment.number + raise >= 0);
    // weir decrypts with a zero vector only, and never stops decrypting within a playlist.
    const ours = segments.some((segment, at) => segment.key
        ? segment.vector != ZERO : at && segments[at - 1].key);
    const first = segments[0].number + raise + 1;
    const written = ['#EXTM3U', `#EXT-X-TARGETDURATION:${media.target}`, `#EXT-X-MEDIA-SEQUENCE:${first}`];
    let key = '';
    segments.forEach((segment) => {
        // A new address for each playlist, since weir keeps a key's address but not always the key.
        const next = segment.key && !ours ? address(r, asked, '-key', segment.key, first) : '';
        if (next != key) {
            written.push(`#EXT-X-KEY:METHOD=AES-128,IV=0x${ZERO},URI="${next}"`);
        }
        key = next;
        if (segment.jump) {
            written.push('#EXT-X-DISCONTINUITY');
        }
        written.push(`#EXTINF:${segment.length},`,
                     address(r, asked, '-segment', segment.url, segment.key && ours
                         ? `${segment.vector},${encodeURIComponent(url_text(segment.key))}` : undefined));
    });
    return media.ended ? written.concat('#EXT-X-ENDLIST') : written;
}

async function serve_playlist(r, asked) {
    const got = await fetch_lines(r, asked.url);
    let written, seconds = 1;
    if (is_master(got.lines)) {
        written = await master_playlist(r, asked, got.url, got.lines);
    } else {
        const media = parse_media(got.url, got.lines);
        seconds = Math.ceil(media.target / 2) - 1; // less than half
        written = asked.args.length
            ? media_playlist(r, asked, media, parseInt(asked.args[0]) || 0)
            : ['#EXTM3U', `#EXT-X-STREAM-INF:BANDWIDTH=${BANDWIDTH}`, address(r, asked, '', asked.url, 0)];
    }
    r.headersOut['X-Accel-Expires'] = String(seconds);
    r.headersOut['Content-Type'] = 'application/vnd.apple.mpegurl';
    r.return(200, `${written.join('\n')}\n`);
}

// --- Segments and keys ------------------------------------------------------------------

async function decrypted(r, asked) {
    const vector = asked.args[0];
    if (!VECTOR.test(vector)) {
        throw refusal('no vector', 404);
    }
    const key = await fetch(r, parse_url(decodeURIComponent(asked.args[1])), '/key');
    const secret = await fetch(r, asked.url, '/fetch');
    try {
        const cipher = await crypto.subtle.importKey('raw', key.reply.responseBuffer, {name: 'AES-CBC'},
                                                     false, ['decrypt']);
        const clear = await crypto.subtle.decrypt({name: 'AES-CBC', iv: Buffer.from(vector, 'hex')}, cipher,
                                                  secret.reply.responseBuffer);
        return Buffer.from(clear);
    } catch (error) {
        throw refusal(`can't decrypt ${url_text(asked.url)} with ${url_text(key.url)}`);
    }
}

// nginx passes on as it comes what has a length; anything else must be here first.
async function serve_segment(r, asked) {
    if (asked.args.length) {
        const clear = await decrypted(r, asked);
        r.return(200, clear);
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

async function serve_key(r, asked) {
    const got = await fetch(r, asked.url, '/key');
    r.headersOut['X-Accel-Expires'] = '60';
    r.return(200, got.reply.responseBuffer);
}

async function serve(r) {
    try {
        const asked = parse_request(r.variables.request_uri);
        await {'': serve_playlist, '-segment': serve_segment, '-key': serve_key}[asked.kind](r, asked);
    } catch (error) {
        const reason = String(error.reason || error).replace(/[^ -~]/g, '?');
        r.error(`weir: ${reason}`);
        r.headersOut['X-Weir-Adapter'] = reason;
        r.return(error.status || 502, `${reason}\n`);
    }
}

export default {serve};
