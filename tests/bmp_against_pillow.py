#!/usr/bin/python3
"""bmp_against_pillow.py VLOAD CORPUS_DIR: every public sample bitmap the loader
accepts, converted to PNG by the vload tool, equals Pillow's reading of it.

Not compared: samples invalid on purpose; files whose data offset is not where
the colour table ends (the loader reads rows from there on purpose); 1-bit
pictures whose table is not black and white (delivered as dark and light).
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


def expected_offset(data):
    header = struct.unpack_from("<I", data, 14)[0]
    if header == 12:
        bits = struct.unpack_from("<H", data, 24)[0]
        used, entry = 0, 3
    else:
        bits = struct.unpack_from("<H", data, 28)[0]
        used, entry = struct.unpack_from("<I", data, 46)[0], 4
    if bits > 8:
        return 14 + header, bits
    if used == 0:
        used = 1 << bits
    return 14 + header + used * entry, bits


def main():
    vload, corpus = sys.argv[1], os.path.join(sys.argv[2], "bmp")
    if not os.path.isdir(corpus):
        print("no corpus: skipped")
        return 77
    compared = quirks = refused = invalid = 0
    failures = []
    with tempfile.TemporaryDirectory() as work:
        for name in sorted(os.listdir(corpus)):
            path = os.path.join(corpus, name)
            out = os.path.join(work, "out.png")
            run = subprocess.run([vload, "convert", "--loader", "24", "--quiet", path, out],
                                 capture_output=True)
            if run.returncode != 0:
                refused += 1
                continue
            if "_b_" in name or "_Bad_" in name:
                invalid += 1  # samples that are wrong on purpose: any reading will do
                continue
            data = open(path, "rb").read()
            offset, bits = expected_offset(data)
            if struct.unpack_from("<I", data, 10)[0] != offset:
                quirks += 1
                continue
            try:
                ref = Image.open(path)
                ref.load()
            except Exception:
                quirks += 1  # accepted by the loader, refused by Pillow
                continue
            ours = Image.open(out)
            if bits == 1:
                palette = ref.getpalette()[:6] if ref.mode == "P" else None
                if ref.mode == "1" or palette in ([0, 0, 0, 255, 255, 255], [255, 255, 255, 0, 0, 0]):
                    ref, ours = ref.convert("L"), ours.convert("L")
                else:
                    quirks += 1
                    continue
            else:
                ref, ours = ref.convert("RGB"), ours.convert("RGB")
            if ref.size != ours.size or ref.tobytes() != ours.tobytes():
                failures.append(name)
            else:
                compared += 1
    print(json.dumps({"identical": compared, "deliberately different or unreadable by Pillow": quirks,
                      "refused by the loader": refused, "invalid samples": invalid,
                      "mismatches": failures}))
    return 1 if failures or compared == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
