// Runs kit/adapter for one request, without nginx: `asked`, which weir-check defines, has the request's
// URI, the listed origins and what they have replied. Prints the adapter's answer as JSON, or the
// subrequests that it makes and that `asked` has no reply to.
/* global asked, console, globalThis */
import weir from 'adapter.js';

const SHOWN = 4096; // bytes of a segment
const PRINTED = /[\s\S]{1,500}/g; // njs prints up to 2,048 bytes of a text
const ANSWERED = { upstream_addr: '-', upstream_header_time: '0', upstream_bytes_sent: '1' };
const told = { wanted: [], status: 0, text: '', media: '' };

function reply(location, options) {
  const known = asked.replies[`${location} ${options.method || 'GET'} ${options.args}`];
  if (!known && !location.startsWith('/re')) { // /recall and /remember: nothing is noted
    told.wanted.push([location, options.method || 'GET', options.args]);
  } else if (known && known.why) {
    throw { reason: `${known.why}: ${options.args}` };
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
  subrequest: async (location, options) => reply(location, options),
  internalRedirect: () => undefined,
  return: (status, body) => {
    told.status = status;
    if (typeof body === 'string') {
      told.text = body;
    } else {
      told.media = body.slice(0, SHOWN).toString('base64');
    }
  },
};

globalThis.setTimeout = (run) => run(); // an origin that was away is not asked again
weir.serve(r).then(() => {
  told.reason = r.headersOut['X-Weir-Adapter'] || '';
  told.target = r.variables.weir_target || '';
  told.key = r.variables.weir_key || '';
  JSON.stringify(told).match(PRINTED).forEach((piece) => console.log(piece));
});
