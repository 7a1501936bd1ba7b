// What playlists say (RFC 8216), of an origin's lines without blanks around them.
import urls from 'url.js';

const REFUSED = {
  '#EXT-X-MAP': 'fragmented MP4 (EXT-X-MAP)',
  '#EXT-X-BYTERANGE': 'byte ranges (EXT-X-BYTERANGE)',
  '#EXT-X-DEFINE': 'variables (EXT-X-DEFINE)',
  '#EXT-X-I-FRAMES-ONLY': 'trick play (EXT-X-I-FRAMES-ONLY)',
};
const VIDEO = /^(avc|hvc|hev|dvh|dva|mp4v|vp0|av01)/i;

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

// The lines behind the first.
function linesOf(text) {
  const lines = text.replace(/^\uFEFF/, '').split('\n').map((line) => line.trim()).filter((line) => line);
  if (lines[0] !== '#EXTM3U') {
    throw urls.refusal('no playlist');
  }
  return lines.slice(1);
}

function isMaster(lines) {
  return lines.some((line) => line.startsWith('#EXT-X-STREAM-INF:'));
}

// The variants of a master playlist in which sound and picture come together.
function usableVariants(url, lines) {
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
    throw urls.refusal(separate ? 'separate audio or video (EXT-X-MEDIA with a URI)' : 'no variants');
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

// The key and the vector of a tag, null where there is none. No vector stands for the number.
function parseKey(url, tag) {
  if (tag.METHOD === 'NONE') {
    return null;
  }
  if (tag.METHOD !== 'AES-128') {
    throw urls.refusal(`encryption with ${tag.METHOD} (EXT-X-KEY)`);
  }
  if ((tag.KEYFORMAT || 'identity') !== 'identity' || !tag.URI) {
    throw urls.refusal(`keys of ${tag.KEYFORMAT || 'no URI'} (EXT-X-KEY)`);
  }
  const vector = (tag.IV || '').toLowerCase().replace(/^0x/, '');
  return { url: urls.resolve(url, tag.URI), vector: vector && vector.padStart(32, '0') };
}

function parseMedia(url, lines) {
  const media = { target: 1, ended: false, segments: [] };
  let number = 0, key = null, time = NaN, length = 0, jump = false;
  lines.forEach((line) => {
    const tag = line.split(':')[0];
    const value = line.slice(tag.length + 1);
    if (REFUSED[tag]) {
      throw urls.refusal(REFUSED[tag]);
    } else if (tag === '#EXT-X-TARGETDURATION') {
      media.target = Math.ceil(parseFloat(value)) || 1;
    } else if (tag === '#EXT-X-MEDIA-SEQUENCE') {
      number = parseInt(value) || 0;
    } else if (tag === '#EXT-X-KEY') {
      key = parseKey(url, attributes(line));
    } else if (tag === '#EXT-X-PROGRAM-DATE-TIME') {
      time = timeOf(value);
    } else if (tag === '#EXT-X-DISCONTINUITY') {
      jump = true;
    } else if (tag === '#EXTINF') {
      length = parseFloat(value) || 0;
    } else if (tag === '#EXT-X-ENDLIST') {
      media.ended = true;
    } else if (!line.startsWith('#')) {
      const vector = key && (key.vector || number.toString(16).padStart(32, '0'));
      media.segments.push(
        { number, url: urls.resolve(url, line), length, time, jump, key: key && key.url, vector });
      number++;
      time += length * 1000;
      jump = false;
    }
  });
  if (!media.segments.length) {
    throw urls.refusal('no segments yet');
  }
  return media;
}

// By how much the numbers of a variant are to be raised to be those of the first: by their
// times, else by their beginnings if both are whole, else by their ends if those are far apart,
// because one may have been fetched a segment later.
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
  if (first.ended && other.ended && first.segments.length === other.segments.length) {
    return first.segments[0].number - other.segments[0].number;
  }
  const apart = last(first) - last(other);
  return Math.abs(apart) > 2 ? apart : 0;
}

export default { isMaster, linesOf, offset, parseMedia, usableVariants };
