#!/usr/bin/env python3
"""Writes the seed inputs of the fuzz targets into a folder.

    make_seeds.py CORPUS_DIR OUT_DIR

Copies the corpus files listed in seeds.txt (beside this script) and adds small hand-made
inputs that the corpus lacks: TIFF directory chains of several pages, chains that loop, and
segmented page documents. Fails when a listed file is missing or larger than 64 KiB.
"""

import pathlib
import struct
import sys

HERE = pathlib.Path(__file__).resolve().parent
LIMIT = 64 * 1024

# ---- TIFF ----------------------------------------------------------------------------------

SHORT, LONG = 3, 4


def tiff_page(order, data_offset, next_offset):
    """One directory of a 2x2 8-bit grey page whose 4 pixel bytes sit at data_offset."""
    entries = [
        (256, SHORT, 2),  # ImageWidth
        (257, SHORT, 2),  # ImageLength
        (258, SHORT, 8),  # BitsPerSample
        (259, SHORT, 1),  # Compression: none
        (262, SHORT, 1),  # PhotometricInterpretation: min-is-black
        (273, LONG, data_offset),  # StripOffsets
        (277, SHORT, 1),  # SamplesPerPixel
        (278, SHORT, 2),  # RowsPerStrip
        (279, LONG, 4),  # StripByteCounts
    ]
    out = struct.pack(order + "H", len(entries))
    for tag, kind, value in entries:
        packed = struct.pack(order + ("H2x" if kind == SHORT else "I"), value)
        out += struct.pack(order + "HHI", tag, kind, 1) + packed
    return out + struct.pack(order + "I", next_offset)


def tiff(pages, big_endian=False, last_next=None):
    """A TIFF of `pages` pages, each 4 pixel bytes followed by its directory. The last
    directory points to `last_next(directory offsets)`, or ends the chain."""
    order = ">" if big_endian else "<"
    directory_size = len(tiff_page(order, 0, 0))
    data = [8 + i * (4 + directory_size) for i in range(pages)]
    directories = [offset + 4 for offset in data]
    out = (b"MM" if big_endian else b"II") + struct.pack(order + "HI", 42, directories[0])
    for i in range(pages):
        if i + 1 < pages:
            following = directories[i + 1]
        else:
            following = last_next(directories) if last_next else 0
        pixels = bytes([16 * i, 64, 128, 255])
        out += pixels + tiff_page(order, data[i], following)
    return out


# ---- Segmented page documents ----------------------------------------------------------------


def marker(tag, length):
    return struct.pack(">HH", tag, length)


END = marker(0xF000, 0)


def cgm_command(klass, element, parameters=b""):
    assert len(parameters) < 31 and len(parameters) % 2 == 0
    return struct.pack(">H", klass << 12 | element << 5 | len(parameters)) + parameters


def cgm_page(width, height, rows):
    """A CGM stream holding one plain bi-level raster of `rows` (each ceil(width / 8) bytes)."""
    head = bytes(16) + bytes([0xF0, 0x07, 0xF9, 196]) + struct.pack(">HH", width, height)
    return (
        cgm_command(0, 1)  # begin metafile
        + cgm_command(2, 6, struct.pack(">4H", 0, 0, width, height))  # VDC extent
        + cgm_command(4, 10, head + b"".join(rows))  # generalized drawing primitive
        + cgm_command(0, 2)  # end metafile
    )


def page_descriptor():
    descriptor = bytearray(24)
    descriptor[0:4] = b"\xF0\x04\x00\x14"
    descriptor[12] = 0xF1
    return bytes(descriptor)


def open_page(stream):
    """Content running to its own end marker, a skipped field, the stream in one block."""
    return (
        marker(0xF110, 0x8000)
        + page_descriptor()
        + marker(0xF110, 0x8000)
        + marker(0xF500, 4)
        + b"skip"
        + marker(0xF401, len(stream))
        + stream
        + END
        + END
    )


def blocked_page(stream, split):
    """Content of a stated length, the stream in two blocks closed by an F0 00 tag."""
    content = (
        marker(0xF501, 0)
        + marker(0xF004, split)
        + stream[:split]
        + marker(0xF004, len(stream) - split)
        + stream[split:]
        + END
    )
    return marker(0xF110, 0x8000) + page_descriptor() + marker(0xF110, len(content)) + content + END


def document(digits, pages):
    """The two EBCDIC digits place the document at digits x 256."""
    start = ((digits[0] - 0xF0) * 10 + digits[1] - 0xF0) * 256
    head = bytes(digits) + b"\x23\x00"
    return head + bytes(start - len(head)) + marker(0xF111, 0x8000) + b"".join(pages) + END


def hand_made():
    stream = cgm_page(8, 2, [b"\xAA", b"\x55"])
    wide = cgm_page(12, 1, [b"\xF0\x0F"])
    return {
        "tiff-three-pages-le.tif": tiff(3),
        "tiff-two-pages-be.tif": tiff(2, big_endian=True),
        "tiff-loop-to-first.tif": tiff(2, last_next=lambda directories: directories[0]),
        "tiff-loop-to-self.tif": tiff(1, last_next=lambda directories: directories[0]),
        "tiff-next-beyond-end.tif": tiff(2, last_next=lambda directories: 0x7FFFFFF0),
        "tiff-empty-directory.tif": b"II*\x00\x08\x00\x00\x00" + bytes(6),
        "tiff-header-only.tif": b"MM\x00*\x00\x00\x00\x08",
        "document-two-pages.bin": document(
            b"\xF0\xF3", [open_page(stream), blocked_page(stream, 20)]
        ),
        "document-at-1024.bin": document(b"\xF0\xF4", [blocked_page(wide, 6)]),
        "document-at-256.bin": document(b"\xF0\xF1", [open_page(wide)]),
        "jpeg-colour-fax-head.jpg": b"\xFF\xD8\xFF\xE1\x00\x0CG3FAX\x00\x07\xCA\xFF\xD9",
        "psd-head.psd": b"8BPS\x00\x01" + bytes(20),
    }


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: make_seeds.py CORPUS_DIR OUT_DIR")
    corpus, out = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
    out.mkdir(parents=True, exist_ok=True)
    listed = [
        line.strip()
        for line in (HERE / "seeds.txt").read_text().splitlines()
        if line.strip() and not line.startswith("#")
    ]
    for name in listed:
        source = corpus / name
        if not source.is_file():
            sys.exit(f"make_seeds.py: {source} is missing")
        data = source.read_bytes()
        if len(data) > LIMIT:
            sys.exit(f"make_seeds.py: {source} is larger than {LIMIT} bytes")
        (out / ("corpus-" + name.replace("/", "-"))).write_bytes(data)
    made = hand_made()
    for name, data in made.items():
        (out / ("made-" + name)).write_bytes(data)
    print(f"{len(listed)} corpus files and {len(made)} hand-made seeds in {out}")


if __name__ == "__main__":
    main()
