"""What is measured, round by round. In each round every mode has its turns, which are short, so that
what else goes on in the machine meets all of them; figures are compared turn by turn."""

import contextlib
import json
import os
import random
import signal
import socket
import subprocess
import sys
import time

from agents import MODES, OURS, PATIENCE, SUBAGENTS, network_namespace, within

TABLES = {"if": "tunnelIfTable", "inet": "tunnelInetConfigTable",
          "ipsec": "velmoraIpsecTunnelIfTable"}
COLUMNS = {"if": 7, "inet": 3, "ipsec": 1}
OPERATIONS = {"bulk50": 2, "get": 30, "next": 5, "miss": 5}  # each with its turns in a round


@contextlib.contextmanager
def on(cores):
    """Has this process, and what it starts meanwhile, run on those."""
    before = os.sched_getaffinity(0)
    os.sched_setaffinity(0, cores)
    try:
        yield
    finally:
        os.sched_setaffinity(0, before)


def one_core():
    """Has agents and manager share a core. An answer that wakes a manager on another one costs the
    agent what the machine takes for that: on a virtual one, more than all the rest."""
    return on({max(os.sched_getaffinity(0))})


class Measure:
    def __init__(self, workshop, rounds, quick):
        self.workshop = workshop
        self.rounds = rounds
        self.quick = quick
        self.ours = OURS if workshop.has_host_iterator() else OURS[:1]
        self.modes = [mode for mode in MODES if mode not in OURS or mode in self.ours]
        self.sizes = (1000, 10000) if quick else (1000, 10000, 100000)

    def varbinds(self, table, rows, mode, operation):
        """How many instances one turn asks for: enough for the clock, and not for minutes."""
        share = 4 if self.quick else 1
        if operation.startswith("bulk"):  # whole walks
            walk = rows * COLUMNS[table]
            return walk * max(1, 50000 // share // walk)
        if operation == "miss" and mode == "stock":  # looks at every row
            return max(10, min(1000, 1_000_000 // rows) // share)
        return 1000 // share

    def table(self, table):
        """{rows: {operation: {mode: [ns of each turn]}}}"""
        return {rows: self._rounds(table, rows) for rows in self.sizes}

    @one_core()
    def _rounds(self, table, rows):
        figures = {operation: {mode: [] for mode in self.modes} for operation in OPERATIONS}
        with self.workshop.agents(self.modes, table, rows) as agents:
            self.require_same_answers(agents, table, rows)
            for number in range(self.rounds + 1):
                progress(f"{TABLES[table]}, {rows} rows, round {number}")
                for operation, turns in OPERATIONS.items():
                    for seed in range(number * turns, (number + 1) * turns):
                        for mode in shuffled(self.modes, seed):
                            figure = self.turn(agents[mode], table, rows, mode, operation, seed)
                            if number > 0:  # the first one warms up
                                figures[operation][mode].append(figure)
        return figures

    def turn(self, agent, table, rows, mode, operation, seed):
        """Nanoseconds of the agent's CPU for one varbind."""
        count = self.varbinds(table, rows, mode, operation)
        answer = self.workshop.ask(agent, table, rows, operation, "--varbinds", count,
                                   "--seed", seed)
        return answer["cpuNs"] / answer["varbinds"]

    def require_same_answers(self, agents, table, rows):
        answers = {mode: self.workshop.ask(agent, table, rows, "check")
                   for mode, agent in agents.items()}
        for mode, answer in answers.items():
            if answer != answers["c"]:
                raise SystemExit(f"bench: {mode} and c differ in a walk of {TABLES[table]} with "
                                 f"{rows} rows: {answer}, {answers['c']}")

    # Behind an AgentX master

    @one_core()
    def agentx(self):
        """{operation: {mode: {"daemon": [ns of each turn], "master": [ns]}}} for a varbind"""
        rows = 1000 if self.quick else 10000
        figures = {operation: {mode: {"daemon": [], "master": []} for mode in SUBAGENTS}
                   for operation in ("bulk50", "bulk10", "get", "next")}
        with self.workshop.masters(SUBAGENTS, "if", rows) as masters:
            self.require_same_answers(masters, "if", rows)
            for number in range(2 * self.rounds + 1):
                progress(f"AgentX, {rows} rows, round {number}")
                for operation, by_mode in figures.items():
                    for mode in shuffled(SUBAGENTS, number):
                        daemon, master = self._agentx_turn(masters[mode], rows, operation, number)
                        if number > 0:
                            by_mode[mode]["daemon"].append(daemon)
                            by_mode[mode]["master"].append(master)
        return {"rows": rows, "operations": figures}

    def _agentx_turn(self, master, rows, operation, seed):
        answer = self.workshop.ask(master, "if", rows, operation, "--varbinds",
                                   self.varbinds("if", rows, "host", operation), "--seed", seed)
        return (answer["subagentNs"] / answer["varbinds"], answer["cpuNs"] / answer["varbinds"])

    def steps(self):
        """Bulk walks of the smallest and the largest size side by side:
        {table: {mode: {rows: [ns of each round]}}}"""
        return {table: {mode: self._step(table, mode) for mode in ("e", "c", *self.ours)}
                for table in TABLES}

    @one_core()
    def _step(self, table, mode):
        sizes = (self.sizes[0], self.sizes[-1])
        figures = {rows: [] for rows in sizes}
        with self.workshop.agents([mode], table, sizes[0]) as small, \
                self.workshop.agents([mode], table, sizes[1]) as large:
            for number in range(2 * self.rounds + 1):
                progress(f"step of {mode}, {TABLES[table]}, round {number}")
                for rows, agents in shuffled(list(zip(sizes, (small, large))), number):
                    figure = self.turn(agents[mode], table, rows, mode, "bulk50", number)
                    if number > 0:
                        figures[rows].append(figure)
        return figures

    # How long a manager waits

    def waits(self):
        """{mode: {phase: [what benchManager says, of each repetition]}}"""
        return {mode: self._waits(mode, self.sizes[-1]) for mode in self.ours}

    def _waits(self, mode, rows):
        figures = {"idle": [], "start": [], "scan and reconciliation": [], "restart-machines": [],
                   "reread": [], "garbage": [], "links come and go": [],
                   "no strongSwan": [], "strongSwan hangs": [], "strongSwan lists SAs": []}
        *others, last = sorted(os.sched_getaffinity(0))
        # A manager on the busy daemon's core would wait for the kernel to give it a turn.
        with on(others or {last}):
            for number in range(1 if self.quick else 9):
                progress(f"waits of {mode}, {rows} rows, repetition {number}")
                with network_namespace() as namespace:
                    sources = ["linux:kinds=+vxlan"] if namespace else []
                    with on({last}):
                        agent = self.workshop.daemon(mode, rows, namespace=namespace,
                                                     sources=sources)
                    try:
                        self._wait_for(agent, rows, figures)
                    finally:
                        agent.end()
                self._wait_for_strongswan(mode, rows, figures, last)
        return figures

    def _wait_for(self, agent, rows, figures):
        with self.polling(agent, rows, figures["start"]):
            agent.control.wait_ready()
        figures["idle"].append(self.workshop.ask(agent, "if", rows, "latency", "--seconds", 2))
        with self.polling(agent, rows, figures["restart-machines"]):
            agent.control.ask("restart-machines")  # in one step: the old machines end
            agent.control.wait_ready()
        with self.polling(agent, rows, figures["reread"]):
            agent.control.ask("reread")
        agent.control.ask("restart-machines")
        with self.polling(agent, rows, figures["scan and reconciliation"]):
            agent.control.wait_ready()
        self._disturb(agent, rows, figures["garbage"], "garbage", agent.address)
        if agent.namespace:
            self._disturb(agent, rows, figures["links come and go"], "links")

    def _wait_for_strongswan(self, mode, rows, figures, core):
        path = self.workshop.path("charon.vici")

        def ask(name):
            with on({core}):
                agent = self.workshop.daemon(mode, rows, sources=["vici:" + path])
            try:
                agent.control.wait_ready()
                answer = self.workshop.ask(agent, "if", rows, "latency", "--seconds", 6)
            finally:
                agent.end()
            figures[name].append(answer)

        ask("no strongSwan")
        with socket.socket(socket.AF_UNIX) as hangs:
            hangs.bind(path)
            hangs.listen()
            ask("strongSwan hangs")
        os.unlink(path)
        with Disturbance("strongswan", path) as disturbance:
            while not os.path.exists(path):
                time.sleep(0.01)
            ask("strongSwan lists SAs")
        os.unlink(path)
        figures["strongSwan lists SAs"][-1]["disturbances"] = disturbance.per_second

    def _disturb(self, agent, rows, figures, *what):
        with Disturbance(*what, namespace=agent.namespace) as disturbance:
            answer = self.workshop.ask(agent, "if", rows, "latency", "--seconds", 3)
        figures.append({**answer, "disturbances": disturbance.per_second})

    def polling(self, agent, rows, figures):
        return Polling(self.workshop.manager(agent, "if", rows, "latency", "--seconds", PATIENCE),
                       figures)

    # The machines without SNMP

    def start(self):
        return self._machines("start", 2 * self.rounds)

    def changes(self):
        return self._machines("change", self.rounds)

    def _machines(self, names, rounds):
        """{benchmark: {rows: [ns of each round]}}"""
        benchmarks = self._benchmarks(names)
        figures = {}
        for name, rows in map(name_and_rows, benchmarks):
            figures.setdefault(name, {})[rows] = []
        for number in range(rounds + 1):
            progress(f"machines, {names}, round {number}")
            for benchmark in shuffled(benchmarks, number):
                figure = self._benchmark(benchmark)
                if number > 0:
                    name, rows = name_and_rows(benchmark)
                    figures[name][rows].append(figure)
        return figures

    def _benchmarks(self, names):
        sizes = "|".join(str(rows) for rows in self.sizes)
        return self._bench_machines(f"--benchmark_filter=^{names}[A-Za-z]*/({sizes})(/|$)",
                                    "--benchmark_list_tests").split()

    def _benchmark(self, name):
        """Nanoseconds, in a process of its own: what memory one leaves behind costs the next."""
        out = self._bench_machines(f"--benchmark_filter=^{name}$", "--benchmark_format=json",
                                   "--benchmark_min_time=0.1")
        result = json.loads(out)["benchmarks"][0]
        if result.get("error_occurred"):
            raise SystemExit(f"bench: {name}: {result['error_message']}")
        return nanoseconds(result) / result.get("changes", 1)

    def _bench_machines(self, *arguments):
        return subprocess.run([self.workshop.program("benchMachines"), *arguments], check=True,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True).stdout

    # The sources without SNMP

    def sources(self):
        """{"change": {links: [ns]}, "reread": {links: [figures]}, "json": {tunnels: [figures]}}, of each round"""
        figures = {part: {rows: [] for rows in self.sizes} for part in ("change", "reread", "json")}
        for rows in self.sizes:
            file = self.workshop.document(rows)
            for number in range(self.rounds):
                progress(f"sources, {rows} tunnels, round {number}")
                change = self._bench_sources("change", rows)
                figures["change"][rows].append(change["bySourceNs"] - change["byHandNs"])
                figures["reread"][rows].append(self._bench_sources("reread", rows))
                figures["json"][rows].append(self._bench_sources("json", file))
        return figures

    def _bench_sources(self, *arguments):
        return self._figures("benchSources", *arguments)

    def ike(self):
        """{"vici": {what there is: [figures of each round]}}"""
        figures = {"vici": {}}
        for sas, links in (10, 0), (1000, 0), (10000, 0), (1000, 100000):
            name = f"{sas:,} SAs" + (f", {links:,} further links" if links else "")
            rounds = figures["vici"][name] = []
            for _ in range(self.rounds):
                progress(f"ike, {name}")
                rounds.append(self._figures("benchIke", "vici", sas, "--links", links))
        return figures

    def policies(self):
        """{tunnels and policies: [figures of each round]}, none where they may not be made"""
        figures = {count: [] for count in (10, 1000, 10000)}
        if os.geteuid() != 0:
            progress("policies: only as root")
            return {}
        for count, rounds in figures.items():
            for _ in range(self.rounds):
                progress(f"policies, {count}")
                rounds.append(self._figures("benchPolicies", count))
        return figures

    def _figures(self, program, *arguments):
        done = subprocess.run([self.workshop.program(program), *map(str, arguments)],
                              check=True, stdout=subprocess.PIPE, text=True)
        return json.loads(done.stdout)

    def memory(self):
        progress("memory")
        tunnels, changes = (10000, 100000) if self.quick else (100000, 1000000)
        done = subprocess.run([self.workshop.program("benchMemory"), "--tunnels", str(tunnels),
                               "--changes", str(changes)],
                              check=True, stdout=subprocess.PIPE, text=True)
        return {**json.loads(done.stdout), "daemon": self._resident(tunnels)}

    def _resident(self, rows):
        """Bytes of the daemon when it has become ready, and the most that it had until then."""
        agent = self.workshop.daemon(self.ours[-1], rows)
        try:
            agent.control.wait_ready()
            with open(f"/proc/{agent.child.pid}/status", encoding="utf-8") as status:
                fields = dict(line.split(":", 1) for line in status)
        finally:
            agent.end()
        return {name: 1024 * int(fields[field].split()[0])
                for name, field in (("ready", "VmRSS"), ("most", "VmHWM"))}


class Disturbance:
    """bench/disturb.py works while the block runs. Then `per_second` says how hard."""

    def __init__(self, *what, namespace=None):
        self.command = [*within(namespace), sys.executable,
                        os.path.join(os.path.dirname(__file__), "disturb.py"), *what]

    def __enter__(self):
        self.child = subprocess.Popen(self.command, stdout=subprocess.PIPE, text=True)
        return self

    def __exit__(self, *_):
        self.child.send_signal(signal.SIGTERM)
        out, _ = self.child.communicate()
        if self.child.returncode != 0:
            raise SystemExit("bench: nothing disturbed the daemon")
        self.per_second = json.loads(out)["perSecond"]


class Polling:
    """benchManager measures latency while the block runs."""

    def __init__(self, command, figures):
        self.command = command
        self.figures = figures

    def __enter__(self):
        self.child = subprocess.Popen(self.command, stdout=subprocess.PIPE, text=True)
        self.child.stdout.readline()  # it polls now

    def __exit__(self, kind, *_):
        self.child.send_signal(signal.SIGTERM)
        out, _ = self.child.communicate()
        if kind is None:
            if self.child.returncode != 0:
                raise SystemExit("bench: a request was not answered")
            self.figures.append(json.loads(out))


def shuffled(modes, seed):
    """In another order each time: who comes behind a pause, or behind whom, costs a little."""
    return random.Random(seed).sample(modes, len(modes))


def name_and_rows(benchmark):
    name, rows = benchmark.split("/")[:2]
    return name, int(rows)


def nanoseconds(result):
    return result["cpu_time"] * {"ns": 1, "us": 1e3, "ms": 1e6}[result["time_unit"]]


def progress(text):
    print(f"\r\033[K{text}" if sys.stderr.isatty() else text, file=sys.stderr, flush=True,
          end="" if sys.stderr.isatty() else "\n")
