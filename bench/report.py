"""The figures as tables in Markdown: medians, with the middle half of the figures in brackets."""

import datetime
import os
import platform
import statistics
import subprocess

from measure import TABLES

MEANINGS = {
    "e": "the floor: a handler that computes the row, called for each repetition of a GETBULK",
    "e2": "the same, answering a whole GETBULK in one call (for information)",
    "c": "net-snmp's `container_table`, a sorted array",
    "d": "net-snmp's `tdata`",
    "stock": "`tunnelsnmpd --iterator stock`: net-snmp's own table iterator",
    "host": "`tunnelsnmpd --iterator host`: the daemon's table iterator",
}
OPERATION_TITLES = {"bulk50": "GETBULK walk, 50 repetitions", "get": "GET of a random instance",
                    "next": "GETNEXT of a random instance",
                    "miss": "GET of a row that is not there"}
BENCHMARK_TITLES = {
    "startAll": "all three machines", "startMaps": "three `std::map` filled with the same rows",
    "startMapsDrawn": "the same, in a drawn order",
    "startTunnelIf": "`TunnelIfTableSm` alone", "startInetConfig": "`TunnelInetConfigTableSm` alone",
    "startIpsec": "`IpsecTunnelIfTableSm` alone",
    "changeHopLimit": "a hop limit (no row stores it)", "changeAddress": "an address (row re-keyed)",
    "changeIpsec": "IPsec off, on", "changeStatus": "a status gone, back",
    "changeIfIndex": "an ifIndex gone, another one come, with its status",
}


def spread(values):
    """The median, then the quartiles."""
    lower, median, upper = statistics.quantiles(values, method="inclusive")
    return f"{median:.2f} ({lower:.2f}..{upper:.2f})"


def reach(values):
    """The median, then the lowest and the highest: of a few long measurements."""
    parts = (statistics.median(values), min(values), max(values))
    return "{:.2f} ({:.2f}..{:.2f})".format(*parts)


def ratios(values, base):
    """Turn by turn."""
    return [value / other for value, other in zip(values, base)]


def table(head, lines):
    figures = "--:" if any(line[-1][:1].isdigit() for line in lines) else "---"
    rows = [head, ["---"] + [figures] * (len(head) - 1), *lines]
    return "\n".join("| " + " | ".join(row) + " |" for row in rows) + "\n"


def walks(figures):
    """One section for each table, one table for each operation."""
    return "\n".join(f"### {TABLES[name]}\n\n" + "\n".join(
        operation_table(operation, by_rows) for operation in OPERATION_TITLES)
        for name, by_rows in figures.items())


def operation_table(operation, by_rows):
    lines = []
    for rows, operations in by_rows.items():
        of_mode = operations[operation]
        for mode, values in of_mode.items():
            lines.append([mode, f"{rows:,}", spread([value / 1000 for value in values]),
                          spread(ratios(values, of_mode["e"])),
                          spread(ratios(values, of_mode["c"]))])
    return (f"{OPERATION_TITLES[operation]}:\n\n"
            + table(["", "rows", "µs per varbind", "of e", "of c"], lines))


SUBAGENT_TITLES = {"c": "net-snmp's subagent, `container_table`",
                   "i": "net-snmp's subagent, table iterator with hint", "host": "`tunnelsnmpd`"}
AGENTX_TITLES = {**OPERATION_TITLES, "bulk10": "GETBULK walk, 10 repetitions"}


def agentx(figures):
    return "\n".join(f"{AGENTX_TITLES[operation]}:\n\n" + agentx_table(by_mode)
                     for operation, by_mode in figures["operations"].items())


def agentx_table(by_mode):
    lines = []
    for who in ("daemon", "master"):
        for mode, values in by_mode.items():
            lines.append([f"{SUBAGENT_TITLES[mode]}: {'subagent' if who == 'daemon' else who}",
                          spread([value / 1000 for value in values[who]]),
                          *(spread(ratios(values[who], by_mode[base][who])) for base in "ci")])
    return table(["", "µs per varbind", "of container_table's", "of the iterator's"], lines)


def steps(figures):
    lines = []
    for name, modes in figures.items():
        for mode, by_rows in modes.items():
            small, large = by_rows.values()
            lines.append([f"{TABLES[name]}, {mode}", spread(ratios(large, small))])
    sizes = list(next(iter(next(iter(figures.values())).values())))
    return table(["GETBULK walk, CPU per varbind",
                  f"{sizes[1]:,} rows against {sizes[0]:,}"], lines)


def waits(figures):
    lines = []
    for mode, phases in figures.items():
        for phase, repetitions in phases.items():
            if not repetitions:
                continue  # no right to make links
            columns = ([run[key] / 1000 for run in repetitions]
                       for key in ("p50Us", "p99Us", "maxUs"))
            if "disturbances" in repetitions[0]:
                phase += f", {statistics.median(run['disturbances'] for run in repetitions):,.0f} a second"
            lines.append([f"{mode}, {phase}", *(reach(column) for column in columns),
                          reach([run["seconds"] for run in repetitions]),
                          str(sum(run["count"] for run in repetitions))])
    return table(["", "median, ms", "99 of 100 within, ms", "longest, ms", "lasted, s", "requests"],
                 lines)


