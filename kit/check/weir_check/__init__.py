"""Reads a stream as weir would. SPDX-License-Identifier: MIT

weir.py      weir's parsing of URLs, maps and playlists, oddities included
net.py       weir's way of fetching, without its retries
origin.py    the adapter's way of fetching: TLS, redirects, chunked coding
pages.py     fetches playlists and keys
media.py     decrypts segments and detects their format
texts.py     findings from the text of a playlist
viewing.py   one variant: the segments that arrive, and why others do not
ways.py      asks the adapter's own script (by rules.js), or a running adapter
look.py      the whole stream: all variants, and the one that weir starts with
findings.py  the findings' texts and grades
waiting.py   bounds in time
main.py      the command
"""
