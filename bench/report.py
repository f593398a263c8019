"""The figures of a run as the generated part of a document: the machine, the targets, a table for each benchmark."""

import tomllib
from pathlib import Path

BEGIN = "<!-- Written by scripts/bench from here on; edit bench/targets.toml and bench/report.py instead. -->"
END = "<!-- Written by hand from here on. -->"
TARGETS = Path(__file__).resolve().parent / "targets.toml"


def number(value):
    """With as many digits as mean something; whole numbers are sizes."""
    if value >= 1000 or isinstance(value, int):
        return f"{value:,.0f}"
    return f"{value:.0f}" if value >= 100 else f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def table(head, rows):
    """Markdown; `rows` are lists of texts and numbers."""
    cells = [[one if isinstance(one, str) else number(one) for one in row] for row in rows]
    lines = [head, ["---"] * len(head), *cells]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines) + "\n"


# ---- each benchmark: {key of a figure: value}, and its tables


def _decision(figures):
    rows, values = [], {}
    for one in figures:
        if "bytes" in one:
            values[f"decision/{one['tuples']}/bytes"] = one["bytes"]
            rows.append([number(one["tuples"]), "bytes a tuple", "", one["bytes"], one["textbook_bytes"],
                         one["textbook_bytes"] / one["bytes"]])
        else:
            values[f"decision/{one['tuples']}/{one['load']}/{one['threads']}"] = one["ratio"]
            rows.append([number(one["tuples"]), one["load"] + ", ns", str(one["threads"]), one["ns"],
                         one["textbook_ns"], one["ratio"]])
    return values, table(["tuples", "what", "threads", "ours", "textbook", "times as good"], rows)


def _latency(figures):
    values = {f"latency/{one['case']}/{one['kind']}": one["p999_us"] for one in figures}
    rows = [[one["case"], one["kind"], number(one["tuples"]), str(one["times"]), one["p50_us"], one["p99_us"],
             one["p999_us"], one["most_us"]] for one in figures]
    return values, table(["meanwhile", "tuples asked for", "of", "times", "p50 µs", "p99 µs", "p99.9 µs", "most µs"],
                         rows)


def _servers(figures):
    limits = {(one["transport"], one["connections"], one["keys"]): one["requests_per_second"] for one in figures
              if one["server"] == "noop" and "left_out" not in one}
    rows, values = [], {}
    for one in figures:
        if "left_out" in one:
            rows.append([one["server"], "left out: " + one["left_out"], *[""] * 7])
            continue
        place = (one["transport"], one["connections"], one["keys"])
        share = 100 * one["requests_per_second"] / limits[place] if place in limits else 0
        key = "/".join(str(part) for part in (*place, one["server"]))
        values[f"front/{key}/share"] = share
        values[f"front/{key}/cpu"] = one["server_cpu_us_per_request"]
        values[f"front/{key}/p999"] = one["p999_us"]
        rows.append([one["server"], f"{one['transport']} {one['connections']}", one["keys"],
                     one["requests_per_second"], f"{share:.1f} %", one["p50_us"], one["p99_us"], one["p999_us"],
                     one["server_cpu_us_per_request"]])
    return values, table(["server", "connections", "tuples", "requests/s", "of noop", "p50 µs", "p99 µs", "p99.9 µs",
                          "CPU µs"], rows)


def _peers(figures):
    return {}, _servers(figures)[1]


def _mail(figures):
    values = {f"mail/{one['case']}": one["share"] for one in figures}
    return values, table(["asked for each message", "messages/s", "of no filter"],
                         [[one["case"], one["messages_per_second"], f"{100 * one['share']:.1f} %"] for one in figures])


def _comparisons(name):
    def read(figures):
        rows, values = [], {}
        for one in figures:
            size = next((one[key] for key in ("tuples", "addresses", "senders", "subscribers", "numbers")
                         if key in one), 0)
            key = f"{name}/{one['case']}/{size}"
            if "ratio" in one:
                values[key] = one["ratio"]
                rows.append([one["case"], number(size), number(one["ms"]) + " ms", number(one["plain_ms"]) + " ms",
                             one["ratio"]])
            else:
                unit = next(unit for unit in ("ms", "ns", "bytes") if unit in one)
                values[key] = one[unit]
                most = f", most {number(one['most_ms'])} ms" if "most_ms" in one else ""
                rows.append([one["case"], number(size), f"{number(one[unit])} {unit}{most}", "", ""])
        return values, table(["what", "of", "ours", "plain", "times as fast"], rows)
    return read


