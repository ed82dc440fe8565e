#!/usr/bin/env python3
"""Tables and plots of what scripts/bench.sh measured.

  report.py FOLDER            writes FOLDER/report.md and the plots beside it
  report.py FOLDER PAGE.md    puts the tables between the marks of the page, the plots beside it
"""

import json
import math
import os
import re
import statistics
import sys

BEGIN, END = "<!-- measured -->", "<!-- end of measured -->"
MODELS = {"4b-q4_k": "4B, Q4_K and Q6_K", "4b-q8_0": "4B, Q8_0", "1b": "hidden 1024, Q4_K and Q6_K",
          "demo": "demo, hidden 256"}
PROMPT_OPERATIONS = 7.1e9  # of a token of the 4B shape, without the output matrix
COLOURS = ["#4269d0", "#efb118", "#3ca951", "#ff725c", "#a463f2", "#6cc5b0"]


def load(folder, name):
    """The JSON of that name, None when it was not measured."""
    path = os.path.join(folder, name + ".json")
    if not os.path.exists(path):
        return None
    with open(path, encoding="utf-8") as file:
        return json.load(file)


def runs(folder, name):
    """Benchmarks of Google Benchmark by name, the names of their settings left out."""
    data = load(folder, name) or {"benchmarks": []}
    return {re.sub("/real_time$", "", run["name"]): run for run in data["benchmarks"]}


def digits(value):
    """Three significant digits, without an exponent."""
    if value >= 100 or value == 0:
        return f"{value:.0f}"
    return f"{value:.{2 - math.floor(math.log10(value))}f}"


def percent(value):
    return f"{100 * value:.0f} %"


def table(heading, rows):
    """Numbers, in the columns after the first, stand right."""
    lines = [heading, ["---"] + ["---:"] * (len(heading) - 1), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines) + "\n"


class Plot:
    """One panel of an SVG picture: axes, then lines or bars in it."""

    LEFT, TOP, WIDTH, HEIGHT = 58, 34, 400, 220

    def __init__(self, title, column, highest, x_title=""):
        self.x0 = self.LEFT + column * (self.LEFT + self.WIDTH)
        self.highest = highest
        self.parts = []
        self.text(self.x0, 18, title, "start", bold=True)
        self.text(self.x0 + self.WIDTH / 2, self.TOP + self.HEIGHT + 34, x_title)

    def text(self, x, y, text, anchor="middle", bold=False):
        weight = ' font-weight="bold"' if bold else ""
        text = text.replace("&", "&amp;").replace("<", "&lt;")
        self.parts.append(f'<text x="{x:.0f}" y="{y:.0f}" text-anchor="{anchor}"{weight}>{text}</text>')

    def y(self, value):
        return self.TOP + self.HEIGHT * (1 - value / self.highest)

    def grid(self, values, label):
        for value in values:
            y = self.y(value)
            self.parts.append(f'<path d="M{self.x0} {y:.1f}h{self.WIDTH}" stroke="#ccc"/>')
            self.text(self.x0 - 6, y + 4, label(value), "end")

    def bars(self, groups, series):
        """series: (name, [value or None for each group])."""
        wide = self.WIDTH / len(groups)
        bar = 0.8 * wide / len(series)
        for g, group in enumerate(groups):
            self.text(self.x0 + (g + 0.5) * wide, self.TOP + self.HEIGHT + 16, group)
            for s, (_, values) in enumerate(series):
                if values[g] is None:
                    continue
                x, y = self.x0 + (g + 0.1) * wide + s * bar, self.y(min(values[g], self.highest))
                self.parts.append(f'<rect x="{x:.1f}" y="{y:.1f}" width="{bar - 1:.1f}" height="'
                                  f'{self.TOP + self.HEIGHT - y:.1f}" fill="{COLOURS[s]}"/>')

    def lines(self, ticks, series):
        """series: (name, [(x, y)]), x by its logarithm."""
        low, high = math.log(min(ticks)), math.log(max(ticks))
        def place(value):
            return self.x0 + 12 + (self.WIDTH - 24) * (math.log(value) - low) / (high - low)
        for tick in ticks:
            self.text(place(tick), self.TOP + self.HEIGHT + 16, str(tick))
        for s, (_, points) in enumerate(series):
            if not points:
                continue
            places = [(place(max(x, min(ticks))), self.y(y)) for x, y in points]
            path = "L".join(f"{x:.1f} {y:.1f}" for x, y in places)
            self.parts.append(f'<path d="M{path}" fill="none" stroke="{COLOURS[s]}" stroke-width="2"/>')
            self.parts += [f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{COLOURS[s]}"/>'
                           for x, y in places]


