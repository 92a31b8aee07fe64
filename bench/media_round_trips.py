#!/usr/bin/env python3
"""Compares what `qxtools image` writes with ffmpeg, libpng and libjpeg-turbo, sample by sample.

usage: media_round_trips.py QXTOOLS [PICTURE...]

On generated pictures (gradients and detail; 1 x 1, odd sizes; 1, 8 and 16 bits, alpha, palettes,
grey) and on any given ones. Prints for each comparison the largest and the mean difference of a
sample, and ends with status 1 when one is above its tolerance.
"""
import ctypes
import ctypes.util
import itertools
import os
import pathlib
import subprocess
import sys
import tempfile

# Sizes of the generated pictures, and what is drawn.
SIZES = ((1, 1), (2, 2), (3, 5), (33, 31), (160, 90))
PATTERNS = {
    'gradients': 'nullsrc=s=640x480,geq=r=X*255/639:g=Y*255/479:b=(X+Y)*255/1118',
    'detail': 'testsrc=s=640x480',
}
# Ending, FFmpeg's pixel format, and the format in which decoded samples are compared.
FORMATS = (
    ('png', 'rgb24', 'rgb24'), ('png', 'rgba', 'rgba'), ('png', 'gray', 'gray'),
    ('png', 'gray16be', 'gray16le'), ('png', 'rgb48be', 'rgb48le'), ('png', 'rgba64be', 'rgba64le'),
    ('png', 'pal8', 'rgba'), ('png', 'ya8', 'rgba'), ('png', 'monob', 'gray'),
    ('bmp', 'bgr24', 'rgb24'), ('bmp', 'pal8', 'rgb24'), ('bmp', 'gray', 'rgb24'),
    ('bmp', 'rgb565le', 'rgb24'), ('jpg', 'yuvj420p', 'rgb24'), ('jpg', 'yuvj422p', 'rgb24'),
    ('jpg', 'yuvj444p', 'rgb24'),
)


def run(*words):
    done = subprocess.run(list(map(str, words)), capture_output=True)
    if done.returncode:
        sys.exit(f'{" ".join(map(str, words))}\n{done.stderr.decode()}')
    return done.stdout


# Of each channel by itself; otherwise libswscale scales RGB as YUV with half the chroma.
EXACT = 'accurate_rnd+full_chroma_int+full_chroma_inp'

# What is compared within tolerances only in larger pictures.
LEAST_SAMPLES = 10000


def samples(path, pixel_format, filters='null'):
    """The samples that the ffmpeg command makes of a file."""
    raw = run('ffmpeg', '-v', 'error', '-i', path, '-vf', filters, '-frames:v', '1', '-pix_fmt',
              pixel_format, '-f', 'rawvideo', '-')
    return memoryview(raw).cast('H').tolist() if pixel_format.endswith('le') else list(raw)


class PngImage(ctypes.Structure):
    """png_image of libpng's simplified interface."""
    _fields_ = [('opaque', ctypes.c_void_p), ('version', ctypes.c_uint32),
                ('width', ctypes.c_uint32), ('height', ctypes.c_uint32),
                ('format', ctypes.c_uint32), ('flags', ctypes.c_uint32),
                ('colormap_entries', ctypes.c_uint32), ('warning_or_error', ctypes.c_uint32),
                ('message', ctypes.c_char * 64)]


LIBPNG = ctypes.CDLL(ctypes.util.find_library('png16'))
PNG_FORMATS = {'gray': (0, 1), 'rgb24': (2, 3), 'rgba': (3, 4)}  # format, samples of a pixel


def libpng_samples(path, pixel_format):
    image = PngImage(version=1)
    if not LIBPNG.png_image_begin_read_from_file(ctypes.byref(image), os.fsencode(path)):
        sys.exit(f'{path}: {image.message.decode()}')
    image.format, count = PNG_FORMATS[pixel_format]
    buffer = (ctypes.c_uint8 * (image.width * image.height * count))()
    if not LIBPNG.png_image_finish_read(ctypes.byref(image), None, buffer, 0, None):
        sys.exit(f'{path}: {image.message.decode()}')
    return list(buffer)