def _logger(figures):
    rows = []
    for one in figures:
        name, pause, *_ = one["name"].split("/")
        what = {"nothing": "reading the clock twice, and nothing else", "noteToAFile": "a line to a file"}.get(name, name)
        rows.append([what, pause + " µs", one["p50_ns"], one["p99_ns"], one["p99.9_ns"]])
    return {}, table(["what", "since the one before", "p50 ns", "p99 ns", "p99.9 ns"], rows)


SECTIONS = [
    ("decision", "The decision beside the textbook cache (`DecisionBench`)", _decision),
    ("latency", "The decision while something large goes on (`LatencyBench`)", _latency),
    ("front", "The policy front beside a server that does nothing (`PolicyBench`)", _servers),
    ("peers", "Other packages beside it (`PolicyBench`)", _peers),
    ("mail", "Mail through Postfix (`mail_throughput.py`)", _mail),
    ("backup", "Writing a backup (`BackupBench`)", _comparisons("backup")),
    ("load", "Running its script, and loading (`LoadBench`)", _comparisons("load")),
    ("listing", "Listing over the port (`ListingBench`)", _comparisons("listing")),
    ("reputation", "Sender reputation (`ReputationBench`)", _comparisons("reputation")),
    ("rates", "Sender rate control (`RateControlBench`)", _comparisons("rates")),
    ("endpoints", "Endpoint reputation (`EndpointBench`)", _comparisons("endpoints")),
    ("radius", "Subscribers by address (`RadiusBench`)", _comparisons("radius")),
    ("metrics", "What counting costs a decision (`MetricsBench`)", _comparisons("metrics")),
    ("logger", "What a log line costs its thread (`LoggerBench`)", _logger),
]


# ---- the targets


def _targets():
    """Each with one figure or, for the worst of several, more of them."""
    for target in tomllib.loads(TARGETS.read_text())["target"]:
        for each in target.get("each", [""]):
            figures = target["figure"] if isinstance(target["figure"], list) else [target["figure"]]
            yield dict(target, what=target["what"].replace("{}", str(each)),
                       figures=[one.replace("{}", str(each)) for one in figures])


def targets_table(values):
    rows = []
    for target in _targets():
        at_least = "at_least" in target
        wanted = target["at_least" if at_least else "at_most"]
        measured = [values[one] for one in target["figures"] if one in values]
        goal = f"{'at least' if at_least else 'at most'} {wanted:g} {target['unit']}"
        if len(measured) < len(target["figures"]):
            rows.append([target["what"], goal, "", "not measured", ""])
            continue
        worst = min(measured) if at_least else max(measured)
        met = worst >= wanted if at_least else worst <= wanted
        rows.append([target["what"], goal, worst, "met" if met else "**missed**",
                     "" if met else target.get("if_missed", "not known yet")])
    return table(["what", "target", "measured", "", "cause"], rows)


# ---- the document


def _about(about, quick):
    where = f"{'a virtual machine with ' if about['virtual'] else ''}{about['cores']} cores of {about['processor']}"
    warning = ("\nThe machine was busy with something else: the figures tell about that, too.\n" if about["very_busy"]
               else "")
    return (f"{about['date']}; {where}, {about['memory']} of memory; {about['system']}, Linux {about['kernel']}, "
            f"{about['compiler']}, `RelWithDebInfo`; commit {about['commit']}. Load average before the run "
            f"{about['load']:.2f}; other work took at most {about['busy']:.0%} of the processors between two programs. "
            f"The {'quick ' if quick else ''}run took {about['minutes']:.0f} minutes.\n{warning}")


def text(about, figures, failures, quick):
    """The generated part: `figures` and `failures` by the names of SECTIONS."""
    values, sections = {}, []
    for name, title, read in SECTIONS:
        if name in failures:
            sections.append(f"### {title}\n\nNot measured. {failures[name]}\n")
        elif name in figures:
            more, tables = read(figures[name])
            values.update(more)
            sections.append(f"### {title}\n\n{tables}")
    return "\n".join([f"## Figures\n\n{_about(about, quick)}", f"### Targets\n\n{targets_table(values)}", *sections])


def insert(document, generated):
    """Puts the text between the two marks of the document; written beside it and renamed."""
    before, begin, rest = document.read_text().partition(BEGIN)
    _, end, after = rest.partition(END)
    if not begin or not end:
        raise SystemExit(f"{document} has not both marks: {BEGIN} {END}")
    fresh = document.with_suffix(".new")
    fresh.write_text(f"{before}{BEGIN}\n\n{generated}\n{END}{after}")
    fresh.rename(document)
