"""Photographs blurred as a camera blurs them, for bench/camera_bench.py.

Two sets of cases, formed deterministically (fixed seeds) and cached under
.cache/camera, made again only when missing or when VERSION changes:

  camera  a crop of a photograph decoded from sRGB to linear light; in about a
          third, small lamps and specular points several times the full scale;
          blurred in linear light with the scene beyond the crop taken in (a
          larger crop blurred, then cut); Poisson shot noise (fewer photons per
          full scale at higher ISO) and Gaussian read noise; clipped to the
          full scale; sRGB-encoded; saved as JPEG at quality 80 to 95.
  old     how the photographic settings were tuned so far: the same crops and
          kinds of PSF, blurred in their 8-bit sRGB values, Gaussian noise,
          8 bits, PNG, no lamps.

Each case folder holds blurred.jpg (or .png), sharp.png (8-bit sRGB of the
same crop), sharp.npy (linear light, float32, lamps above 1), psf.png (16-bit,
largest tap 65535), psf.npy (float32, sum 1) and, for the camera set,
lights.png (255 where a lamp is). cases.json lists every case's parameters.

Run alone to form the cases: python3 bench/camera_photos.py [--force]"""
import json
import os
import shutil
import sys

import numpy as np
from PIL import Image
from scipy.signal import fftconvolve

# Raise whenever what is formed changes, so that caches are formed again.
VERSION = 1

SKIMAGE_DATA = "/usr/lib/python3/dist-packages/skimage/data"
ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
CACHE = os.path.join(ROOT, ".cache", "camera")

# (file, crop height, crop width, grey): portraits, an animal, a street, a
# table, textures, pages of text, a launch against the sky, a star field.
# Crops larger than the photograph take the whole photograph.
PHOTOS = [("astronaut.png", 512, 512, False), ("camera.png", 512, 512, True),
          ("chelsea.png", 300, 448, False), ("coffee.png", 400, 560, False),
          ("motorcycle_left.png", 480, 640, False), ("brick.png", 512, 512, True),
          ("grass.png", 512, 512, True), ("gravel.png", 384, 512, True),
          ("page.png", 191, 384, True), ("text.png", 172, 448, True),
          ("rocket.jpg", 400, 560, False), ("hubble_deep_field.jpg", 512, 512, False)]
KINDS = ["shake", "motion", "disk", "gaussian"]
ISOS = [100, 200, 400, 800, 1600, 3200]
CAMERA_CASES, OLD_CASES = 48, 42


def photo_path(name):
    for folder in (SKIMAGE_DATA, os.path.join(ROOT, ".cache", "testdata")):
        if os.path.exists(os.path.join(folder, name)):
            return os.path.join(folder, name)
    raise FileNotFoundError("no photograph %s in %s or .cache/testdata (scripts/setup.sh bench)" % (name, SKIMAGE_DATA))


def srgb_to_linear(v):
    v = np.asarray(v, np.float64)
    return np.where(v <= 0.04045, v / 12.92, ((v + 0.055) / 1.055) ** 2.4)


def linear_to_srgb(v):
    v = np.clip(np.asarray(v, np.float64), 0, None)
    return np.where(v <= 0.0031308, 12.92 * v, 1.055 * v ** (1 / 2.4) - 0.055)


def to_bytes(v):
    return np.clip(np.round(np.asarray(v) * 255), 0, 255).astype(np.uint8)


# PSFs: odd squares, their middle pixel the blur's centre, sum 1.

