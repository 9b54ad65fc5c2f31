#!/usr/bin/env python3
"""Remakes fuzz/corpus/elfsections from real files: the heads of the built
runtime and of an AppImage, and their ELF header, program headers, section
headers and section names moved together into a few KiB (the runtime's own
lie 1.5 MB apart), whole, signed, cut short and damaged.
  fuzz/make-elfsections-corpus.py RUNTIME APPIMAGE"""
import os
import struct
import sys

EHDR = struct.Struct('<16sHHIQQQIHHHHHH')
SHDR = struct.Struct('<IIQQQQIIQQ')


def compact(data, sections=None):
    """The headers and names of data in one short file; sections maps a name to
    the text its section then holds, placed after the names."""
    ident, typ, machine, version, entry, phoff, shoff, flags, ehsize, phentsize, phnum, shentsize, shnum, shstrndx = \
        EHDR.unpack_from(data)
    head = bytearray(data[:phoff + phnum * phentsize])
    headers = [list(SHDR.unpack_from(data, shoff + i * shentsize)) for i in range(shnum)]
    names_at, names_size = headers[shstrndx][4], headers[shstrndx][5]
    names = data[names_at:names_at + names_size]
    out = head + names
    headers[shstrndx][4] = len(head)
    for header in headers:
        name = names[header[0]:names.index(b'\0', header[0])].decode()
        if sections and name in sections:
            header[4], header[5] = len(out), len(sections[name]) + 16
            out += sections[name] + bytes(16)
    table_at = len(out)
    for header in headers:
        out += SHDR.pack(*header)
    struct.pack_into('<Q', out, 0x28, table_at)
    return bytes(out), table_at, headers


def main(runtime_path, appimage_path):
    here = os.path.join(os.path.dirname(os.path.abspath(__file__)), 'corpus', 'elfsections')
    os.makedirs(here, exist_ok=True)
    runtime = open(runtime_path, 'rb').read()
    with open(appimage_path, 'rb') as f:
        appimage_head = f.read(4096)
        shoff = struct.unpack_from('<Q', appimage_head, 0x28)[0]
        f.seek(0)
        appimage_elf = f.read(shoff + 64 * struct.unpack_from('<H', appimage_head, 0x3c)[0])
    signed = {'.sha256_sig': b'-----BEGIN PGP SIGNATURE-----\n\niQEzBAABCAAdFiEE\n-----END PGP SIGNATURE-----\n',
              '.sig_key': b'-----BEGIN PGP PUBLIC KEY BLOCK-----\n\nmQENBGV\n-----END PGP PUBLIC KEY BLOCK-----\n'}
    whole, table_at, headers = compact(runtime)
    files = {
        'runtime-head': runtime[:4096],
        'appimage-head': appimage_head,
        'runtime-headers': whole,
        'appimage-headers': compact(appimage_elf)[0],
        'runtime-headers-signed': compact(runtime, signed)[0],
        'runtime-headers-cut': whole[:table_at + 5 * 64 + 17],
    }
    damaged = bytearray(whole)
    struct.pack_into('<H', damaged, 0x3e, 0xffff)  # names table index escaped
    files['runtime-headers-shstrndx'] = bytes(damaged)
    damaged = bytearray(whole)
    damaged[4] = 1  # 32-bit class
    files['runtime-headers-class32'] = bytes(damaged)
    damaged = bytearray(whole)
    names_index = struct.unpack_from('<H', whole, 0x3e)[0]
    struct.pack_into('<Q', damaged, table_at + names_index * 64 + 0x18, 2**64 - 0x1000)  # names offset wrapping
    files['runtime-headers-names-wrap'] = bytes(damaged)
    if files['appimage-headers'] == whole:  # the same runtime: nothing new
        del files['appimage-headers']
    for name, content in files.items():
        assert len(content) < 64 << 10, name
        with open(os.path.join(here, name), 'wb') as f:
            f.write(content)


if __name__ == '__main__':
    main(*sys.argv[1:3])
