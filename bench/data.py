#!/usr/bin/env python3
"""The data sets of bench/compare, the same on every machine and in every run.

    data.py SET PARENT [--scale F]     makes PARENT/SET

S     40,000 files, most of them small (median 2 KiB), in 2,000 directories: about 190 MB
M     2,000 files, 400 MB
L     3 files of 400 MB
T     2,000 files like those of S, in 20 directories
100k, 1M   that many files of 100 bytes, to see what one more member costs
"""
import argparse
import itertools
import os
import random

SETS = ("S", "M", "L", "T", "100k", "1M")
PIECE = 256 << 10  # what is copied from a pool at once; more than any codec looks back is drawn anew
FIRST_TIME = 1_500_000_000
TIME_SPAN = 200_000_000


class Pools:
    """Bytes of each kind, made once; a file is made of pieces from random places of its kind's pool."""

    def __init__(self, rng, size):
        letters, weights = "etaoinshrdlucmfwygpbvk", [1 / (i + 2) for i in range(22)]
        words = ["".join(rng.choices(letters, weights, k=rng.randint(2, 9))) for _ in range(8000)]
        frequency = list(itertools.accumulate(1 / (rank + 3) for rank in range(len(words))))
        some = lambda n: " ".join(rng.choices(words, cum_weights=frequency, k=n))
        self.words = words
        self.text = "".join(some(12) + ".\n" for _ in range(size // 66)).encode()
        self.log = "".join(self.log_line(rng, i, some(5)) for i in range(size // 100)).encode()
        # As programs and data files look: records with counters, runs of zeros, what does not compress.
        parts = []
        for i in range(size // 4096):
            records = range(i * 128, i * 128 + 128)
            parts += [number.to_bytes(4, "little") + b"\0\0\1\0" + rng.randbytes(4) for number in records]
            parts += [bytes(1024), rng.randbytes(1536)]
        self.binary = b"".join(parts)

    @staticmethod
    def log_line(rng, i, words):
        time = f"2024-{1 + i // 20_000 % 12:02d}-17T{i // 3600 % 24:02d}:{i // 60 % 60:02d}:{i % 60:02d}"
        level, worker = rng.choice(("INFO ", "DEBUG", "WARN ")), rng.randrange(16)
        text = f"{level} [worker-{worker}] {words} id={rng.getrandbits(48):012x}"
        return f"{time}.{rng.randrange(1000):03d}Z {text}\n"

    def pieces(self, rng, kind, size):
        pool = getattr(self, kind)
        while size > 0:
            start = rng.randrange(len(pool))
            piece = pool[start:start + min(size, PIECE)]
            yield piece
            size -= len(piece)


def layout(rng, name, scale, words):
    """Yields (path, kind, size) of each file of a set."""
    scaled = lambda n: max(2, round(n * scale))
    if name == "L":
        for kind in ("text", "log", "binary"):
            yield f"{kind}.dat", kind, round(400e6 * scale)
        return
    if name == "S":
        files, dirs, median, spread, most = scaled(40_000), scaled(2_000), 2048, 1.31, 1 << 20
    elif name == "T":
        files, dirs, median, spread, most = scaled(2_000), scaled(20), 2048, 1.31, 1 << 20
    elif name == "M":
        files, dirs, median, spread, most = scaled(2_000), scaled(40), 102_000, 1.2, 8 << 20
    else:
        files = scaled({"100k": 100_000, "1M": 1_000_000}[name])
        dirs, median, spread, most = max(2, files // 1000), 100, 0, 100
    for i in range(files):
        kind = rng.choices(("text", "log", "binary"), (5, 2, 3))[0]
        ending = {"text": rng.choice(("txt", "md", "c", "html")), "log": "log", "binary": "bin"}[kind]
        place = i * dirs // files
        path = f"area-{place % 20:02d}/{words[place % 500]}-{place:04d}/{words[i % 997]}-{i:07d}.{ending}"
        yield path, kind, min(most, round(median * rng.lognormvariate(0, spread)))


def generate(name, parent, scale=1.0):
    """Makes parent/name; returns the number of files."""
    rng = random.Random(f"morvane {name}")
    pools = Pools(rng, min(16 << 20, max(1 << 20, int(scale * (16 << 20)))))
    root = os.path.join(parent, name)
    made, count = {root}, 0
    os.makedirs(root)
    for path, kind, size in layout(rng, name, scale, pools.words):
        full = os.path.join(root, path)
        folder = os.path.dirname(full)
        if folder not in made:
            os.makedirs(folder, exist_ok=True)
            made.add(folder)
        with open(full, "wb", buffering=0) as file:
            for piece in pools.pieces(rng, kind, size):
                file.write(piece)
        time = FIRST_TIME + rng.randrange(TIME_SPAN)
        os.utime(full, (time, time))
        count += 1
    return count


if __name__ == "__main__":
    lines = argparse.RawDescriptionHelpFormatter
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=lines)
    parser.add_argument("set", choices=SETS)
    parser.add_argument("parent")
    parser.add_argument("--scale", type=float, default=1.0, help="of the file count; for L of the sizes")
    arguments = parser.parse_args()
    print(generate(arguments.set, arguments.parent, arguments.scale), "files")
