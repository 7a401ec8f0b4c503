#!/usr/bin/python3
"""against_pillow.py VLOAD CORPUS_DIR FORMAT: every public sample of FORMAT
(a folder of the corpus) that our loader accepts, converted to PNG by the
vload tool, equals Pillow's reading of it, pixel for pixel.

Samples invalid on purpose are not compared, nor samples that a format's
filter below sets aside with a reason (a deliberate behaviour of the loader).
Exit 77 (skip) without the corpus or Pillow.
"""
import json
import os
import struct
import subprocess
import sys
import tempfile

try:
    from PIL import Image
except ImportError:
    print("Pillow is not installed: skipped")
    sys.exit(77)


def bmp_filter(data, ref):
    """Rows are read from where the colour table ends, not from the data
    offset of the file header; 1-bit pictures come as dark and light."""
    header = struct.unpack_from("<I", data, 14)[0]
    if header == 12:
        bits, used, entry = struct.unpack_from("<H", data, 24)[0], 0, 3
    else:
        bits, used, entry = struct.unpack_from("<H", data, 28)[0], struct.unpack_from("<I", data, 46)[0], 4
    table = 0 if bits > 8 else (used or 1 << bits) * entry
    if struct.unpack_from("<I", data, 10)[0] != 14 + header + table:
        return "data offset elsewhere"
    if bits == 1 and ref.mode == "P" and ref.getpalette()[:6] not in (
            [0, 0, 0, 255, 255, 255], [255, 255, 255, 0, 0, 0]):
        return "1 bit in colours"
    return None


def tiff_filter(data, ref):
    """Bilevel pictures come as dark and light; rows come in stored order
    (Pillow turns pages it decodes through libtiff); Pillow clips 16-bit grey
    where the loader scales it, and keeps L*a*b* as it is; separate planes with
    alpha go through libtiff's premultiplied RGBA interface."""
    photometric, bits = ref.tag_v2.get(262), ref.tag_v2.get(258, (1,))
    if ref.tag_v2.get(274, 1) != 1:
        return "orientation"
    if ref.tag_v2.get(284, 1) == 2 and ref.tag_v2.get(338):
        return "separate planes with alpha"
    if photometric == 3 and bits[0] == 1 and ref.getpalette()[:6] not in (
            [0, 0, 0, 255, 255, 255], [255, 255, 255, 0, 0, 0]):
        return "1 bit in colours"
    if ref.mode.startswith("I") or ref.mode == "F":
        return "16-bit grey"
    if ref.mode == "LAB":
        return "L*a*b*"
    return None


# FORMAT: (loader number, filter). A filter returns None to compare, or why not.
FORMATS = {
    "bmp": (24, bmp_filter),
    "tiff": (5, tiff_filter),
    "webp": (6, lambda data, ref: None),
}


def invalid(name):
    return "_b_" in name or "_Bad_" in name or "invalid" in name


def main():
    vload, corpus, fmt = sys.argv[1], sys.argv[2], sys.argv[3]
    loader, keep = FORMATS[fmt]
    folder = os.path.join(corpus, fmt)
    if not os.path.isdir(folder):
        print("no corpus: skipped")
        return 77
    counts = {"identical": 0, "refused by the loader": 0, "not compared": 0}
    failures = []
    with tempfile.TemporaryDirectory() as work:
        out = os.path.join(work, "out.png")
        for name in sorted(os.listdir(folder)):
            path = os.path.join(folder, name)
            run = subprocess.run([vload, "convert", "--loader", str(loader), "--quiet", path, out],
                                 capture_output=True)
            if run.returncode != 0:
                counts["refused by the loader"] += 1
                continue
            try:
                ref = Image.open(path)
                ref.load()
            except Exception:
                ref = None
            if invalid(name) or ref is None or keep(open(path, "rb").read(), ref):
                counts["not compared"] += 1
                continue
            ours = Image.open(out)
            mode = "RGBA" if "A" in ref.mode and ours.mode == "RGBA" else "RGB"
            a, b = ref.convert(mode), ours.convert(mode)
            if a.size != b.size or a.tobytes() != b.tobytes():
                failures.append(name)
            else:
                counts["identical"] += 1
    counts["mismatches"] = failures
    print(json.dumps(counts))
    return 1 if failures or counts["identical"] == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
