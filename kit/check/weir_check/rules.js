// Runs kit/adapter for a playlist, without nginx: `asked`, which weir-check defines, has the request's
// URI, the listed origins and what they have replied. Prints the adapter's answer as JSON, with the
// subrequests that `asked` has no reply to.
/* global asked, console, globalThis */
import weir from 'adapter.js';

const FETCH = ['/playlist', '/unpacked']; // locations; others have no notes of earlier playlists
const PRINTED = /[\s\S]{1,500}/g; // njs prints up to 2,048 bytes of a text
const ANSWERED = { upstream_addr: '-', upstream_header_time: '0', upstream_bytes_sent: '1' };
const told = { wanted: [], status: 0, text: '' };

function reply(location, url) {
  const fetches = FETCH.includes(location), known = fetches && asked.replies[url];
  if (fetches && !known) {
    told.wanted.push(url);
  } else if (known && known.why) {
    throw { reason: `${known.why}: ${url}` };
  }
  const body = Buffer.from(known ? known.body : '', 'base64');
  return { status: known ? known.status : 404, headersOut: known ? known.fields : {}, variables: ANSWERED,
    responseText: body.toString(), responseBuffer: body };
}

const r = {
  headersIn: { 'X-Weir-Playlists': '', 'X-Weir-Media': '' },
  headersOut: {},
  variables: { request_uri: asked.uri, weir_origins: asked.origins },
  error: () => undefined,
  subrequest: async (location, options) => reply(location, options.args),
  return: (status, text) => {
    told.status = status;
    told.text = text;
  },
};

globalThis.setTimeout = (run) => run(); // an origin that was away is not asked again
weir.serve(r).then(() => {
  told.reason = r.headersOut['X-Weir-Adapter'] || '';
  JSON.stringify(told).match(PRINTED).forEach((piece) => console.log(piece));
});
