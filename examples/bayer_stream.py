#!/usr/bin/env python3
"""An example Python host: a simulated camera delivers 12-bit packed Bayer (RGGB) frames of a
synthetic scene; they are acquired through a frame pool whose reserver keeps free frames ready
under a memory limit, demosaiced into numpy arrays, and the last one is saved as a PNG.

    bayer_stream.py [--width N] [--height N] [--frames N] [--memory-mb N] [--output FILE.png]
"""
import argparse
import struct
import sys
import time
import zlib

import numpy as np

import lumoframekit as lf


def scene(width, height):
    """Colour bars over a gradient, 12 bits a channel, shape (height, width, 3)."""
    x = np.linspace(0, 1, width)[None, :]
    y = np.linspace(0, 1, height)[:, None]
    bars = np.array([[1, 1, 1], [1, 1, 0], [0, 1, 1], [0, 1, 0], [1, 0, 1], [1, 0, 0], [0, 0, 1], [0.1, 0.1, 0.1]])
    rgb = bars[(np.arange(width) * 8 // width)][None, :, :] * np.ones((height, 1, 1))
    lower = y[:, 0] > 0.5
    rgb[lower] = np.stack([x.repeat(height, 0), y.repeat(width, 1), 1 - x.repeat(height, 0)], axis=2)[lower]
    return np.round(rgb * 4095).astype(np.uint16)


def bayer12p_rggb(rgb):
    """The scene through an RGGB filter, packed 2 pixels in 3 bytes (high bits first) as the camera sends it."""
    mosaic = np.empty(rgb.shape[:2], np.uint16)
    mosaic[0::2, 0::2] = rgb[0::2, 0::2, 0]
    mosaic[0::2, 1::2] = rgb[0::2, 1::2, 1]
    mosaic[1::2, 0::2] = rgb[1::2, 0::2, 1]
    mosaic[1::2, 1::2] = rgb[1::2, 1::2, 2]
    a, b = mosaic.reshape(-1)[0::2], mosaic.reshape(-1)[1::2]
    packed = np.stack([a >> 4, (a & 15) | ((b & 15) << 4), b >> 4], axis=1)
    return packed.astype(np.uint8).tobytes()


def write_png(path, rgb8):
    """An 8-bit RGB PNG from an array of shape (height, width, 3), with the standard library only."""
    height, width, _ = rgb8.shape
    rows = b"".join(b"\x00" + np.ascontiguousarray(rgb8[y]).tobytes() for y in range(height))

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)
    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b""))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--width", type=int, default=1920)
    parser.add_argument("--height", type=int, default=1080)
    parser.add_argument("--frames", type=int, default=60)
    parser.add_argument("--memory-mb", type=float, default=256)
    parser.add_argument("--output", default="bayer_stream.png")
    args = parser.parse_args()
    if args.width % 2 or args.height % 2 or args.width < 4 or args.height < 4:
        parser.error("width and height must be even and at least 4")

    delivered = bayer12p_rggb(scene(args.width, args.height))
    limiter = lf.MemoryLimiter(int(args.memory_mb * 2**20))
    dropped, last = 0, None
    start = time.perf_counter()
    with lf.create_frame_pool(limiter) as pool:
        pool.start_reserver(2, 6)
        for number in range(args.frames):
            with pool.get_frame(lf.FrameType.BAYER12_PACKED_RGGB, args.width, args.height) as frame:
                try:
                    frame.allocate_buffer()[:] = delivered  # the camera fills the frame's own buffer
                except MemoryError:
                    dropped += 1  # refused by the limit: this image is lost, the stream goes on
                    continue
                frame.metadata["frameNumber"] = number
                last = frame.get_data()  # demosaiced RGB, shape (height, width, 3), uint16
    seconds = time.perf_counter() - start
    print(f"{args.frames - dropped} frames of {args.width}x{args.height} in {seconds:.2f} s "
          f"({(args.frames - dropped) / seconds:.1f} frames/s), dropped {dropped}")
    if last is None:
        print("no frame was converted", file=sys.stderr)
        return 1
    write_png(args.output, (last >> 4).astype(np.uint8))
    print(f"picture: {args.output}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