def picture(folder, name, title, plots, names):
    """Writes the picture and returns the Markdown that shows it."""
    file = f"performance-{name}.svg"
    width = len(plots) * (Plot.LEFT + Plot.WIDTH) + 20
    height = Plot.TOP + Plot.HEIGHT + 70
    legend, x = [], Plot.LEFT
    for colour, name in zip(COLOURS, names):
        legend.append(f'<rect x="{x}" y="{height - 22}" width="12" height="12" fill="{colour}"/>'
                      f'<text x="{x + 17}" y="{height - 12}">{name}</text>')
        x += 40 + 7 * len(name)
    with open(os.path.join(folder, file), "w", encoding="utf-8") as out:
        out.write(f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
                  f'font-family="sans-serif" font-size="12">\n<rect width="100%" height="100%" '
                  'fill="white"/>\n')
        out.write("\n".join(part for plot in plots for part in plot.parts) + "\n")
        out.write("\n".join(legend) + "\n</svg>\n")
    return f"\n![{title}]({file})\n"


def scale(highest):
    """A round number above all values, and four lines up to it."""
    step = 10 ** math.floor(math.log10(highest / 4))
    step *= next(m for m in (1, 2, 2.5, 5, 10) if 4 * m * step >= highest)
    return 4 * step, [step * i for i in range(5)]


def kernel_report(folder, plots):
    results = {}
    for name, run in runs(folder, "kernels").items():
        kind, quant, tier, threads = name.split("/")
        results[kind, quant, tier, int(threads.split(":")[1])] = run
    if not results:
        return ""
    quants, every_tier, counts = (list(dict.fromkeys(key[i] for key in results)) for i in (1, 2, 3))
    text, panels = "", []
    for kind, speed, share, unit, title in (
            ("one_token", "B/s", "of_read", "GB/s", "Products of one token, share of a pure read"),
            ("batch", "FLOP/s", "of_multiply", "GFLOP/s",
             "Products of 256 tokens, share of multiply-adds in registers")):
        # A tier has products from the one below it, which are not measured again.
        tiers = [tier for tier in every_tier if any(key[:3:2] == (kind, tier) for key in results)]
        for threads in counts:
            rows = []
            for quant in quants:
                row = [quant]
                for tier in tiers:
                    run = results.get((kind, quant, tier, threads))
                    row += [digits(run[speed] / 1e9), percent(run[share])] if run else ["", ""]
                rows.append(row)
            probes = []
            for tier in tiers:
                found = [run[speed] / run[share] / 1e9 for key, run in results.items()
                         if (key[0], *key[2:]) == (kind, tier, threads)]
                if found:
                    probes.append(f"{tier} {digits(statistics.median(found))}")
            text += (f"\n{title}, {threads} thread{'s' * (threads > 1)}; {unit} "
                     f"(median of that probe: {', '.join(probes)}):\n\n")
            text += table([""] + [cell for tier in tiers for cell in (tier, "")], rows)
        panel = Plot(title, len(panels), 1.0)
        panel.grid([0, 0.25, 0.5, 0.75, 1], percent)
        panel.bars(quants, [(tier, [results.get((kind, quant, tier, counts[-1]), {}).get(share)
                                    for quant in quants]) for tier in tiers])
        panels.append(panel)
    return text + picture(plots, "kernels", "Shares by type and tier", panels, every_tier)


def model_report(folder, plots):
    measured = {title: data for name, title in MODELS.items() if (data := load(folder, name))}
    if not measured:
        return ""
    first = next(iter(measured.values()))
    rows = [[title, f"{1e3 * data['createSeconds']:.0f} ms", f"{data['peakMemoryBytes'] / 1e9:.2f} GB",
             digits(data["pureReadBytesPerSecond"] / 1e9)] for title, data in measured.items()]
    text = f"\nModels, tier {first['tier']}, {first['threads']} threads:\n\n"
    text += table(["", "create", "peak memory", "pure read, GB/s"], rows)

    def nominal(value, wanted):
        return min(wanted, key=lambda w: abs(math.log(w / value)))
    panels = []
    for key, size, wanted, title, file, x_title in (
            ("prompts", "tokens", (16, 64, 256, 512, 2048), "Prompt, tokens/s", "batch",
             "tokens of the prompt"),
            ("generations", "context", (16, 2000, 8000), "Generation, tokens/s", "context",
             "tokens in the context")):
        rows = []
        for name, data in measured.items():
            cells = dict.fromkeys(wanted, "")
            for run in data[key]:
                share = f", {percent(run['shareOfPureRead'])}" if "shareOfPureRead" in run else ""
                cells[nominal(run[size], wanted)] = digits(run["tokensPerSecond"]) + share
            rows.append([name, *cells.values()])
        if key == "generations":
            title += ", share of a pure read"
        text += f"\n{title}, by {x_title}:\n\n" + table([""] + [str(w) for w in wanted], rows)
        series = [(name, sorted((run[size], run["tokensPerSecond"]) for run in data[key]))
                  for name, data in measured.items()]
        for column, big in enumerate((True, False)):
            shown = [(n, points if ("4B" in n) == big else []) for n, points in series]
            highest = max((y for _, points in shown for _, y in points), default=0)
            if highest == 0:
                continue
            top, ticks = scale(highest)
            panel = Plot(f"{title.split(',')[0]}, tokens/s", column, top, x_title)
            panel.grid(ticks, "{:g}".format)
            panel.lines(wanted, shown)
            panels.append((file, panel))
    for file, title in (("batch", "Speed over the length of a prompt"),
                        ("context", "Speed over the context")):
        text += picture(plots, file, title, [panel for name, panel in panels if name == file],
                        list(measured))
    return text


