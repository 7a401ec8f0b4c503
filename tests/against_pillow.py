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


def pnm_filter(data, ref):
    """Pillow keeps samples above 8 bits, which we round to 8."""
    return "16-bit samples" if ref.mode.startswith("I") else None


def psd_filter(data, ref):
    """CMYK and Lab documents are converted by our own formulas."""
    mode = struct.unpack_from(">H", data, 24)[0]
    if mode in (4, 9):
        return "CMYK or Lab"
    if mode == 0:
        return "bitmap: Pillow 9.4 takes a set bit for white; the format's set bit is black"
    return None


def pcx_filter(data, ref):
    """24-bit pictures whose brightest byte is below 255 come stretched to
    it; Pillow steps through planar lines by the width, not by the bytes per
    line the header gives."""
    bits, planes = data[3], data[65]
    if bits == 8 and planes == 3 and 1 <= max(top for _, top in ref.getextrema()) <= 254:
        return "24 bits, stretched"
    width = struct.unpack_from("<H", data, 8)[0] - struct.unpack_from("<H", data, 4)[0] + 1
    if bits == 1 and planes > 1 and struct.unpack_from("<H", data, 66)[0] != (width + 7) // 8:
        return "planar lines with padding"
    return None


def png_filter(data, ref):
    """Grey and palette transparency goes through the loader's alpha table,
    whose entry 255 is always 0; 16-bit grey is cut to its high byte where
    Pillow clips it."""
    if b"tRNS" in data and data[25] in (0, 3):
        return "transparency through the alpha table"
    if data[24] == 16 and data[25] in (0, 4):
        return "16-bit grey"
    return None


def jpeg_filter(data, ref):
    """Greys pass through libjpeg's one-pass quantizer, which moves some by
    one; CMYK is converted as K x C / 256."""
    if ref.mode in ("L", "CMYK"):
        return ref.mode + " picture"
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
    "pnm": (12, pnm_filter),
    "psd": (76, psd_filter),
    "pcx": (3, pcx_filter),
    "png": (2, png_filter),
    "jpeg": (4, jpeg_filter),
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
