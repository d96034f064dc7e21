"""The Python module against the C++ library's own results (the reference program), as hosts use it."""
import os
import struct
import subprocess
import sys
import tempfile
import threading

import numpy as np
import pytest

import lumoframekit as lf

FT = lf.FrameType
REFERENCE = os.environ["LUMO_REFERENCE"]

# Codes of every family: monochrome of several sample types and row orders, packed, Bayer plain
# and packed, interleaved and planar RGB, packed RGB words, packed, planar and hybrid YUV.
CODES = [FT.MONO8_TOPDOWN, FT.MONO16_BE_BOTTOMUP, FT.MONO_INT16_LE_TOPDOWN, FT.MONO_DOUBLE_BE_TOPDOWN,
         FT.MONO12_PACKED_LSB, FT.BAYER8_RGGB, FT.BAYER12_PACKED_GBRG, FT.BAYER16_BGGR, FT.RGB24, FT.BGRX32,
         FT.RGB48_BE, FT.RGB565, FT.PLANAR_RGB16_LE, FT.YUV422_UYVY, FT.YUV420_PLANAR_YUV, FT.YUV420_SEMI_PLANAR]


def reference(code, width, height, raw, *request):
    """What the C++ library delivers for the raw bytes: getData, or getDataInColorSpace(space, type, pattern)."""
    with tempfile.TemporaryDirectory() as folder:
        source, result = os.path.join(folder, "in"), os.path.join(folder, "out")
        with open(source, "wb") as f:
            f.write(bytes(raw))
        args = [REFERENCE, str(int(code)), str(width), str(height), source, result] + [str(int(a)) for a in request]
        if subprocess.run(args).returncode != 0:
            return None
        with open(result, "rb") as f:
            return f.read()


def filled(code, width=24, height=10, seed=1):
    frame = lf.frame_factory(code, width, height)
    raw = np.random.default_rng(seed).integers(0, 256, frame.buffer_size, dtype=np.uint8)
    frame.set_buffer(raw)
    return frame, raw


@pytest.mark.parametrize("code", CODES, ids=lambda c: c.name)
def test_get_data_is_the_libraries_planes_in_fortran_order(code):
    frame, raw = filled(code)
    data = frame.get_data()
    assert data.shape == (frame.height, frame.width, frame.bands) == frame.shape
    assert data.dtype == frame.dtype
    assert data.flags["F_CONTIGUOUS"]
    assert data.tobytes(order="F") == reference(code, 24, 10, raw)
    # out= is filled in place and returned, not copied.
    out = np.zeros(frame.shape, dtype=frame.dtype, order="F")
    assert frame.get_data(out=out) is out
    assert np.array_equal(out, data)


@pytest.mark.parametrize("code", CODES, ids=lambda c: c.name)
def test_conversions_match_the_library(code):
    frame, raw = filled(code, seed=2)
    for space in (lf.COLORSPACE_MONO, lf.COLORSPACE_RGB, lf.COLORSPACE_YUV, lf.COLORSPACE_DEMOSAIC):
        for dtype, type_code in ((None, -1), (np.uint16, 2), (np.float32, 6), (np.int8, 1)):
            for pattern in ((0, 4) if space == lf.COLORSPACE_DEMOSAIC else (0,)):
                result = frame.get_data_in_color_space(space, dtype=dtype, pattern=pattern)
                want = reference(code, 24, 10, raw, space, type_code, pattern)
                if want is None:
                    assert result is None
                    continue
                assert result.flags["F_CONTIGUOUS"] and result.ndim == 3
                assert result.shape[:2] == (10, 24)
                assert result.dtype == (np.dtype(dtype) if dtype is not None else frame.dtype)
                assert result.tobytes(order="F") == want


