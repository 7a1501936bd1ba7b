"""Looks at a stream as weir would. SPDX-License-Identifier: MIT

weir.py      what weir makes of URLs, maps and playlists, oddities included
net.py       how it fetches, without its retries
pages.py     playlists and keys, fetched
media.py     segments: their decryption, and what is in them
texts.py     what playlists give away
viewing.py   what arrives of one variant, and what keeps the rest
look.py      all variants, and which of them weir plays
findings.py  what is said about it, and how bad it is
main.py      the command
"""
