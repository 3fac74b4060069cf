"""What of the work on bits is measured, and the tables and pictures of docs/performance/core.md."""
import common

TARGET = 0.95
TITLES = {"or": "Merge", "count": "Count of set bits", "walk": "Walk over the runs"}
SIZES = {32: "32 KiB", 64: "64 KiB", 2048: "2 MiB", 4096: "4 MiB", 131072: "128 MiB", 1048576: "1 GiB"}
QUICK_SIZES = (32,)
MERGES = ("0+0-dense", "84+0-dense", "84+17-dense", "1+0-dense", "85+17-dense", "0+0-sparse", "0+0-clear", "84+0-sparse",
          "84+0-clear")
# A record's bitmap begins at byte 84; the other places are for comparison.
READ_OFFSETS = (0, 1, 84, 85)
RIVALS = {
    "or": ("avx2", "avx2-unrolled", "avx2-aligned", "roaring", "roaring-no-count", "memcpy"),
    "walk": ("avx2",),
    "count": ("popcnt", "avx2", "avx2-carry-save", "roaring"),
}
# The same loop as avx2 under another name: no rival, but what says how far ratios can be believed.
CONTROL, CONTROLLED = "avx2-again", "avx2"
# No rivals either: shown, and slow, so they run in the first rounds only.
SLOW = ("portable", "byte-loop")
SLOW_ROUNDS = 3
# memcpy is a limit only where memory is; in the caches it does less work (it reads one side only).
MEMORY_FROM = 131072


def whats_of(work, kib):
    """The cases of one size. Over short runs in a large bitmap is walked at a record's offset only: that takes the longest."""
    if work == "or":
        return MERGES
    if work == "count":
        return tuple(f"{offset}-dense" for offset in READ_OFFSETS)
    return tuple(f"{offset}-{fill}" for offset in READ_OFFSETS for fill in ("clear", "sparse", "dense", "set")
                 if offset == 84 or fill == "sparse" or (fill == "dense" and kib < MEMORY_FROM))


def everybody(work, what):
    """Who is measured in a case."""
    who = {"library", CONTROL, *RIVALS[work]}
    if work == "or":
        if not what.endswith("-dense"):
            who -= {"roaring", "roaring-no-count"}
        if what in ("0+0-dense", "84+0-dense"):
            who |= set(SLOW)
    if work == "count":
        who.add("portable")
    return who


def rounds_of(case, quick=False):
    """How often everybody runs. A walk over runs of one or two blocks takes 1.3 s for 128 MiB, and ten for the largest."""
    work, kib, what = case.split("/")
    if quick:
        return 2
    if work == "walk" and what.endswith("-dense") and int(kib) >= MEMORY_FROM:
        return 5 if int(kib) == MEMORY_FROM else 3
    return 41 if int(kib) < MEMORY_FROM else 21 if int(kib) == MEMORY_FROM else 15


def expected(quick=False):
    """What a whole run leaves: names, and how many rates each has."""
    numbers = {}
    for work in TITLES:
        for kib in QUICK_SIZES if quick else SIZES:
            for what in whats_of(work, kib):
                case = f"{work}/{kib}/{what}"
                for who in everybody(work, what):
                    rounds = rounds_of(case, quick)
                    numbers[f"{case}/{who}"] = min(rounds, SLOW_ROUNDS) if who in SLOW else rounds
    return numbers


def groups_of(result):
    """(work, KiB, what): who: rates, one for each round."""
    groups = {}
    for name, rates in result["gb_per_s"].items():
        work, kib, what, who = name.split("/")
        groups.setdefault((work, int(kib), what), {})[who] = rates
    return groups


def rivals_of(work, size, rates):
    return [who for who in RIVALS[work] if who in rates and (who != "memcpy" or size >= MEMORY_FROM)]


def number(rate):
    return f"{rate:.1f}" if rate >= 1 else f"{rate:.3f}"


def rows_of(groups, work):
    """Of each case its rates, the rival that comes nearest to the library or farthest beyond it, the quartiles of the
    library's ratio to it, and those of the control's."""
    for key in sorted(groups, key=lambda key: (key[1], key[2])):
        if key[0] == work:
            rates = groups[key]
            yield (key, rates, *common.nearest_rival(rates, rivals_of(work, key[1], rates)),
                   common.quartiles(common.ratios(rates[CONTROL], rates[CONTROLLED])))