def start(figures):
    lines = []
    for name, by_rows in figures.items():
        for rows, values in by_rows.items():
            lines.append([BENCHMARK_TITLES[name], f"{rows:,}",
                          spread([value / 1e6 for value in values]),
                          spread(ratios(values, figures["startMaps"][rows]))])
    return table(["", "tunnels", "ms", "of the maps"], lines)


def changes(figures):
    lines = [[BENCHMARK_TITLES[name], *(spread([value / 1000 for value in values])
                                        for values in by_rows.values())]
             for name, by_rows in figures.items()]
    sizes = next(iter(figures.values()))
    return table(["µs per change", *(f"{rows:,} tunnels" for rows in sizes)], lines)


def column(runs, *path):
    """What stands at the path, of each run."""
    values = []
    for run in runs:
        for key in path:
            run = run[key]
        values.append(run)
    return values


def sources(figures):
    sizes = [f"{rows:,}" for rows in figures["change"]]
    of = {name: list(by_rows.values()) for name, by_rows in figures.items()}
    lines = [["a link's change beyond the machines' own, µs"]
             + [reach([value / 1000 for value in values]) for values in of["change"]]]
    for title, part, path, scale in (
            ("all links again, nothing new: CPU, ms", "reread", ("cpuMs",), 1),
            ("the longest step, ms", "reread", ("longestStepMs",), 1),
            ("a JSON file at the start: CPU, ms", "json", ("startCpuMs",), 1),
            ("memory at most, MB", "json", ("startMostBytes",), 1e6),
            ("the file again, nothing new: CPU, ms", "json", ("reread", "cpuMs"), 1),
            ("99 of 100 steps within, ms", "json", ("reread", "p99StepMs"), 1),
            ("the longest step, ms", "json", ("reread", "longestStepMs"), 1)):
        lines.append([title] + [reach([value / scale for value in column(runs, *path)])
                                for runs in of[part]])
    return table(["", *(f"{size} tunnels" for size in sizes)], lines)


def memory(figures):
    parts = figures["bytesPerTunnel"]
    lines = [[name, f"{size:.0f}"] for name, size in parts.items()]
    lines.append(["all", f"{sum(parts.values()):.0f}"])
    run = figures["changes"]
    growth = (f"\nAfter {run['changes'] // 10:,} random changes of {run['tunnels']:,} tunnels "
              f"(addresses, IPsec, statuses and ifIndexes that go and come back) the process had "
              f"{run['bytesAfterTenth']:,} bytes in use, after {run['changes']:,} "
              f"{run['bytesAtEnd']:,}: {run['growth']:+,}.\n")
    daemon = figures["daemon"]
    resident = (f"\nThe daemon, with the tunnels from a JSON file, has {daemon['ready'] / 1e6:.0f} "
                f"MB resident when it is ready, and {daemon['most'] / 1e6:.0f} MB at most while it "
                f"reads.\n")
    return table(["bytes per tunnel", f"of {figures['tunnels']:,}"], lines) + growth + resident


def machine():
    lines = [["CPU", cpu_model()], ["cores", str(os.cpu_count())],
             ["kernel", f"{platform.system()} {platform.release()}"],
             ["compiler", first_line(["c++", "--version"])],
             ["net-snmp", first_line(["net-snmp-config", "--version"])],
             ["date", datetime.date.today().isoformat()]]
    return table(["", "measured on"], lines)


def cpu_model():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        models = [line.split(":", 1)[1].strip() for line in file if line.startswith("model name")]
    return models[0] if models else platform.machine()


def first_line(command):
    return subprocess.run(command, check=True, capture_output=True,
                          text=True).stdout.splitlines()[0]


def ike(figures):
    by_size = figures["vici"]
    lines = []
    for title, path, scale in (
            ("an event, µs", ("eventNs",), 1000),
            ("a link that comes or goes, µs", ("linkNs",), 1000),
            ("the first listing: CPU, ms", ("first", "cpuMs"), 1),
            ("the longest step, ms", ("first", "longestStepMs"), 1),
            ("another listing, nothing new: CPU, ms", ("next", "cpuMs"), 1),
            ("99 of 100 steps within, ms", ("next", "p99StepMs"), 1),
            ("the longest step, ms", ("next", "longestStepMs"), 1)):
        lines.append([title] + [reach([value / scale for value in column(runs, *path)])
                                for runs in by_size.values()])
    return table(["strongSwan", *by_size], lines)


def policies(figures):
    if not figures:
        return "Not measured: only root may make policies."
    lines = []
    for title, path, scale in (
            ("a change of one until the tunnel shows it, µs", ("changeNs",), 1000),
            ("looks at links for it", ("looksAtLinks",), 1),
            ("looks for the policy that decides", ("looksAtPolicies",), 1),
            ("all read at the start: CPU, ms", ("start", "cpuMs"), 1),
            ("all read again, nothing new: CPU, ms", ("reread", "cpuMs"), 1),
            ("the longest step, ms", ("reread", "longestStepMs"), 1)):
        lines.append([title] + [reach([value / scale for value in column(runs, *path)])
                                for runs in figures.values()])
    return table(["", *(f"{count:,} tunnels and policies" for count in figures)], lines)