def multiply_speed(folder, tier, threads):
    """Operations a second of a tier's yardstick, None when it was not measured."""
    found = [run["FLOP/s"] / run["of_multiply"] for name, run in runs(folder, "kernels").items()
             if name.startswith("batch/") and name.endswith(f"/{tier}/threads:{threads}")]
    return statistics.median(found) if found else None


def tier_report(folder):
    name = "4b-q4_k"
    every = [load(folder, name + suffix) for suffix in ("-avx2", "-avx512", "")]
    rows = []
    for data in filter(None, every):
        prompt = min(data["prompts"], key=lambda run: abs(run["tokens"] - 512))["tokensPerSecond"]
        run = min(data["generations"], key=lambda run: run["context"])
        peak = multiply_speed(folder, data["tier"], data["threads"])
        rows.append([data["tier"], digits(prompt),
                     percent(prompt * PROMPT_OPERATIONS / peak) if peak else "",
                     digits(run["tokensPerSecond"]), percent(run["shareOfPureRead"])])
    heading = ["", "prompt of 512", "of multiply-adds", "generation", "of pure read"]
    return f"\n{MODELS[name]}, tokens/s by tier:\n\n" + table(heading, rows) if rows else ""


def text_report(folder):
    results = runs(folder, "text")
    if not results:
        return ""
    settings = [n.removeprefix("sampler/bell/") for n in results if n.startswith("sampler/bell/")]
    shapes = list(dict.fromkeys(n.split("/")[1] for n in results if n.startswith("sampler/")))
    rows = [[setting.replace("_", " ").replace("/", ", ")] +
            [digits(results[f"sampler/{shape}/{setting}"]["real_time"] / 1e3) for shape in shapes]
            for setting in settings]
    text = ("\nChoice of a token from 248,320 logits, ms, by the shape of their distribution:\n\n"
            + table([""] + shapes, rows))
    load_run = results["tokenizer/load"]
    rows = [[f"reading {load_run['tokens']:.0f} tokens and {load_run['merges']:.0f} merges",
             f"{load_run['real_time']:.0f} ms"]]
    rows += [["encoding " + name.split("/")[-1].replace("_", " "), f"{digits(run['B/s'] / 1e6)} MB/s"]
             for name, run in results.items() if name.startswith("tokenizer/encode/")]
    rows.append(["decoding", f"{digits(results['tokenizer/decode']['tokens/s'] / 1e6)} million tokens/s"])
    return text + "\nTokenizer:\n\n" + table(["", ""], rows)


def surroundings_report(folder):
    rows = [[f"demo model, {name.split(':')[1]} threads: time outside of kernels",
             percent(run["outside_kernels"])] for name, run in runs(folder, "token").items()]
    for model, title in MODELS.items():
        shared = load(folder, f"shared-{model}") or {}
        rows += [[f"{title}: {what} beside a process that takes half of one processor",
                  percent(shared[what]["share"]) + " of its speed"] for what in shared
                 if what in ("prompt", "generation")]
    return "\nThreads:\n\n" + table(["", ""], rows) if rows else ""


def main():
    folder = sys.argv[1]
    page = sys.argv[2] if len(sys.argv) > 2 else os.path.join(folder, "report.md")
    plots = os.path.dirname(page) or "."
    text = (kernel_report(folder, plots) + model_report(folder, plots) + tier_report(folder) +
            text_report(folder) + surroundings_report(folder))
    if len(sys.argv) > 2:
        with open(page, encoding="utf-8") as file:
            before, rest = file.read().split(BEGIN)
        text = before + BEGIN + "\n" + text + "\n" + END + rest.split(END)[1]
    with open(page, "w", encoding="utf-8") as file:
        file.write(text.lstrip("\n"))


if __name__ == "__main__":
    main()