def test_bad_outputs_and_buffers_are_refused_clearly():
    frame = lf.frame_factory(FT.MONO16_LE_TOPDOWN, 8, 4)
    with pytest.raises(ValueError, match="holds no pixels"):
        frame.get_data()
    with pytest.raises(ValueError, match="needs 64"):
        frame.set_buffer(bytes(63))
    frame.set_buffer(np.arange(32, dtype=np.uint16))
    for wrong in (np.zeros((4, 8, 1), np.uint16),  # C order
                  np.zeros((4, 8, 1), np.uint8, order="F"), np.zeros((8, 4, 1), np.uint16, order="F"), [0]):
        with pytest.raises(ValueError, match="Fortran-ordered"):
            frame.get_data(out=wrong)
    with pytest.raises(ValueError, match="dtype"):
        frame.get_data_in_color_space(lf.COLORSPACE_RGB, dtype=np.complex64)
    with pytest.raises(ValueError, match="not one the factory makes"):
        lf.frame_factory(0x7F000000, 4, 4)
    with pytest.raises(ValueError, match="holds 16 bytes; the buffer has 8"):
        frame.copy_region(bytes(8), 4, 2, 0, 0)
    assert issubclass(lf.Error, RuntimeError)


def test_the_buffer_is_filled_in_place_and_regions_are_copied():
    frame = lf.frame_factory(FT.MONO8_TOPDOWN, 6, 4)
    assert frame.buffer is None
    view = frame.allocate_buffer()
    view[:] = bytes(range(24))  # as a camera callback would
    assert np.array_equal(frame.get_data()[:, :, 0], np.arange(24, dtype=np.uint8).reshape(4, 6))
    assert bytes(frame.buffer) == bytes(range(24))
    source = np.arange(100, dtype=np.uint8)  # a 10 x 10 image
    frame.copy_region(source, 10, 10, 3, 2)
    assert np.array_equal(frame.get_data()[:, :, 0], source.reshape(10, 10)[2:6, 3:9])
    with pytest.raises(ValueError, match="outside"):
        frame.copy_region(source, 10, 10, 8, 8)


def test_properties_follow_the_frame():
    frame = lf.frame_factory(FT.BAYER12_PACKED_RGGB, 16, 8)
    assert (frame.width, frame.height, frame.bands, frame.bits_per_band) == (16, 8, 3, 12)
    assert frame.dtype == np.uint16 and frame.frame_type == FT.BAYER12_PACKED_RGGB
    assert frame.buffer_size == 16 * 8 * 3 // 2 and frame.color_space == lf.COLORSPACE_RGB
    frame.timestamp = 2.5
    assert frame.timestamp == 2.5
    frame.color_space = lf.COLORSPACE_MONO  # the mosaic, as set
    frame.allocate_buffer()
    assert frame.get_data_in_color_space(lf.COLORSPACE_MONO).shape == (8, 16, 1)


def test_metadata_round_trips_every_kind():
    frame = lf.frame_factory(FT.MONO8_TOPDOWN, 2, 2)
    values = {"exposure": 0.25, "count": 7, "flag": True, "camera": "left", "gains": np.array([1.0, 2.5]),
              "mask": np.array([True, False, True]), "matrix": np.arange(6.0).reshape(2, 3),
              "cube": np.arange(24.0).reshape(2, 3, 4)}
    for name, value in values.items():
        frame.metadata[name] = value
    frame.add_metadata("time", 12.5, kind="time")
    frame.add_metadata("list", [1, 2, 3])
    assert sorted(frame.metadata) == sorted(list(values) + ["time", "list"]) == frame.metadata.keys()
    assert len(frame.metadata) == 10 and "exposure" in frame.metadata and "nothing" not in frame.metadata
    for name, value in values.items():
        assert np.array_equal(frame.metadata[name], value), name
    assert frame.metadata["flag"] == 1 and frame.metadata["time"] == 12.5
    assert frame.metadata["mask"].dtype == bool and frame.metadata["list"].dtype == np.float64
    frame.metadata["count"] = "replaced"
    assert frame.metadata["count"] == "replaced"
    with pytest.raises(KeyError):
        frame.metadata["nothing"]
    with pytest.raises(ValueError, match="kind"):
        frame.add_metadata("x", 1.0, kind="colour")
    with pytest.raises(TypeError):
        frame.metadata["x"] = object()


