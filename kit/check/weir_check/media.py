"""Decrypts segments, with the library that weir itself uses, and detects their format."""

import ctypes
import ctypes.util
import zlib

PACKET = 188  # bytes of a transport stream
AUDIO = b"\xff\xf1", b"\xff\xf9", b"\xff\xfa", b"\xff\xfb", b"\x0b\x77"  # the first bytes of frames


def decrypt(data: bytes, key: bytes) -> bytes | None:
    """AES-128-CBC with a zero vector, as weir does; None without libcrypto."""
    name = ctypes.util.find_library("crypto")
    if name is None:
        return None
    crypto, count = ctypes.CDLL(name), ctypes.c_int()
    crypto.EVP_CIPHER_CTX_new.restype = crypto.EVP_aes_128_cbc.restype = ctypes.c_void_p
    context = ctypes.c_void_p(crypto.EVP_CIPHER_CTX_new())
    cipher = ctypes.c_void_p(crypto.EVP_aes_128_cbc())
    crypto.EVP_DecryptInit_ex(context, cipher, None, key[:16].ljust(16, b"\0"), bytes(16))
    out = ctypes.create_string_buffer(len(data) + 32)
    crypto.EVP_DecryptUpdate(context, out, ctypes.byref(count), data, len(data))
    length = count.value
    crypto.EVP_DecryptFinal_ex(context, ctypes.byref(out, length), ctypes.byref(count))
    crypto.EVP_CIPHER_CTX_free(context)
    return out.raw[:length + max(count.value, 0)]


def content(data: bytes) -> str:
    """The format, by its first bytes: ts, damaged (a ts that begins wrong), audio, mp4, text, unknown."""
    if data[:1] == b"G" and data[PACKET:PACKET + 1] in (b"G", b""):
        return "damaged" if table_is_intact(data) is False else "ts"
    if data[PACKET:PACKET + 1] == b"G" and data[2 * PACKET:2 * PACKET + 1] in (b"G", b""):
        return "damaged"
    if data[4:8] in (b"ftyp", b"styp", b"moof", b"moov", b"sidx", b"emsg"):
        return "mp4"
    if data[:3] == b"ID3" or data[:2] in AUDIO:
        return "audio"
    return "text" if data[:1] in (b"<", b"{", b"#") or data[:6] == b"WEBVTT" else "unknown"


def table_is_intact(data: bytes) -> bool | None:
    """Whether the checksum of the program or service table at the start is right.

    If it is, the first 16 bytes were decrypted with the right vector. None if the segment begins
    with anything else.
    """
    if data[1:3] not in (b"\x40\x00", b"\x40\x11") or data[4:5] != b"\0":
        return None
    section = data[5:8 + int.from_bytes(data[6:8], "big") % 4096]
    # The checksum of MPEG-2 is that of zlib with the bits of each byte reversed.
    return zlib.crc32(mirrored(section)) == 0xFFFFFFFF


def mirrored(data: bytes) -> bytes:
    return bytes(int(f"{byte:08b}"[::-1], 2) for byte in data)
