#!/usr/bin/env python3
"""Writes what the benchmarks and the simulator have measured into a document.

  bench/report.py BENCH_JSON SIM_JSON CONTROL_JSON DOCUMENT PLOTS

Replaces what stands between markers like <!-- engine --> and <!-- /engine --> by tables, and writes
the data of the plots to the folder PLOTS. Fails when a benchmark has failed or is missing, but for
those of transports that are not installed. Times are first quartiles.
"""

import json
import re
import subprocess
import sys
from pathlib import Path

SIZES = (64, 1024, 8192)  # bytes of a message
TRANSPORTS = {"Engine": "Tarn", "Floor": "floor", "Enet": "ENet", "Usrsctp": "usrsctp"}
PACKAGES = {"Enet": "libenet", "Usrsctp": "usrsctp"}
SOCKETS = {
    "bare loop": "Datagram<BarePair>/64",
    "attached pair": "Datagram<AttachedPair>/64",
    "bare loop, 1 KiB": "Datagram<BarePair>/1024",
    "attached pair, 1 KiB": "Datagram<AttachedPair>/1024",
    "1 socket receives": "ReceivedDatagram/sockets:1/active:1",
    "1,000 receive in turn": "ReceivedDatagram/sockets:1000/active:1000",
    "1 of 1,000 receives": "ReceivedDatagram/sockets:1000/active:1",
}
# What Google Benchmark adds to a name.
SETTINGS = re.compile(r"/(min_time|iterations|repeats):[^/]*|/(process|real|manual)_time")


class Results:
    """The benchmarks' first quartiles, by name."""

    def __init__(self, report: dict):
        failed = {each["name"] for each in report["benchmarks"] if each.get("error_occurred")}
        if failed:
            raise SystemExit(f"failed: {', '.join(sorted(failed))}")
        self.context = report["context"]
        self._quartiles = {SETTINGS.sub("", each["run_name"]): each for each in report["benchmarks"]
                         if each.get("aggregate_name") == "quartile"}

    def __contains__(self, name: str) -> bool:
        return name in self._quartiles

    def of(self, name: str, what: str) -> float:
        """A counter, or with `what` cpu_time or real_time, nanoseconds."""
        if name not in self._quartiles:
            raise SystemExit(f"no result for {name}")
        return self._quartiles[name][what]

    def cpu(self, name: str) -> float:
        return self.of(name, "cpu_time")

    def wall(self, name: str) -> float:
        return self.of(name, "real_time")


def main() -> None:
    if len(sys.argv) != 6:
        raise SystemExit(__doc__)
    bench, sim, control, document, plots = map(Path, sys.argv[1:])
    results = Results(json.loads(bench.read_text()))
    simulated = json.loads(sim.read_text())
    write_document(document, {
        "machine": machine(results),
        "engine": engine(results),
        "traffic": traffic(results),
        "sessions": sessions(results),
        "handles": handles(results),
        "threads": threads(results),
        "timers": timers(results),
        "sockets": sockets(results),
        "latency": latency(simulated),
        "bulk": bulk(simulated),
        "control": with_options(json.loads(control.read_text())),
    })
    write_plots(plots, results, simulated)


def write_document(path: Path, parts: dict[str, str]) -> None:
    text = path.read_text()
    for name, part in parts.items():
        between = re.compile(rf"(<!-- {name} -->\n).*?(<!-- /{name} -->)", re.DOTALL)
        text, count = between.subn(lambda found, part=part: f"{found[1]}{part}\n{found[2]}", text)
        if count != 1:
            raise SystemExit(f"{path}: {count} places for {name}")
    path.write_text(text)


def write_plots(folder: Path, results: Results, simulated: dict) -> None:
    present = transports(results)
    write_tsv(folder / "engine.tsv", ["message", *present.values()],
              [[size_name(size), *(results.cpu(message(each, size)) for each in present)]
               for size in SIZES])
    write_tsv(folder / "latency.tsv", ["loss", "p50", "p99"],
              [[each["loss"] * 100, each["p50_ms"], each["p99_ms"]]
               for each in simulated["latency"]])
    write_tsv(folder / "sockets.tsv", ["case", "wall", "CPU"],
              [[title, results.wall(name) / 1000, results.cpu(name) / 1000]
               for title, name in SOCKETS.items()])


def write_tsv(path: Path, head: list[str], rows: list[list]) -> None:
    path.write_text("".join("\t".join(map(str, row)) + "\n" for row in (head, *rows)))


def machine(results: Results) -> str:
    context = results.context
    date = context["date"].split("T")[0]
    kernel = Path("/proc/sys/kernel/osrelease").read_text().strip()
    return (f"Measured on {date}, {context['num_cpus']} cores, {cpu_model()}, Linux {kernel},\n"
            f"release build by {context['compiler']}.")


def cpu_model() -> str:
    for line in Path("/proc/cpuinfo").read_text().split("\n"):
        if line.startswith("model name"):
            return line.split(":", 1)[1].strip()
    return "unknown processor"


