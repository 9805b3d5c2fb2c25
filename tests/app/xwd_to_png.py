"""Turns an X window dump (xwd of a TrueColor screen, 8 bits per channel) into a PNG file."""
import struct
import sys
import zlib


def convert(xwd_bytes, margin=0):
    """The PNG bytes, with `margin` white pixels around the screen (OCR misses text at an edge)."""
    fields = struct.unpack(">25I", xwd_bytes[:100])
    header_size, _, pixmap_format, _, width, height = fields[:6]
    byte_order, bits_per_pixel, bytes_per_line = fields[7], fields[11], fields[12]
    red_mask, green_mask, blue_mask, ncolors = fields[14], fields[15], fields[16], fields[19]
    step = bits_per_pixel // 8
    if pixmap_format != 2 or bits_per_pixel not in (24, 32) or bytes_per_line < step * width:
        raise ValueError("only ZPixmap dumps of 3 or 4 bytes per pixel are read")
    if (red_mask, green_mask, blue_mask) != (0xFF0000, 0xFF00, 0xFF):
        raise ValueError("only 8-bit red, green and blue channels are read")
    start = header_size + 12 * ncolors
    # A pixel's bytes: B G R (x) in LSB-first order, (x) R G B in MSB-first order. Xvfb's
    # depth-24 screens give packed 24-bit pixels in rows padded to 4 bytes per pixel.
    red, green, blue = (2, 1, 0) if byte_order == 0 else (step - 3, step - 2, step - 1)
    white = b"\xff" * (3 * margin)
    blank = b"\0" + b"\xff" * (3 * (width + 2 * margin))
    rows = [blank] * margin
    for y in range(height):
        line = xwd_bytes[start + y * bytes_per_line:start + y * bytes_per_line + step * width]
        row = bytearray(3 * width)
        row[0::3], row[1::3], row[2::3] = line[red::step], line[green::step], line[blue::step]
        rows.append(b"\0" + white + bytes(row) + white)

    rows += [blank] * margin
    width, height = width + 2 * margin, height + 2 * margin

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)) +
            chunk(b"IDAT", zlib.compress(b"".join(rows), 6)) + chunk(b"IEND", b""))


if __name__ == "__main__":
    with open(sys.argv[1], "rb") as source:
        png = convert(source.read())
    with open(sys.argv[2], "wb") as target:
        target.write(png)
