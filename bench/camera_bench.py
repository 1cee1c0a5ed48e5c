"""The Python module's restorations of camera-formed photographs
(bench/camera_photos.py), blind and with the true PSF, against the sharp
crops, beside the set formed the old way and an oracle-tuned Richardson-Lucy.

Run (make bench does, on the bench build):
    PYTHONPATH=build/python /usr/bin/python3 bench/camera_bench.py [--quick]
        [--only SUBSTRING] [--method NAME,...] [--blind | --true]
        [--set camera|old] [--workers N] [--csv FILE] [--no-oracle]
        [--summarise FILE]   (the tables again from a run's --csv)
        [--figure PNG]       (only examples/camera_default.png)

Pipelines: "default", the module's defaults (method "auto": the sparse
prior in light for these 8-bit pictures; with an estimated PSF, as
deconv-restore --psf auto restores, the filter made cautious); each method
("wiener", "richardson-lucy", "sparse") on the stored values and in light
("+light"); those the module refuses (TypeError, deconv.Error on a small
probe) are listed as not available. A JPEG is restored with
compressed=True, as deconv-restore restores a JPEG file. Blind:
deconv.estimate_psf, then restore with its PSF and estimated_psf=True.

Measures, all on the 8-bit sRGB values against sharp.png:
  PSNR, SSIM   over the interior (beyond one PSF side from the edges), at the
               best whole-pixel offset within +-2 (restorations may sit a
               pixel off); skimage.metrics' SSIM at that offset.
  worse        cases whose PSNR is below the blurred picture's.
  refused      deconv.Error from the estimation or restoration; the blurred
               picture stands in for the metrics.
  ratio        Levin et al. 2009: the interior's SSD with the estimated PSF
               over the same pipeline's with the true PSF; the share of cases
               at most 2 and 3 (a refusal fails both).
  est s/MP     estimation seconds per megapixel; restore s: seconds per case.
  band dB      PSNR of the band one PSF side wide along the edges less the
               interior's (negative: the edges are restored worse).
  ring         around each lamp, over the annulus from the PSF's radius (at
               least the lamp's and 2 pixels more) to 4 PSF radii, the RMS
               error of the restoration over the blurred picture's: above 1,
               the restoration's ringing and halos cost more than the blur it
               took away. Mean over the cases with lamps, and their count
               above 1.
  oracle       Richardson-Lucy (plain, accelerate=False) with the true PSF in
               the light the set was formed in (linear for camera, the sRGB
               values for old), at the best of 5, 10, 20, ... 160
               iterations against the sharp crop (the search stops after the
               first decline): what a well-tuned default could reach.
               "vs oracle": a line's PSNR less the oracle's, case by case.
Everything but the times is the same from run to run and for any --workers:
the cases are fixed, estimation and restoration run on one thread each."""
import argparse
import csv
import multiprocessing
import os
import sys
import time

import numpy as np
from PIL import Image
from skimage.metrics import structural_similarity

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import camera_photos  # noqa: E402

import deconv  # noqa: E402

CANDIDATES = [("default", {}), ("wiener", {"method": "wiener"}),
              ("wiener+light", {"method": "wiener", "light": "encoded"}),
              ("richardson-lucy", {"method": "richardson-lucy", "light": "linear"}),
              ("richardson-lucy+light", {"method": "richardson-lucy", "light": "auto"}),
              ("sparse", {"method": "sparse", "light": "linear"}), ("sparse+light", {"method": "sparse", "light": "auto"}),
              ("sparse-unclipped", {"method": "sparse", "light": "auto", "highlights": None})]
# An estimated kernel is restored as deconv-restore --psf auto restores it.
ESTIMATED = {"estimated_psf": True}
SHIFT = 2
ORACLE_ITERATIONS = [5, 10, 20, 40, 80, 160]


def available(candidates=CANDIDATES):
    """The pipelines the module takes, and the names of those it refuses."""
    probe = np.random.default_rng(0).random((48, 48)).astype(np.float32)
    kept, missing = [], []
    for name, options in candidates:
        try:
            deconv.restore(probe, "gaussian:1", workers=1, **options)
            kept.append((name, options))
        except TypeError:  # deconv.Error is one too
            missing.append(name)
    return kept, missing