SECTIONS = {
    "if": None, "inet": None, "ipsec": None,  # together, see text()
    "agentx": ("Behind an AgentX master", agentx),
    "steps": ("Does the size matter?", steps),
    "waits": ("How long a manager waits", waits),
    "start": ("From nothing to complete tables", start),
    "changes": ("One change", changes),
    "sources": ("What the sources cost", sources),
    "ike": ("What IKE daemons cost", ike),
    "policies": ("What IPsec policies cost", policies),
    "memory": ("Memory", memory),
}


def text(results):
    """Whatever has been measured."""
    parts = []
    served = {name: results[name] for name in TABLES if name in results}
    if served:
        parts.append(f"## Serving a table\n\n{NOTES['serving']}\n\n" + walks(served))
    for name, section in SECTIONS.items():
        if section and name in results:
            title, make = section
            parts.append(f"## {title}\n\n{note(name, results[name])}\n\n"
                         f"{make(results[name])}")
    return "\n".join(parts)


NOTES = {
    "serving": "All modes run side by side and take turns; each is the same agent, engine and event "
               "loop, and all answer a walk with the same bytes. Agents and manager share one core, "
               "because an answer that wakes a manager on another one costs what the machine takes "
               "for that. The rows of a table have every second number as their ifIndex, so that "
               "what is not there has neighbours.",
    "agentx": "Three `snmpd`s side by side, each with one subagent, {rows:,} rows of tunnelIfTable, {turns} turns each, "
              "on one core as above. The CPU time of the subagent and of its master is told apart.",
    "steps": "A small and a large agent side by side, {turns} turns each, on one core as above.",
    "waits": "{turns} repetitions, the lowest and the highest in brackets, the daemon on a core of its own. Single GETs of random instances of "
               "tunnelIfTable, each sent when the one before is answered: while nothing else goes on; from the start's \"listening\" until ready; "
               "from when `tunnelsnmpctl restart-machines` has answered, or from just before it, "
               "until the daemon is ready again; while the daemon reads its JSON file again; while another client sends it random datagrams, 64 and then a request, as soon as that is answered; while links come and go in its network namespace; with `--source vici` and no strongSwan, with one that takes a connection and says nothing, and while one lists 10,000 SAs (so many a second) as soon as it has listed them. The daemon has the largest number of tunnels that is measured.",
    "start": "CPU time from the making of the machines until all of them are ready, in task mode "
             "with the real scheduler; of {turns} rounds. Each is the one start of a process of its own, "
             "as the maps are filled in one of their own, in the order of the machines' scans "
             "or in a drawn one: the first use of memory counts, the making "
             "of the inputs and the end do not.",
    "changes": "CPU time of one change of an input record to the row that shows it, for random "
               "tunnels; of {turns} rounds.",
    "sources": "Of {turns} runs, the lowest and the highest in brackets, each a process of its own. Links come as the messages "
               "that the kernel would send, made in memory; the kernel's own time is not in the figures. "
               "The memory is what the start adds to the process's resident set, the records included.",
    "ike": "Of {turns} runs, the lowest and the highest in brackets, each a process of its own. The daemon is a thread beside it whose "
           "CPU is not in the figures; each of its connections is up, with one child, bound to an xfrm link by its if_id. An event is a hint: what "
           "follows it is a listing.",
    "policies": "Of {turns} runs, the lowest and the highest in brackets, each a process of its own. The policies are the kernel's own, "
                "one for each tunnel; what the kernel does to hand them over is in the figures. At the start all is read at once, later in steps.",
    "memory": "One run. Every allocation counted, with all the room that the daemon's `malloc` "
              "gives it.",
}


def note(name, figures):
    if name == "agentx":
        rows, figures = figures["rows"], figures["operations"]
        return NOTES[name].format(turns=turns(figures), rows=rows)
    return NOTES[name].format(turns=turns(figures))


def turns(figures):
    """How often each was measured."""
    while isinstance(figures, dict) and figures:
        figures = next(iter(figures.values()))
    return len(figures) if isinstance(figures, list) else 1


def document(results, command, pictures):
    modes = [mode for mode in MEANINGS if mode in next(iter(results["if"].values()))["get"]]
    of_rows = next(iter(results["if"].values()))
    of = {name: len(by_mode["e"]) for name, by_mode in of_rows.items()}  # turns
    meanings = table(["", "what serves the table"], [[mode, MEANINGS[mode]] for mode in modes])
    shown = {name: f"![{title}]({name})\n" for name, title in pictures.items()}
    return (f"# Performance figures\n\nWritten by `{command}`. A figure is a median, with the "
            f"quartiles in brackets (half of all lies between them): of {of['get']} turns for GETs, "
            f"of {of['next']} for other single requests, of {of['bulk50']} for walks. Ratios are taken turn by turn. CPU time is that of one process.\n\n"
            f"{machine()}\n{meanings}\n" + "\n".join(shown.values()) + "\n" + text(results))
