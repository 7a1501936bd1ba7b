// Parses playlists (RFC 8216), given as lines without surrounding blanks.
import crypto from 'crypto';
import urls from 'url.js';

const REMUX = '; kit/remux plays it: weir-remux URL';
const REFUSED = {
  '#EXT-X-MAP': `fragmented MP4 (EXT-X-MAP)${REMUX}`,
  '#EXT-X-BYTERANGE': `byte ranges (EXT-X-BYTERANGE)${REMUX}`,
  '#EXT-X-DEFINE': 'variables (EXT-X-DEFINE)',
  '#EXT-X-I-FRAMES-ONLY': 'trick play (EXT-X-I-FRAMES-ONLY)',
};
const VIDEO = /^(avc|hvc|hev|dvh|dva|mp4v|vp0|av01)/i;
const DIGITS = 15; // of a media sequence number, those that a JavaScript number holds exactly
const ATTRIBUTES = 40; // bytes that take as long as a line without any
const WORD = 0x100000000;
const OUT_OF_STEP = 20; // segments by which live variants may differ that number alike
const LATE = 3; // segments by which a cache's copy of a live playlist may be older than another

// Without a regular expression, which would take most of a request's time.
function attributes(line) {
  urls.spend(Math.ceil(line.length / ATTRIBUTES));
  const found = {};
  let at = line.indexOf(':') + 1, equals = line.indexOf('=', at);
  while (at && equals >= 0) {
    const quote = line[equals + 1] === '"' ? 1 : 0;
    let end = line.indexOf(quote ? '"' : ',', equals + 1 + quote);
    end = end < 0 ? line.length : end;
    found[line.slice(at, equals).trim().toUpperCase()] = line.slice(equals + 1 + quote, end);
    at = line.indexOf(',', end) + 1;
    equals = line.indexOf('=', at);
  }
  return found;
}

// The lines after the first.
async function linesOf(text) {
  const raw = text.split('\n'), lines = [];
  urls.spend(raw.length);
  if (raw[0].replace(/^\uFEFF/, '').trim() !== '#EXTM3U') {
    throw urls.refusal('no playlist');
  }
  for (let at = 1; at < raw.length; at++) {
    if (at % urls.SLICE === 0) {
      await urls.rest();
    }
    const line = raw[at].trim();
    if (line) {
      lines.push(line);
    }
  }
  return lines;
}

function isMaster(lines) {
  return lines.some((line) => line.startsWith('#EXT-X-STREAM-INF:'));
}

// The variants of a master playlist that contain both audio and video.
function usableVariants(url, lines) {
  const muxed = {}, variants = [];
  lines.filter((line) => line.startsWith('#EXT-X-MEDIA:')).map(attributes).forEach((media) => {
    const group = `${String(media.TYPE).toUpperCase()} ${media['GROUP-ID']}`;
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
        variants.push({
          bandwidth: parseInt(tag.BANDWIDTH),
          url: urls.resolve(url, line),
          sound: tag.CODECS && !tag.RESOLUTION
            && !tag.CODECS.split(',').some((codec) => VIDEO.test(codec.trim())),
        });
      }
      tag = undefined;
    }
  });
  if (!variants.length) {
    throw urls.refusal(separate ? `separate audio or video (EXT-X-MEDIA with a URI)${REMUX}` : 'no variants');
  }
  const seen = variants.filter((variant) => !variant.sound);
  return seen.length ? seen : variants;
}

// Milliseconds since 1970 of an EXT-X-PROGRAM-DATE-TIME, or NaN.
function timeOf(text) {
  const at = /^(\d+)-(\d+)-(\d+)T(\d+):(\d+):(\d+)([.]\d+)?(?:([+-])(\d\d):?(\d\d))?/.exec(text);
  if (!at) {
    return NaN;
  }
  const zone = at[8] ? (at[8] === '-' ? -1 : 1) * (at[9] * 60 + Number(at[10])) : 0;
  return Date.UTC(at[1], at[2] - 1, at[3], at[4], at[5] - zone, at[6]) + (at[7] || 0) * 1000;
}

// The key of a tag, null for none. Without a vector of its own it is used with each segment's number.
function parseKey(url, tag, last) {
  const method = String(tag.METHOD).toUpperCase();
  if (method === 'NONE') {
    return null;
  }
  if (method !== 'AES-128') {
    throw urls.refusal(`encryption with ${tag.METHOD} (EXT-X-KEY)`);
  }
  if ((tag.KEYFORMAT || 'identity') !== 'identity' || !tag.URI) {
    throw urls.refusal(`keys of ${tag.KEYFORMAT || 'no URI'} (EXT-X-KEY)`);
  }
  const vector = (tag.IV || '').toLowerCase().replace(/^0x/, '');
  const same = last && last.uri === tag.URI;
  return { uri: tag.URI, url: same ? last.url : urls.resolve(url, tag.URI), vector: vector && vector.padStart(32, '0') };
}