def engine(results: Results) -> str:
    present = transports(results)
    return table(["message", *present.values()],
                 [[size_name(size), *(duration(results.cpu(message(each, size)))
                                      for each in present)] for size in SIZES])


def transports(results: Results) -> dict[str, str]:
    """Titles of those that were measured, by the names of their benchmarks."""
    return {name: f"{title} {version(PACKAGES[name])}" if name in PACKAGES else title
            for name, title in TRANSPORTS.items()
            if name not in PACKAGES or message(name, SIZES[0]) in results}


def version(package: str) -> str:
    asked = subprocess.run(["pkg-config", "--modversion", package], check=True, text=True,
                           stdout=subprocess.PIPE)
    return asked.stdout.strip()


def message(transport: str, size: int) -> str:
    return f"Message<{transport}>/{size}"


def size_name(size: int) -> str:
    return f"{size} bytes" if size < 1024 else f"{size // 1024} KiB"


def traffic(results: Results) -> str:
    return costs(results, {
        "reliable, 64 bytes": "Message<Engine>/64",
        "reliable, 1 KiB": "Message<Engine>/1024",
        "reliable, 8 KiB, in 6 segments": "Message<Engine>/8192",
        "reliable, 64 KiB, in 47 segments": "Message<WideEngine>/65536",
        "reliable, 64 bytes, a window of 32 arrives in reverse order": "ReversedMessage/64",
        "reliable, 1 KiB, a window of 32 arrives in reverse order": "ReversedMessage/1024",
        "unreliable, 64 bytes": "UnreliableMessage/64",
        "unreliable, 1 KiB": "UnreliableMessage/1024",
        "unreliable, 64 bytes, not copied": "UnreliableMessageNoCopy/64",
        "unreliable, 1 KiB, not copied": "UnreliableMessageNoCopy/1024",
    })


def sessions(results: Results) -> str:
    rows = []
    for count in (1000, 10000):
        name = f"IdleSessions/{count}"
        rows.append([f"{count:,}", f"{results.of(name, 'core_percent'):.2g} %",
                     f"{results.of(name, 'heap_per_session') / 1024:.1f} KiB"])
    return table(["sessions", "share of one core", "heap each"], rows)


def handles(results: Results) -> str:
    return table(["sessions alive", "create and destroy one more", "find one by its handle"],
                 [[f"{count:,}", duration(results.cpu(f"CreateAndDestroy/{count}")),
                   duration(results.cpu(f"Handle/{count}"))] for count in (10, 10000)])


def threads(results: Results) -> str:
    return costs(results, {
        "a function to the worker, one of many": "HandOver<TarnThread>",
        "a function to the worker and back": "HandOverAndWait<TarnThread>",
        "a function to the I/O thread, one of many": "HandOver<TarnIoThread>",
        "a function to the I/O thread and back": "HandOverAndWait<TarnIoThread>",
        "a periodic timer added and cancelled, one of 1,000": "TimerAddAndCancel<kPeriodic>/1000",
        "a one-shot timer added and cancelled, one of 1,000": "TimerAddAndCancel<kOneShot>/1000",
    })


def timers(results: Results) -> str:
    return table(["one of 1,000 that are due", "time"],
                 [[title, duration(results.wall(f"TimerFire<{name}>"))]
                  for title, name in (("periodic", "kPeriodic"), ("one-shot", "kOneShot"))])


def sockets(results: Results) -> str:
    return costs(results, SOCKETS)


def costs(results: Results, names: dict[str, str]) -> str:
    return table(["", "by the clock", "CPU time"],
                 [[title, duration(results.wall(name)), duration(results.cpu(name))]
                  for title, name in names.items()])


def latency(simulated: dict) -> str:
    return table(["loss", "half arrive within", "99 % arrive within",
                  "bytes sent for each of payload"],
                 [[f"{each['loss'] * 100:g} %", f"{each['p50_ms']:.1f} ms", f"{each['p99_ms']:.1f} ms",
                   f"{each['wire_bytes_per_payload_byte']:.2f}"] for each in simulated["latency"]])


def bulk(simulated: dict) -> str:
    return table(["window", "throughput"],
                 [[f"{each['window']} segments", f"{each['mbit_per_s']:.1f} Mbit/s"]
                  for each in simulated["bulk"]])


def with_options(simulated: dict) -> str:
    return table(["", "plain", "with options"],
                 [[each["what"], f"{each['plain']:.3g} {each['unit']}",
                   f"{each['with_options']:.3g} {each['unit']}"] for each in simulated["control"]])


def duration(ns: float) -> str:
    if ns < 1000:
        return f"{ns:.0f} ns"
    return f"{ns / 1000:.1f} µs" if ns < 100_000 else f"{ns / 1000:.0f} µs"


def table(head: list[str], rows: list[list[str]]) -> str:
    return "\n".join(f"| {' | '.join(row)} |" for row in (head, ["---"] * len(head), *rows))


if __name__ == "__main__":
    main()