def load(cache, case):
    folder = os.path.join(cache, case["folder"])
    blurred = os.path.join(folder, "blurred.jpg" if case["set"] == "camera" else "blurred.png")
    return (np.asarray(Image.open(blurred)), np.asarray(Image.open(os.path.join(folder, "sharp.png"))),
            np.load(os.path.join(folder, "psf.npy")))


def to_bytes(picture):
    return np.clip(np.round(np.asarray(picture, np.float64) * 255), 0, 255).astype(np.uint8)


def psnr_of(squared_error):
    return 10 * np.log10(255.0 ** 2 / max(np.mean(squared_error), 1e-12))


class Scorer:
    """Metrics of 8-bit pictures against the sharp crop: interior beyond one
    PSF side `band` from the edges, whole-pixel offsets within SHIFT."""

    def __init__(self, sharp, band, lights, psf_radius):
        self.sharp = sharp.astype(np.float64)
        h, w = sharp.shape[:2]
        self.band = min(band, (min(h, w) - 8) // 2)
        b = self.band
        self.interior = (slice(b, h - b), slice(b, w - b))
        self.ring_mask = ring_mask(h, w, lights, psf_radius)

    def shifted(self, picture, dy, dx):
        h, w = picture.shape[:2]
        s = SHIFT
        return picture[s + dy:h - s + dy, s + dx:w - s + dx].astype(np.float64)

    def score(self, picture):
        """PSNR, SSIM, SSD over the interior at the best offset, the band's
        PSNR less the interior's, and the RMS error in the lamps' annuli."""
        b, s = self.band, SHIFT
        best = None
        for dy in range(-s, s + 1):
            for dx in range(-s, s + 1):
                part = picture[b + dy:picture.shape[0] - b + dy, b + dx:picture.shape[1] - b + dx]
                ssd = np.sum((part.astype(np.float64) - self.sharp[self.interior]) ** 2)
                if best is None or ssd < best[0]:
                    best = (ssd, dy, dx)
        ssd, dy, dx = best
        error = (self.shifted(picture, dy, dx) - self.sharp[s:-s, s:-s]) ** 2
        inner = np.zeros(error.shape[:2], bool)
        inner[b - s:error.shape[0] - (b - s), b - s:error.shape[1] - (b - s)] = True
        part = picture[b + dy:picture.shape[0] - b + dy, b + dx:picture.shape[1] - b + dx]
        ssim = structural_similarity(part, self.sharp[self.interior].astype(np.uint8), data_range=255,
                                     channel_axis=-1 if picture.ndim == 3 else None)
        interior_psnr = psnr_of(error[inner])
        ring = None
        if self.ring_mask is not None:
            ring = float(np.sqrt(np.mean(error[self.ring_mask[s:-s, s:-s]])))
        return {"psnr": interior_psnr, "ssim": ssim, "ssd": ssd, "offset": (dy, dx),
                "band": psnr_of(error[~inner]) - interior_psnr, "ring_rms": ring}


def ring_mask(h, w, lights, psf_radius):
    """The annuli around the lamps, less every lamp's own disk; None without
    lamps or where the annuli leave the picture entirely."""
    if not lights:
        return None
    yy, xx = np.mgrid[0:h, 0:w]
    mask, cores = np.zeros((h, w), bool), np.zeros((h, w), bool)
    for cy, cx, radius, _ in lights:
        d = np.hypot(yy - cy, xx - cx)
        inner = max(psf_radius, radius + 2)
        mask |= (d >= inner) & (d <= max(4 * psf_radius, inner + 2))
        cores |= d < radius + 2
    mask &= ~cores
    return mask if mask[SHIFT:-SHIFT, SHIFT:-SHIFT].any() else None


def restore(blurred, psf, options, compressed):
    """The restoration as 8 bits, its seconds, and whether it was refused
    (then the blurred picture stands in)."""
    start = time.perf_counter()
    try:
        out = deconv.restore(blurred, psf, workers=1, compressed=compressed, **options)
    except deconv.Error as e:
        return blurred, time.perf_counter() - start, str(e)
    return to_bytes(out), time.perf_counter() - start, None


def oracle(blurred, psf, scorer, linear):
    """Plain Richardson-Lucy in the formation's light at the best iteration
    count of ORACLE_ITERATIONS (stopping after the first decline)."""
    values = blurred.astype(np.float64) / 255
    data = camera_photos.srgb_to_linear(values) if linear else values
    best, start = None, time.perf_counter()
    for iterations in ORACLE_ITERATIONS:
        try:
            out = deconv.restore(data.astype(np.float32), psf, workers=1, method="richardson-lucy",
                                 iterations=iterations, accelerate=False)
        except deconv.Error:
            break
        score = scorer.score(to_bytes(camera_photos.linear_to_srgb(out) if linear else out))
        if best is not None and score["psnr"] < best[0]["psnr"]:
            break
        best = (score, iterations)
    if best is None:
        return None
    return dict(best[0], iterations=best[1], seconds=time.perf_counter() - start)


def run_case(job):
    """Every pipeline on one case: a list of rows, one per pipeline and PSF
    source, and the oracle's row."""
    cache, case, pipelines, sources, with_oracle = job
    blurred, sharp, psf = load(cache, case)
    side = psf.shape[0]
    scorer = Scorer(sharp, side, case["lights"], side / 2)
    base = scorer.score(blurred)
    compressed = case["set"] == "camera"
    common = {"set": case["set"], "case": case["name"], "kind": case["kind"], "quick": case["quick"],
              "megapixels": blurred.shape[0] * blurred.shape[1] / 1e6, "blurred_psnr": base["psnr"],
              "blurred_ssim": base["ssim"], "blurred_ring_rms": base["ring_rms"]}
    psfs = {}
    if "true" in sources:
        psfs["true"] = (psf, 0.0, None)
    if "blind" in sources:
        start = time.perf_counter()
        try:
            estimated, _ = deconv.estimate_psf(blurred, threads=1)
            psfs["blind"] = (estimated, time.perf_counter() - start, None)
        except deconv.Error as e:
            psfs["blind"] = (None, time.perf_counter() - start, str(e))
    rows = []
    for name, options in pipelines:
        for source, (kernel, estimate_seconds, reason) in psfs.items():
            if kernel is None:
                out, seconds = blurred, 0.0
            else:
                given = dict(options, **ESTIMATED) if source == "blind" else options
                out, seconds, reason = restore(blurred, kernel, given, compressed)
            score = scorer.score(out)
            rows.append(dict(common, pipeline=name, source=source, refused=reason, estimate_seconds=estimate_seconds,
                             restore_seconds=seconds, **{k: score[k] for k in ("psnr", "ssim", "ssd", "band", "ring_rms")}))
    if with_oracle:
        best = oracle(blurred, psf, scorer, case["set"] == "camera")
        if best is not None:
            rows.append(dict(common, pipeline="oracle-rl", source="true", refused=None, estimate_seconds=0.0,
                             restore_seconds=best["seconds"], iterations=best["iterations"],
                             **{k: best[k] for k in ("psnr", "ssim", "ssd", "band", "ring_rms")}))
    return rows


def with_ratios(rows):
    """Each blind row's error ratio over the true-PSF row of the method it
    restored with (the default's blind rows are the filter's; inf where
    either was refused)."""
    truth = {(r["case"], r["pipeline"]): r for r in rows if r["source"] == "true"}
    for r in rows:
        t = truth.get((r["case"], r["pipeline"]))
        if r["pipeline"] == "default":
            t = truth.get((r["case"], "wiener"), t)
        if r["source"] == "blind" and t is not None:
            r["ratio"] = np.inf if r["refused"] or t["refused"] else r["ssd"] / max(t["ssd"], 1e-12)
    return rows


def summary(rows):
    """Markdown tables: a line per set, pipeline and PSF source; then the
    gain over the blurred picture by kind of PSF."""
    lines = ["| set | pipeline | psf | n | PSNR | vs oracle | SSIM | blurred | worse | refused | ratio<=2 | "
             "ratio<=3 | est s/MP | restore s | band dB | ring | ring>1 |",
             "|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|"]
    groups = {}
    for r in rows:
        groups.setdefault((r["set"], r["pipeline"], r["source"]), []).append(r)
    oracle = {r["case"]: r["psnr"] for r in rows if r["pipeline"] == "oracle-rl"}
    for (set_name, pipeline, source), group in sorted(groups.items(), key=lambda g: (g[0][0], g[0][1] == "oracle-rl", g[0][1], g[0][2])):
        mean = lambda key: np.mean([r[key] for r in group])  # noqa: E731
        ratios = [r["ratio"] for r in group if "ratio" in r]
        rings = [r["ring_rms"] / r["blurred_ring_rms"] for r in group if r["ring_rms"] is not None]
        share = lambda limit: "%.0f %%" % (100 * np.mean(np.array(ratios) <= limit)) if ratios else "-"  # noqa: E731
        per_mp = sum(r["estimate_seconds"] for r in group) / sum(r["megapixels"] for r in group)
        if pipeline == "oracle-rl":  # at the grid's top, the oracle was held back
            capped = sum(r["iterations"] == ORACLE_ITERATIONS[-1] for r in group)
            name = pipeline + " (%.0f it, %d at %d)" % (mean("iterations"), capped, ORACLE_ITERATIONS[-1])
        else:
            name = pipeline
        # Over the cases the oracle has: the default is judged against it.
        gap = [r["psnr"] - oracle[r["case"]] for r in group if r["case"] in oracle]
        lines.append("| %s | %s | %s | %d | %.2f | %s | %.3f | %.2f | %d | %d | %s | %s | %s | %.2f | %+.2f | %s | %s |" % (
            set_name, name, source, len(group), mean("psnr"), "%+.2f" % np.mean(gap) if gap else "-",
            mean("ssim"), mean("blurred_psnr"),
            sum(r["psnr"] < r["blurred_psnr"] for r in group), sum(bool(r["refused"]) for r in group),
            share(2), share(3), "%.2f" % per_mp if source == "blind" else "-", mean("restore_seconds"), mean("band"),
            "%.2f" % np.mean(rings) if rings else "-", "%d/%d" % (sum(x > 1 for x in rings), len(rings)) if rings else "-"))
    kinds = camera_photos.KINDS
    lines += ["", "Gain over the blurred picture (dB of PSNR) by kind of PSF:", "",
              "| set | pipeline | psf | " + " | ".join(kinds) + " |", "|---|---|---|" + "---|" * len(kinds)]
    for (set_name, pipeline, source), group in sorted(groups.items()):
        gains = [[r["psnr"] - r["blurred_psnr"] for r in group if r["kind"] == k] for k in kinds]
        lines.append("| %s | %s | %s | " % (set_name, pipeline, source) +
                     " | ".join("%+.2f" % np.mean(g) if g else "-" for g in gains) + " |")
    return "\n".join(lines)


def read_csv(path):
    """Rows as write_csv wrote them, to summarise a run again."""
    numbers = {"psnr", "ssim", "blurred_psnr", "blurred_ssim", "ratio", "estimate_seconds", "restore_seconds",
               "megapixels", "band", "ring_rms", "blurred_ring_rms", "iterations"}
    rows = []
    with open(path, newline="") as f:
        for r in csv.DictReader(f):
            row = {k: (float(v) if k in numbers and v != "" else v or None) for k, v in r.items()}
            rows.append({k: v for k, v in row.items() if not (k in ("ratio", "iterations") and v is None)})
    return rows


def write_csv(path, rows):
    keys = ["set", "case", "kind", "pipeline", "source", "psnr", "ssim", "blurred_psnr", "blurred_ssim", "ratio",
            "refused", "estimate_seconds", "restore_seconds", "megapixels", "band", "ring_rms", "blurred_ring_rms",
            "iterations"]
    with open(path, "w", newline="") as f:
        out = csv.DictWriter(f, keys, extrasaction="ignore")
        out.writeheader()
        for r in rows:
            out.writerow(r)


def progress(done, count, rows, start):
    print("%3d/%d %-36s %5.0f s" % (done, count, rows[0]["case"] if rows else "", time.perf_counter() - start),
          file=sys.stderr, flush=True)
    return rows


def figure(cache, path):
    """examples/camera_default.png: a crop of a camera-formed JPEG (a shake
    and a lamp, ISO 400), the filter's and the default's restorations with
    the true PSF, and the sharp crop, side by side."""
    from PIL import ImageDraw
    case = next(c for c in camera_photos.ensure(cache) if c["name"] == "camera00_astronaut_shake")
    blurred, sharp, psf = load(cache, case)
    tiles = [(blurred, "camera JPEG (ISO 400)"),
             (to_bytes(deconv.restore(blurred, psf, method="wiener", compressed=True)), "wiener"),
             (to_bytes(deconv.restore(blurred, psf)), "default: sparse in light"), (sharp, "sharp")]
    top, left, side, gap = 120, 230, 200, 10
    out = Image.new("RGB", (len(tiles) * (side + gap) - gap, side + 22), "white")
    draw = ImageDraw.Draw(out)
    for i, (tile, label) in enumerate(tiles):
        crop = np.ascontiguousarray(tile[top:top + side, left:left + side])
        out.paste(Image.fromarray(crop), (i * (side + gap), 22))
        draw.text((i * (side + gap) + 4, 4), label, fill="black")
    out.save(path, optimize=True)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--quick", action="store_true", help="a third of the cases, every photograph and kind")
    parser.add_argument("--only", default="", help="cases whose name holds SUBSTRING")
    parser.add_argument("--method", default="", help="pipelines to run (comma-separated names)")
    parser.add_argument("--blind", action="store_true", help="only with the estimated PSF")
    parser.add_argument("--true", action="store_true", help="only with the true PSF")
    parser.add_argument("--set", choices=["camera", "old"], help="one set only")
    parser.add_argument("--workers", type=int, default=os.cpu_count() or 1)
    parser.add_argument("--csv", help="also write every case's figures there")
    parser.add_argument("--no-oracle", action="store_true", help="skip the oracle-tuned Richardson-Lucy")
    parser.add_argument("--cache", default=camera_photos.CACHE)
    parser.add_argument("--summarise", metavar="CSV", help="only print the tables of a run's --csv")
    parser.add_argument("--figure", metavar="PNG", help="only draw examples/camera_default.png there")
    args = parser.parse_args(argv)
    if args.summarise:
        print(summary(read_csv(args.summarise)))
        return None
    if args.figure:
        figure(args.cache, args.figure)
        return None

    cases = camera_photos.ensure(args.cache)
    cases = [c for c in cases if (not args.quick or c["quick"]) and args.only in c["name"] and
             (args.set is None or c["set"] == args.set)]
    wanted = [w for w in args.method.split(",") if w]
    pipelines, missing = available([c for c in CANDIDATES if not wanted or c[0] in wanted])
    sources = ["blind"] if args.blind else ["true"] if args.true else ["blind", "true"]
    print("%d cases; pipelines: %s; not available: %s" % (len(cases), ", ".join(p[0] for p in pipelines) or "none",
                                                        ", ".join(missing) or "none"), flush=True)
    jobs = [(args.cache, c, pipelines, sources, not args.no_oracle) for c in cases]
    start = time.perf_counter()
    rows = []
    if args.workers > 1:
        with multiprocessing.Pool(args.workers) as pool:
            for done, found in enumerate(pool.imap(run_case, jobs), 1):
                rows += progress(done, len(jobs), found, start)
    else:
        for done, job in enumerate(jobs, 1):
            rows += progress(done, len(jobs), run_case(job), start)
    rows = with_ratios(rows)
    print(summary(rows))
    print("\n%d cases in %.0f s" % (len(cases), time.perf_counter() - start))
    if args.csv:
        write_csv(args.csv, rows)
    return rows


if __name__ == "__main__":
    main()
