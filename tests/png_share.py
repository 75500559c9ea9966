#!/usr/bin/env python3
"""Prints the share (0..1) of a PNG's pixels within 24 per channel of an RGB colour.

    python3 tests/png_share.py /tmp/screen.png 0,200,83

Plain Python, so it runs on a machine without image tools: 8-bit grey, RGB, grey+alpha and RGBA
pictures, not interlaced (what Qt writes).
"""
import struct
import sys
import zlib


def pixels(path):
    with open(path, 'rb') as f:
        data = f.read()
    if data[:8] != b'\x89PNG\r\n\x1a\n':
        raise ValueError('not a PNG file')
    pos, idat, header = 8, [], None
    while pos < len(data):
        length, kind = struct.unpack('>I4s', data[pos:pos + 8])
        body = data[pos + 8:pos + 8 + length]
        if kind == b'IHDR':
            header = struct.unpack('>IIBBBBB', body)
        elif kind == b'IDAT':
            idat.append(body)
        elif kind == b'IEND':
            break
        pos += 12 + length
    width, height, depth, colour, _, _, interlace = header
    channels = {0: 1, 2: 3, 4: 2, 6: 4}.get(colour)
    if depth != 8 or channels is None or interlace:
        raise ValueError('unsupported PNG: depth %d, colour type %d, interlace %d'
                         % (depth, colour, interlace))
    raw = zlib.decompress(b''.join(idat))
    stride = width * channels
    previous = bytearray(stride)
    rows = []
    for y in range(height):
        start = y * (stride + 1)
        kind, line = raw[start], bytearray(raw[start + 1:start + 1 + stride])
        if kind == 1:
            for i in range(channels, stride):
                line[i] = (line[i] + line[i - channels]) & 255
        elif kind == 2:
            for i in range(stride):
                line[i] = (line[i] + previous[i]) & 255
        elif kind == 3:
            for i in range(stride):
                left = line[i - channels] if i >= channels else 0
                line[i] = (line[i] + ((left + previous[i]) >> 1)) & 255
        elif kind == 4:
            for i in range(stride):
                a = line[i - channels] if i >= channels else 0
                b = previous[i]
                c = previous[i - channels] if i >= channels else 0
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                predictor = a if pa <= pb and pa <= pc else (b if pb <= pc else c)
                line[i] = (line[i] + predictor) & 255
        rows.append(line)
        previous = line
    return width, height, channels, rows


def main():
    path, colour = sys.argv[1], [int(c) for c in sys.argv[2].split(',')]
    width, height, channels, rows = pixels(path)
    matching = 0
    for line in rows:
        for x in range(0, width * channels, channels):
            rgb = (line[x],) * 3 if channels < 3 else line[x:x + 3]
            if all(abs(rgb[i] - colour[i]) <= 24 for i in range(3)):
                matching += 1
    print('%.3f' % (matching / float(width * height)))


if __name__ == '__main__':
    main()