def test_pool_frames_return_on_release_and_the_limit_holds():
    limiter = lf.MemoryLimiter(2 * 64 * 64)
    assert (limiter.used, limiter.limit) == (0, 2 * 64 * 64)
    with lf.create_frame_pool(limiter) as pool:
        assert pool.limiter is limiter
        pool.start_reserver(0, 4)
        with pool.get_frame(FT.MONO8_TOPDOWN, 64, 64) as a, pool.get_frame(FT.MONO8_TOPDOWN, 64, 64) as b:
            a.allocate_buffer()
            b.allocate_buffer()
            assert limiter.used == 2 * 64 * 64
            c = pool.get_frame(FT.MONO8_TOPDOWN, 64, 64)
            with pytest.raises(MemoryError):
                c.allocate_buffer()
            assert limiter.used == 2 * 64 * 64
            del c
        assert pool.free_frame_count == 2  # both came back with their buffers
        again = pool.get_frame(FT.MONO8_TOPDOWN, 64, 64)
        assert again.buffer is not None and pool.free_frame_count == 1
        again.metadata["n"] = 1
        del again  # dropped by Python: back to the pool
        assert pool.free_frame_count == 2
        assert len(pool.get_frame(FT.MONO8_TOPDOWN, 64, 64).metadata) == 0  # recycled clean
        pool.stop_reserver()
        assert pool.free_frame_count == 0 and limiter.used == 0
        with pytest.raises(ValueError, match="above"):
            pool.start_reserver(3, 2)
    with pytest.raises(ValueError, match="destroyed"):
        pool.get_frame(FT.MONO8_TOPDOWN, 8, 8)
    limiter.limit = 5
    limiter.reset()
    assert limiter.limit == 2 * 64 * 64
    assert lf.PhysicalMemoryMemoryLimiter(90).used == 0


def test_frames_outlive_their_pool_and_limiter_handles():
    limiter = lf.MemoryLimiter(1 << 20)
    pool = lf.create_frame_pool(limiter)
    frame = pool.get_frame(FT.BAYER8_GRBG, 32, 32)
    frame.allocate_buffer()
    del pool, limiter  # the frame keeps both alive
    assert frame.get_data().shape == (32, 32, 3)
    frame.release()
    with pytest.raises(ValueError, match="released"):
        frame.get_data()
    frame.release()  # a second release changes nothing


def test_two_threads_demosaic_at_once():
    frame, raw = filled(FT.BAYER12_PACKED_RGGB, 640, 480, seed=3)
    want = reference(FT.BAYER12_PACKED_RGGB, 640, 480, raw)
    results, errors = [], []

    def convert():
        try:
            for _ in range(4):
                results.append(frame.get_data().tobytes(order="F"))
                results.append(frame.get_data_in_color_space(lf.COLORSPACE_RGB).tobytes(order="F"))
        except Exception as e:  # noqa: BLE001 - reported below
            errors.append(e)

    threads = [threading.Thread(target=convert) for _ in range(2)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert not errors and len(results) == 16 and all(r == want for r in results)


def test_pixel_formats_and_frame_types():
    assert lf.frame_type_from_pixel_format("BayerRG12p") == FT.BAYER12_PACKED_LSB_RGGB
    assert lf.frame_type_from_pixel_format(0x01080001) is FT.MONO8_TOPDOWN
    assert lf.frame_type_from_pixel_format("nothing") == 0 and lf.frame_type_from_pixel_format(0x12345678) == 0
    assert lf.pixel_format_name(FT.YUV422_YUYV) == "YUV422_8" and lf.pixel_format_name(FT.MONO8_BOTTOMUP) is None
    assert FT.BAYER8_GRBG == 0x06030000 and FT.RGB24 == 0x01000000 and len(FT) == 141
    assert lf.__version__.count(".") == 2


def test_the_example_script_acquires_and_saves(tmp_path):
    script = os.path.join(os.environ["LUMO_EXAMPLES"], "bayer_stream.py")
    out = tmp_path / "stream.png"
    run = subprocess.run([sys.executable, script, "--width", "64", "--height", "32", "--frames", "5", "--output", str(out)],
                         capture_output=True, text=True)
    assert run.returncode == 0, run.stderr
    assert "dropped 0" in run.stdout and f"picture: {out}" in run.stdout
    png = out.read_bytes()
    assert png.startswith(b"\x89PNG") and struct.unpack(">II", png[16:24]) == (64, 32)
    starved = subprocess.run([sys.executable, script, "--width", "64", "--height", "32", "--frames", "3",
                              "--memory-mb", "0.001", "--output", str(out)], capture_output=True, text=True)
    assert starved.returncode == 1 and "dropped 3" in starved.stdout
