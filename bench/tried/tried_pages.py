"""Makes the page of the other ways that were tried."""
import statistics

import common

REPETITIONS = 15
# Of each group its title, the way that the others are compared with, and what is to be known of it.
GROUPS = {
    "merge-dense": ("Merging 128 MiB, half of the blocks set at random", "library",
                    "Target at byte 84, source at byte 17 of a page. `memcpy` copies as many bytes; *read-both* reads both bitmaps "
                    "and writes nothing. The others are AVX2 loops that work on so many pages, or larger pieces, in turn; on four "
                    "pages and fetch ahead by so many bytes; or write past the caches. None of them asks whether the source is "
                    "clear."),
    "merge-sparse": ("Merging 128 MiB, one block in 4096 set", "library", "The same ways."),
    "merge-largest-dense": ("Merging 1 GiB, half of the blocks set at random", "library", "The same ways."),
    "merge-largest-sparse": ("Merging 1 GiB, one block in 4096 set", "library", "The same ways."),
    "merge-small": ("Merging 32 KiB, half of the blocks set at random", "library",
                    "Both on a page's start. *avx2* and *avx2-unrolled* are rivals of [the measured page](core.md). The others work "
                    "on so many vectors of 32 bytes in a step: *behind the first* vector, as the library, which so begins "
                    "in the middle of a line of the cache; *from the first*; or behind the first line."),
    "walk-dense": ("Walking over the runs of 2 MiB, half of the blocks set at random", "library",
                   "*avx2* is the rival of [the measured page](core.md); *shifted-words* looks for each end of a run in a word that "
                   "it shifts there, *block-by-block* looks at each block."),
    "read": ("Reading a file of 32 MiB", "new-memory",
             "Natively, the file in the system's cache. New memory is had from the system; giving it back is not counted. "
             "*Touched* is one byte of each page written first."),
    "read-and-merge": ("Reading a file of 32 MiB and merging it with a bitmap in memory", "new-memory",
                       "*new-memory* is what a fetch does with the second record of the calling application; in pieces the file goes "
                       "through a small buffer into the bitmap that is in memory, and needs no record of its own."),
    "grow": ("Reading a file of 32 MiB whose bitmap is to have 40 MiB", "copied",
             "*copied* is what a fetch does after a volume has grown: read as long as the file is, then copied into longer, clear "
             "memory. *read-into-the-longer* gets the longer memory at once. *pages-moved* lets the system lengthen the memory "
             "without a copy, which Windows has no call for."),
}


def order(first, way):
    """What the others are compared with, and it again; then by the best."""
    name, rates = way
    return (name != first, name != f"{first}-again", -max(rates))


def make(result, pages):
    text = ["# What else was tried", "",
            "Made by `./dev bench tried` from `bench/results/tried.json`; what the figures mean stands in",
            "[`../performance.md`](../performance.md).", "",
            common.describe_conditions(result["conditions"]), "",
            "GB of bitmap per second and milliseconds of one pass: the best of all repetitions, and the median. The ratios are of these",
            "to the first way's; the first is measured twice, as *again*, which shows the noise."]
    for group, (title, first, meaning) in GROUPS.items():
        ways = result["groups"].get(group)
        if ways is None:
            continue
        rates = {way: of["gb_per_s"] for way, of in ways.items()}
        ms = {way: of["ms"] for way, of in ways.items()}
        rows = [[way, f"{max(of):.3g}", f"{statistics.median(of):.3g}", f"{min(ms[way]):.3g}", f"{statistics.median(ms[way]):.3g}",
                 f"{max(of) / max(rates[first]):.2f}", f"{statistics.median(of) / statistics.median(rates[first]):.2f}"]
                for way, of in sorted(rates.items(), key=lambda way: order(first, way))]
        text += ["", f"## {title}", "", meaning, "",
                 common.table(["way", "GB/s, best", "median", "ms, best", "median", "best : first's", "median : first's"], rows)]
    (pages / "tried.md").write_text("\n".join(text) + "\n")