def tables(groups, work):
    names = sorted({who for (of, _, _), rates in groups.items() if of == work for who in rates} - {"library", CONTROL})
    rows = [[SIZES[size], what, len(rates["library"]), number(max(rates["library"]))]
            + [number(max(rates[who])) if who in rates else "" for who in names]
            + [rival, common.spread(ratio), common.spread(control)]
            for (_, size, what), rates, rival, ratio, control in rows_of(groups, work)]
    return common.table(["bitmap", "case", "rounds", "library", *names, "nearest rival", "library : it (quartiles)",
                         f"{CONTROL} : {CONTROLLED} (quartiles)"], rows)


def misses(groups, work):
    missed = [f"- {SIZES[size]}, {what}: {common.spread(ratio)}, {rival}"
              for (_, size, what), _, rival, ratio, _ in rows_of(groups, work) if ratio[1] < TARGET]
    if not missed:
        return f"Everywhere at least {TARGET} of every rival, by the median of the rounds."
    return f"Below {TARGET} of the nearest rival, by the median of the rounds (quartiles):\n\n" + "\n".join(missed)


def noise(groups, work):
    """What the control says of all cases together."""
    controls = [control for *_, control in rows_of(groups, work)]
    medians = common.quartiles([median for _, median, _ in controls])
    return (f"One loop against itself, {CONTROL} : {CONTROLLED}: the medians of the cases lie between "
            f"{min(median for _, median, _ in controls):.2f} and {max(median for _, median, _ in controls):.2f}, half of them "
            f"between {medians[0]:.2f} and {medians[2]:.2f}; the quartiles of the rounds of one case reach from "
            f"{min(lower for lower, _, _ in controls):.2f} to {max(upper for _, _, upper in controls):.2f}.")


def picture(groups, work, cases, title, path):
    with common.Picture(path) as drawn:
        axes = drawn.axes[0]
        sizes = sorted({size for (of, size, _) in groups if of == work})
        for what in cases:
            for who in ("library",) + RIVALS[work] + (("byte-loop",) if work == "or" else ()):
                points = [(size, max(groups[(work, size, what)][who])) for size in sizes
                          if who in groups.get((work, size, what), {})]
                if points:
                    axes.plot(*zip(*points), marker="o", label=f"{who}, {what}" if len(cases) > 1 else who,
                              linewidth=2.5 if who == "library" else 1)
        axes.set_xscale("log", base=2)
        axes.set_yscale("log")
        axes.set_xticks(sizes, [SIZES[size] for size in sizes])
        axes.set_xlabel("bitmap")
        axes.set_ylabel("GB of bitmap per second")
        axes.set_title(title)


def make(result, folder):
    groups = groups_of(result)
    picture(groups, "or", ("84+0-dense",), "Merging, half of the blocks set", folder / "merge_dense.svg")
    picture(groups, "or", ("84+0-sparse",), "Merging, one block in 4096 set", folder / "merge_sparse.svg")
    picture(groups, "count", ("84-dense",), "Counting set bits", folder / "count.svg")
    picture(groups, "walk", ("84-sparse", "84-clear"), "Walking over the runs", folder / "walk.svg")
    text = ["# The work on bits, measured", "",
            "Made by `./dev bench core` from `bench/results/core.json`; what the figures mean stands in",
            "[`../performance.md`](../performance.md).", "",
            common.describe_conditions(result["conditions"]), "",
            "GB of bitmap per second of the processor's time, the best of all rounds. A ratio is of two rates of one round; the",
            "median of the rounds is given and their quartiles, for the rival with the least median. A case is the offsets of",
            "target and source, or of the bitmap that is read, from a page's start, and what the source is like."]
    for work, title in TITLES.items():
        if any(of == work for of, _, _ in groups):
            text += ["", f"## {title}", "", misses(groups, work), "", noise(groups, work), "", tables(groups, work)]
            if work != "or":
                text += ["", f"![{title}]({work}.svg)"]
    (folder / "core.md").write_text("\n".join(text) + "\n")