LIBJPEG = ctypes.CDLL(ctypes.util.find_library('turbojpeg'))
LIBJPEG.tjInitDecompress.restype = ctypes.c_void_p
LIBJPEG.tjDestroy.argtypes = [ctypes.c_void_p]
LIBJPEG.tjDecompressHeader3.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_ulong,
                                        *4 * [ctypes.POINTER(ctypes.c_int)]]
LIBJPEG.tjDecompress2.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_ulong, ctypes.c_void_p,
                                  *5 * [ctypes.c_int]]
TJPF_RGB, TJSAMP_420, TJFLAG_FASTUPSAMPLE, TJFLAG_ACCURATEDCT = 0, 2, 256, 4096


def libjpeg_samples(path):
    """RGB. The engine repeats the chroma of 4:2:0 and interpolates that of 4:2:2; so does this."""
    data = path.read_bytes()
    header = width, height, subsampling, _ = [ctypes.c_int() for _ in range(4)]
    handle = LIBJPEG.tjInitDecompress()
    failed = LIBJPEG.tjDecompressHeader3(handle, data, len(data), *map(ctypes.byref, header))
    flags = TJFLAG_ACCURATEDCT | (TJFLAG_FASTUPSAMPLE if subsampling.value == TJSAMP_420 else 0)
    buffer = (ctypes.c_uint8 * (width.value * height.value * 3))()
    failed |= LIBJPEG.tjDecompress2(handle, data, len(data), buffer, width, 0, height, TJPF_RGB,
                                    flags)
    LIBJPEG.tjDestroy(handle)
    if failed:
        sys.exit(f'{path}: libjpeg-turbo cannot decode it')
    return list(buffer)


def luma(rgb):
    return [(299 * r + 587 * g + 114 * b + 500) // 1000
            for r, g, b in zip(rgb[::3], rgb[1::3], rgb[2::3])]


class Report:
    def __init__(self):
        self.rows, self.good = {}, True

    def compare(self, what, ours, theirs, most, mean, name):
        """Holds the samples to the largest and the mean difference."""
        if len(ours) != len(theirs):
            sys.exit(f'{what}, {name}: {len(ours)} samples instead of {len(theirs)}')
        differences = [abs(a - b) for a, b in zip(ours, theirs)]
        worst, average = max(differences), sum(differences) / len(differences)
        if worst > most or average > mean:
            self.good = False
            print(f'{what}, {name}: largest {worst}, mean {average:.3f}; tolerated {most}, {mean}')
        count, old_worst, old_average, _ = self.rows.get(what, (0, 0, 0, 0))
        self.rows[what] = (count + 1, max(worst, old_worst), max(average, old_average),
                           (most, mean))

    def print(self):
        print(f'{"comparison":<46} {"pictures":>8} {"largest":>8} {"mean":>8}  tolerated')
        for what, (count, worst, average, (most, mean)) in self.rows.items():
            print(f'{what:<46} {count:>8} {worst:>8} {average:>8.3f}  {most}, {mean}')


def generate(folder):
    """Yields path and the format for comparing of every generated picture."""
    for (pattern, source), (width, height), (ending, pixel_format, compared) in itertools.product(
            PATTERNS.items(), SIZES, FORMATS):
        path = folder / f'{pattern}-{pixel_format}-{width}x{height}.{ending}'
        quality = ['-q:v', '3'] if ending == 'jpg' else []
        run('ffmpeg', '-v', 'error', '-f', 'lavfi', '-i', source, '-vf',
            f'format=rgb24,scale={width}:{height}:flags=area', '-frames:v', '1', '-pix_fmt',
            pixel_format, *quality, path)
        yield path, compared