def shake_psf(extent, rng):
    """A random camera shake (after Boracchi & Foi's trajectory model, as in
    bench/estimate_cases.h): inertial steps with random accelerations, a pull
    back to the start and the odd abrupt jerk, scaled to `extent` pixels at
    its widest, drawn bilinearly."""
    steps = 2000
    anxiety, centripetal, term, jerks = 0.005 * rng.random(), 0.7 * rng.random(), 10 * rng.random(), 0.2 * rng.random()
    v = np.exp(2j * np.pi * rng.random()) * anxiety
    x = 0j
    path = [x]
    step = 1.0 / steps
    for _ in range(1, steps):
        jerk = 0j
        if rng.random() < jerks * anxiety:
            jerk = 2 * v * np.exp(1j * (np.pi + rng.random() - 0.5))
        g = rng.standard_normal(2)
        v += jerk + anxiety * (term * complex(g[0], g[1]) - centripetal * x) * step
        v = v / abs(v) * step
        x += v
        path.append(x)
    path = np.array(path)
    scale = (extent - 1) / max(np.ptp(path.real), np.ptp(path.imag))
    # Centred on its mass, not its box: the blurred picture then sits where
    # the sharp one does, as after any estimator that centres its kernel.
    path = (path - path.mean()) * scale
    side = 2 * int(np.ceil(max(np.abs(path.real).max(), np.abs(path.imag).max()))) + 3
    return splat(side // 2 + path.real, side // 2 + path.imag, side)


def splat(px, py, side):
    """Points drawn bilinearly into a side x side kernel of sum 1."""
    taps = np.zeros((side, side))
    ix, iy = np.floor(px).astype(int), np.floor(py).astype(int)
    fx, fy = px - ix, py - iy
    for dy, dx, w in [(0, 0, (1 - fx) * (1 - fy)), (0, 1, fx * (1 - fy)), (1, 0, (1 - fx) * fy), (1, 1, fx * fy)]:
        np.add.at(taps, (iy + dy, ix + dx), w)
    return (taps / taps.sum()).astype(np.float32)


def motion_psf(length, degrees):
    """A straight motion of `length` pixels, counter-clockwise from +x."""
    side = 2 * int(np.ceil(length / 2)) + 3
    t = np.linspace(-(length - 1) / 2, (length - 1) / 2, 64 * int(np.ceil(length)))
    a = np.radians(degrees)
    return splat(side // 2 + t * np.cos(a), side // 2 - t * np.sin(a), side)


def disk_psf(radius):
    """A defocus disk, its edge antialiased by 8 x 8 samples a pixel."""
    side = 2 * int(np.ceil(radius)) + 3
    s = (np.arange(side * 8) + 0.5) / 8 - side / 2
    inside = (s[None, :] ** 2 + s[:, None] ** 2 <= radius ** 2).astype(np.float64)
    taps = inside.reshape(side, 8, side, 8).sum(axis=(1, 3))
    return (taps / taps.sum()).astype(np.float32)


def gaussian_psf(sigma):
    side = 2 * int(np.ceil(3 * sigma)) + 1
    s = np.arange(side) - side // 2
    taps = np.exp(-(s[None, :] ** 2 + s[:, None] ** 2) / (2 * sigma ** 2))
    return (taps / taps.sum()).astype(np.float32)


def random_psf(kind, rng):
    """The PSF and its parameters in draw_psf()'s words where it has them."""
    if kind == "shake":
        extent = 9 + 22 * rng.random()
        return shake_psf(extent, rng), "shake:%.1f" % extent
    if kind == "motion":
        length, degrees = 7 + 24 * rng.random(), 180 * rng.random()
        return motion_psf(length, degrees), "motion:%.1f,%.1f" % (length, degrees)
    if kind == "disk":
        radius = 2 + 6 * rng.random()
        return disk_psf(radius), "disk:%.2f" % radius
    sigma = 1 + 3 * rng.random()
    return gaussian_psf(sigma), "gaussian:%.2f" % sigma


def blur(scene, psf):
    """`scene` (cropped with psf's half side around the picture) blurred:
    each output pixel sees the scene beyond the crop, as a camera does."""
    planes = scene if scene.ndim == 3 else scene[..., None]
    out = np.stack([fftconvolve(planes[..., c], psf.astype(np.float64), mode="valid")
                    for c in range(planes.shape[2])], axis=2)
    return out if scene.ndim == 3 else out[..., 0]


def with_margin(photo, top, left, height, width, margin):
    """The crop and `margin` pixels around it, the photograph reflected at its
    own edges where the margin runs past them."""
    pad = [(margin + height, margin + height), (margin + width, margin + width)] + [(0, 0)] * (photo.ndim - 2)
    padded = np.pad(photo, pad, mode="symmetric")
    t, l = top + height, left + width
    return padded[t:t + height + 2 * margin, l:l + width + 2 * margin]


def add_lamps(scene, margin, height, width, grey, rng):
    """Small lamps and specular points (1 to 21 pixels, 3 to 30 times the full
    scale, white or warm) inside the crop; returns the scene, the crop's mask
    of them and their centres in the crop."""
    mask = np.zeros((height, width), bool)
    centres = []
    yy, xx = np.mgrid[0:height, 0:width]
    for _ in range(int(rng.integers(2, 7))):
        cy, cx = int(rng.integers(12, height - 12)), int(rng.integers(12, width - 12))
        radius = float(rng.choice([0.5, 1.0, 1.5, 2.0, 2.6]))
        level = 3 + 27 * rng.random() ** 2
        colour = np.array([1.0, 1.0, 1.0]) if rng.random() < 0.5 else np.array([1.0, 0.8, 0.55])
        lamp = (yy - cy) ** 2 + (xx - cx) ** 2 <= radius ** 2
        inner = scene[margin:margin + height, margin:margin + width]
        if grey:
            inner[lamp] = np.maximum(inner[lamp], level)
        else:
            inner[lamp] = np.maximum(inner[lamp], level * colour)
        mask |= lamp
        centres.append([cy, cx, radius, round(level, 2)])
    return scene, mask, centres


def expose(light, iso, read_noise, rng):
    """The sensor's reading of linear `light` (1 the full scale): Poisson shot
    noise on the electrons collected, fewer of them per full scale at higher
    ISO (4000 at ISO 100), Gaussian read noise of `read_noise` electrons,
    clipped to the full scale. Returns the electrons at the full scale and the
    reading."""
    photons = 4000.0 * 100 / iso
    electrons = rng.poisson(np.clip(light, 0, None) * photons) + rng.normal(0, read_noise, np.shape(light))
    return photons, np.clip(electrons / photons, 0, 1)


def read_photo(name, grey):
    pixels = np.asarray(Image.open(photo_path(name)).convert("L" if grey else "RGB"), np.float64) / 255
    return pixels


def place(photo, height, width, rng):
    h, w = min(height, photo.shape[0]), min(width, photo.shape[1])
    return int(rng.integers(0, photo.shape[0] - h + 1)), int(rng.integers(0, photo.shape[1] - w + 1)), h, w


def plan(count):
    """(photo index, kind, quick) for `count` cases: every photograph with each
    kind of PSF in turn, a third of them (spread over the photographs and
    kinds) marked for --quick."""
    cases = []
    for i in range(count):
        p, r = i % len(PHOTOS), i // len(PHOTOS)
        cases.append((p, KINDS[(p + r) % len(KINDS)], (p + r) % 3 == 0))
    return cases


def framed(index, photo_index, kind, seed):
    """A case's random numbers, its photograph, crop and PSF, and the crop
    with a PSF's margin around it."""
    rng = np.random.default_rng([seed, index])
    name, height, width, grey = PHOTOS[photo_index]
    photo = read_photo(name, grey)
    top, left, h, w = place(photo, height, width, rng)
    psf, blur_words = random_psf(kind, rng)
    margin = psf.shape[0] // 2
    return rng, name, grey, top, left, h, w, psf, blur_words, margin, with_margin(photo, top, left, h, w, margin)


def camera_case(index, photo_index, kind, lights, seed):
    rng, name, grey, top, left, h, w, psf, blur_words, margin, framing = framed(index, photo_index, kind, seed)
    scene = srgb_to_linear(framing)
    mask, centres = np.zeros((h, w), bool), []
    if lights:
        scene, mask, centres = add_lamps(scene, margin, h, w, grey, rng)
    iso = int(rng.choice(ISOS))
    read_noise = 2.0 + 2.0 * rng.random()  # electrons
    photons, exposed = expose(blur(scene, psf), iso, read_noise, rng)
    quality = int(rng.integers(80, 96))
    return {"scene": scene[margin:margin + h, margin:margin + w], "psf": psf, "mask": mask,
            "blurred": to_bytes(linear_to_srgb(exposed)),
            "params": {"set": "camera", "photo": name, "grey": grey, "top": top, "left": left, "height": h,
                       "width": w, "kind": kind, "blur": blur_words, "psf_side": int(psf.shape[0]), "iso": iso,
                       "photons": photons, "read_noise": round(read_noise, 3), "jpeg_quality": quality,
                       "lights": centres}}


def old_case(index, photo_index, kind, seed):
    rng, name, grey, top, left, h, w, psf, blur_words, margin, scene = framed(index, photo_index, kind, seed)
    noise = 0.01 * rng.random()
    blurred = blur(scene, psf) + rng.normal(0, noise, (h, w) + scene.shape[2:])
    return {"scene": srgb_to_linear(scene[margin:margin + h, margin:margin + w]), "psf": psf,
            "mask": None, "blurred": to_bytes(blurred),
            "params": {"set": "old", "photo": name, "grey": grey, "top": top, "left": left, "height": h,
                       "width": w, "kind": kind, "blur": blur_words, "psf_side": int(psf.shape[0]),
                       "noise": round(noise, 5), "lights": []}}


def save(folder, case):
    os.makedirs(folder, exist_ok=True)
    p = case["params"]
    if p["set"] == "camera":
        # PIL's default chroma subsampling (4:2:0), as most cameras save.
        Image.fromarray(case["blurred"]).save(os.path.join(folder, "blurred.jpg"), quality=p["jpeg_quality"])
        Image.fromarray(np.where(case["mask"], 255, 0).astype(np.uint8)).save(os.path.join(folder, "lights.png"))
    else:
        Image.fromarray(case["blurred"]).save(os.path.join(folder, "blurred.png"))
    Image.fromarray(to_bytes(linear_to_srgb(np.clip(case["scene"], 0, 1)))).save(os.path.join(folder, "sharp.png"))
    np.save(os.path.join(folder, "sharp.npy"), case["scene"].astype(np.float32))
    psf = case["psf"]
    np.save(os.path.join(folder, "psf.npy"), psf)
    taps = np.round(psf / psf.max() * 65535).astype(np.uint16)
    Image.fromarray(taps).save(os.path.join(folder, "psf.png"))


def cases_of(set_name, seed=None):
    """The plan of one set: [(name, formation function)]."""
    if set_name == "camera":
        seed = 20261125 if seed is None else seed
        rng = np.random.default_rng(seed)
        planned = plan(CAMERA_CASES)
        # A third with lamps, a third of the quick ones among them.
        quick = [i for i, c in enumerate(planned) if c[2]]
        rest = [i for i, c in enumerate(planned) if not c[2]]
        lit = set(rng.choice(quick, len(quick) // 3, replace=False)) | set(rng.choice(rest, len(rest) // 3, replace=False))
        return [("camera%02d_%s_%s" % (i, PHOTOS[p][0].split(".")[0], k), q,
                 lambda i=i, p=p, k=k: camera_case(i, p, k, i in lit, seed)) for i, (p, k, q) in enumerate(planned)]
    seed = 20091 if seed is None else seed
    return [("old%02d_%s_%s" % (i, PHOTOS[p][0].split(".")[0], k), q, lambda i=i, p=p, k=k: old_case(i, p, k, seed))
            for i, (p, k, q) in enumerate(plan(OLD_CASES))]


def ensure(cache=CACHE, force=False, log=sys.stderr):
    """Forms both sets under `cache` if missing or of another VERSION; returns
    cases.json's list: each case's parameters with its folder, name and
    whether --quick takes it."""
    index = os.path.join(cache, "cases.json")
    if not force and os.path.exists(index):
        with open(index) as f:
            stored = json.load(f)
        if stored.get("version") == VERSION and all(os.path.isdir(os.path.join(cache, c["folder"])) for c in stored["cases"]):
            return stored["cases"]
    if os.path.isdir(cache):
        shutil.rmtree(cache)
    listed = []
    for set_name in ("camera", "old"):
        for name, quick, form in cases_of(set_name):
            print("forming %s" % name, file=log)
            case = form()
            save(os.path.join(cache, set_name, name), case)
            listed.append(dict(case["params"], name=name, folder=os.path.join(set_name, name), quick=quick))
    with open(index, "w") as f:
        json.dump({"version": VERSION, "cases": listed}, f, indent=1)
    return listed


if __name__ == "__main__":
    cases = ensure(force="--force" in sys.argv)
    print("%d cases in %s" % (len(cases), os.path.normpath(CACHE)))