// `first` is what weir is told, two words of 32 bits what vectors are made of: 64 bits are allowed.
function setNumber(media, value) {
  const digits = (/^\d{1,20}/.exec(value) || ['0'])[0];
  let high = 0, low = 0;
  for (let at = 0; at < digits.length; at++) {
    low = low * 10 + Number(digits[at]);
    high = high * 10 + Math.floor(low / WORD);
    low %= WORD;
  }
  media.first = Number(digits.slice(-DIGITS));
  media.words = { high, low };
  media.numbered = true;
}

function vectorOf(media, at) {
  const low = media.words.low + at, high = media.words.high + Math.floor(low / WORD);
  return media.segments[at].key.vector
    || `${high.toString(16).padStart(24, '0')}${(low % WORD).toString(16).padStart(8, '0')}`;
}

function readTag(media, next, line) {
  const tag = line.split(':', 1)[0], value = line.slice(tag.length + 1);
  if (REFUSED[tag]) {
    throw urls.refusal(REFUSED[tag]);
  } else if (tag === '#EXT-X-TARGETDURATION') {
    media.target = Math.ceil(parseFloat(value)) || 1;
  } else if (tag === '#EXT-X-MEDIA-SEQUENCE') {
    setNumber(media, value);
  } else if (tag === '#EXT-X-KEY') {
    next.key = parseKey(media.url, attributes(line), next.key);
  } else if (tag === '#EXT-X-PROGRAM-DATE-TIME') {
    next.time = timeOf(value);
  } else if (tag === '#EXT-X-DISCONTINUITY') {
    next.jump = true;
  } else if (tag === '#EXT-X-ENDLIST') {
    media.ended = true;
  }
}

// Segment URLs stay as written: resolving them costs more than all else.
async function parseMedia(url, lines) {
  const segments = [], next = { key: null, time: NaN, jump: false };
  const media = { url, target: 1, ended: false, first: 0, words: { high: 0, low: 0 }, numbered: false, segments };
  let length = 0;
  for (let at = 0; at < lines.length; at++) {
    if (at % urls.SLICE === 0) {
      await urls.rest();
    }
    const line = lines[at];
    if (!line.startsWith('#')) {
      segments.push({ uri: line, length, time: next.time, jump: next.jump, key: next.key });
      next.time += length * 1000;
      next.jump = false;
    } else if (line.startsWith('#EXTINF:')) {
      length = parseFloat(line.slice(8)) || 0;
    } else {
      readTag(media, next, line);
    }
  }
  if (!segments.length) {
    throw urls.refusal('no segments yet');
  }
  return media;
}

function lastNumber(media) {
  return media.first + media.segments.length - 1;
}

// A segment's path identifies it where there are no numbers; queries may be signed anew each time.
function markOf(segment) {
  urls.spend(1);
  return crypto.createHash('md5').update(segment.uri.split('?')[0]).digest('hex');
}

// Makes the numbers of a playlist go on from those of its last copy, of which `note` (FIRST,LAST,
// RAISE,MARK) tells, even if the encoder has been restarted or sends none. Returns the new note.
function goOn(media, note) {
  const was = (note || '').split(',');
  const first = Number(was[0]), last = Number(was[1]), end = media.segments.length - 1;
  let raise = Number(was[2] || 0);
  if (note && !media.numbered) {
    let same = end;
    while (same >= 0 && markOf(media.segments[same]) !== was[3]) {
      same--;
    }
    raise = last - same;
  } else if (note) {
    const now = lastNumber(media) + raise;
    raise = now < first || now < last - LATE ? last + 1 - media.first : raise;
  }
  media.first += raise;
  return lastNumber(media) < last
    ? note : [media.first, lastNumber(media), raise, markOf(media.segments[end])].join(',');
}

// The index of the segment that begins within half a length of `own`, or -1. Times increase.
function find(segments, own) {
  let low = 0, high = segments.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (segments[middle].time <= own.time - own.length * 500) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low < segments.length && Math.abs(segments[low].time - own.time) < own.length * 500 ? low : -1;
}

// By how much the numbers of a variant are to be raised to be the first variant's: by their times;
// without, by their beginnings if both are whole, else by their ends unless one may just be older.
function offset(first, other) {
  const skipped = first.segments.findIndex((segment) => !isNaN(segment.time));
  const dated = skipped < 0 ? [] : first.segments.slice(skipped);
  for (let at = dated.length ? other.segments.length - 1 : -1; at >= 0; at--) {
    const match = find(dated, other.segments[at]);
    if (match >= 0) {
      return first.first + skipped + match - other.first - at;
    }
  }
  if (first.ended && other.ended && first.segments.length === other.segments.length) {
    return first.first - other.first;
  }
  const apart = lastNumber(first) - lastNumber(other);
  const older = Math.min(first.segments.length + other.segments.length, OUT_OF_STEP);
  return Math.abs(apart) <= older ? 0 : apart;
}

export default { goOn, isMaster, linesOf, offset, parseMedia, usableVariants, vectorOf };