class Trips:
    def __init__(self, command, folder, report):
        self.command, self.folder, self.report = command, folder, report

    def image(self, source, output, *options):
        path = self.folder / output
        run(self.command, 'image', source, '-o', path, *options)
        return path

    def decode(self, path, compared):
        compare, name = self.report.compare, path.name
        png = self.image(path, 'out.png')
        if path.suffix == '.jpg' and compared == 'rgb24':
            return self.decode_jpeg(path, samples(png, compared))
        if compared in ('rgb48le', 'rgba64le'):  # 16 bits of colour are rounded to 8
            ours = samples(png, 'rgb24' if compared == 'rgb48le' else 'rgba')
            theirs = [(value + 128) // 257 for value in samples(path, compared)]
            return compare('decode, 16-bit colour, rounded', ours, theirs, 0, 0, name)
        ours, theirs = samples(png, compared), samples(path, compared)
        compare(f'decode, {path.suffix[1:].upper()}', ours, theirs, 0, 0, name)
        if compared in PNG_FORMATS:
            libpng = libpng_samples(png, compared)
            compare('our PNG files, decoded by libpng', libpng, theirs, 0, 0, name)
        if compared in PNG_FORMATS and path.suffix == '.png':
            libpng = libpng_samples(path, compared)
            compare('PNG files, decoded by us and by libpng', ours, libpng, 0, 0, name)

    def decode_jpeg(self, path, ours):
        theirs = libjpeg_samples(path)
        self.report.compare('decode, JPEG to RGB', ours, theirs, 4, 0.5, path.name)
        grey = samples(self.image(path, 'grey.png', '--gray'), 'gray')
        if '420' in path.name and all(side % 2 == 0 for side in size_of(path)):
            self.report.compare('decode, JPEG to grey, from 4:2:0', grey, samples(path, 'gray'),
                                0, 0, path.name)
        else:
            self.report.compare('decode, JPEG to grey, by way of RGB', grey, luma(theirs), 4, 0.5,
                                path.name)

    def edit(self, path, width, height):
        rgb = self.image(path, 'rgb.png')
        x1, y1, x2, y2 = width // 4, height // 3, width - 1 - width // 5, height - 1 - height // 7
        cut = self.image(rgb, 'cut.png', f'--crop={x1},{y1},{x2},{y2}')
        crop = f'crop={x2 - x1 + 1}:{y2 - y1 + 1}:{x1}:{y1}:exact=1'
        self.report.compare('crop', samples(cut, 'rgb24'), samples(rgb, 'rgb24', crop), 0, 0,
                            path.name)
        if 3 * width * height < LEAST_SAMPLES:
            return  # in small pictures libswscale drops what belongs to the last columns
        for factor, flags in (0.4, 'area'), (1.7, 'bicubic'):
            to = int(width * factor), int(height * factor)
            scaled = self.image(rgb, 'scaled.png', f'--resize={to[0]}x{to[1]}')
            theirs = samples(rgb, 'rgb24', f'scale={to[0]}:{to[1]}:flags={flags}+{EXACT}')
            # libswscale rounds the positions of the cubic: hard edges differ.
            most, mean = (2, 0.5) if flags == 'area' else (32, 0.1)
            self.report.compare(f'resize, {flags}', samples(scaled, 'rgb24'), theirs, most, mean,
                                path.name)

    def encode(self, path):
        rgb = self.image(path, 'rgb.png')
        whole = samples(rgb, 'rgb24')
        bmp = samples(self.image(rgb, 'out.bmp'), 'rgb24')
        self.report.compare('encode, BMP', bmp, whole, 0, 0, path.name)
        if len(whole) > LEAST_SAMPLES:
            jpeg = samples(self.image(rgb, 'out.jpg', '--quality=98'), 'rgb24')
            self.report.compare('encode, JPEG of quality 98', jpeg, whole, 24, 2, path.name)


def size_of(path):
    shown = run('ffprobe', '-v', 'error', '-select_streams', 'v', '-show_entries',
                'stream=width,height', '-of', 'csv=p=0', path)
    return tuple(map(int, shown.decode().strip().split(',')[:2]))


def format_of(path):
    shown = run('ffprobe', '-v', 'error', '-show_entries', 'stream=pix_fmt', '-of', 'csv=p=0', path)
    return 'gray' if shown.strip() == b'gray' else 'rgb24'


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    report = Report()
    with tempfile.TemporaryDirectory() as scratch:
        trips = Trips(pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(scratch), report)
        given = [(path, format_of(path)) for path in map(pathlib.Path, sys.argv[2:])]
        for path, compared in given or generate(pathlib.Path(scratch)):
            trips.decode(path, compared)
            if compared == 'rgb24':
                trips.edit(path, *size_of(path))
                trips.encode(path)
    report.print()
    sys.exit(0 if report.good else 1)


if __name__ == '__main__':
    main()
