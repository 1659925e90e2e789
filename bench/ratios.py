#!/usr/bin/env python3
"""Medians and ratios (ours / peer, time per operation) from a tessera_bench
JSON report written with --benchmark_repetitions=N --benchmark_out=FILE.

Both clocks are shown. The verdict against an aim uses CPU time: on a shared
machine wall time also counts the stretches in which the benchmark was not
running at all, and that noise lands on ours and the peer unevenly. For the
two-thread rows wall time per operation is the inverse of the combined rate and
CPU time per operation is what one operation costs the thread that runs it."""

import json
import sys

# (ours, peer, aim): aim is the largest acceptable ratio, or None; judged on
# CPU time, or on wall time where the aim is written ("wall", ratio) (the pool,
# the streams and the processes, whose work happens on other threads).
PAIRS = [
    ("RefCopy_Tessera", "RefCopy_IntrusivePtr", 1.1),
    ("RefCopy_Tessera", "RefCopy_SharedPtr", None),
    ("RefCopy_TesseraViaObject", "RefCopy_IntrusivePtr", None),
    ("Churn_Tessera", "Churn_IntrusivePtr", 1.8),
    ("Churn_Tessera", "Churn_MakeShared", None),
    ("Churn_TesseraWithoutCensus", "Churn_IntrusivePtr", None),
    ("Churn_Tessera/real_time/threads:2", "Churn_IntrusivePtr/real_time/threads:2", None),
    ("Churn_Tessera/real_time/threads:2", "Churn_MakeShared/real_time/threads:2", None),
    ("WeakGet_Tessera/real_time/threads:1", "WeakGet_WeakPtrLock/real_time/threads:1", 2.5),
    ("WeakGet_Tessera/real_time/threads:2", "WeakGet_WeakPtrLock/real_time/threads:2", None),
    ("Throw_TesseraTimeout/0", "Throw_StdRuntimeError/0", None),
    ("Throw_TesseraTimeout/32", "Throw_StdRuntimeError/32", None),
    ("Construct_TesseraTimeout", "Construct_StdRuntimeError", None),
    ("MeterSample_LwMeterAccumulator", "MeterSample_LwPlainStruct", 1.2),
    ("MeterSample_LwMeterAccumulatorThroughBase", "MeterSample_LwPlainStruct", None),
    ("MeterSample_LockedMeterAccumulator/real_time/threads:1",
     "MeterSample_LockedPlainStructStdMutex/real_time/threads:1", 1.2),
    ("MeterSample_LockedMeterAccumulator/real_time/threads:2",
     "MeterSample_LockedPlainStructStdMutex/real_time/threads:2", None),
    ("CounterQuery_TesseraPattern", "CounterQuery_HandLoopRegex", None),
    ("CounterQuery_TesseraPattern", "CounterExposition_HandSnprintf", None),
    ("CounterExposition_Tessera", "CounterExposition_HandSnprintf", None),
    ("Chunked_Tessera", "Chunked_PlainCopy", None),
    ("Chunked_TesseraSocket/real_time", "Chunked_PocoSocket/real_time", None),
    ("UrlEncode_Tessera", "UrlEncode_BoostUrl", 0.5),
    ("ParseUri_Tessera", "ParseUri_BoostUrl", 1.0),
    ("ParseUri_Tessera", "ParseUri_BoostRegexCompiledOnce", None),
    ("ParseAuthority_Tessera", "ParseAuthority_BoostUrl", 1.0),
    ("HttpDate_Tessera", "HttpDate_Strftime", 1.0),
    ("HttpDate_TesseraString", "HttpDate_StrftimeString", 1.0),
    ("RequestHead_Tessera", "RequestHead_BeastMessage", None),
    ("RequestHead_Tessera", "RequestHead_BeastBare", None),
    ("PoolPost1M_Tessera/real_time", "PoolPost1M_AsioThreadPool/real_time", ("wall", 1.0)),
    ("PoolRoundTrip_Tessera/real_time", "PoolRoundTrip_AsioThreadPool/real_time", ("wall", 1.2)),
    ("TimerCancel_Tessera", "TimerCancel_AsioSteadyTimer", 1.5),
    # Rates: a ratio of time per operation of at most 1/0.9.
    ("TcpRoundTrip_Tessera/real_time", "TcpRoundTrip_PlainAsio/2/real_time", ("wall", 1.11)),
    ("TcpRoundTrip_Tessera/real_time", "TcpRoundTrip_PlainAsio/1/real_time", None),
    ("Mix_OurClientPlainServer/real_time", "TcpRoundTrip_PlainAsio/1/real_time", None),
    ("Mix_PlainClientOurServer/real_time", "TcpRoundTrip_PlainAsio/1/real_time", None),
    ("TcpRoundTrip64_Tessera/0/real_time", "TcpRoundTrip64_PlainAsio/0/real_time", ("wall", 1.11)),
    ("TcpRoundTrip64_Tessera/1/real_time", "TcpRoundTrip64_PlainAsio/1/real_time", None),
    ("TcpStream64K_Tessera/real_time", "TcpStream64K_PlainAsio/real_time", ("wall", 1.11)),
    ("Spawn_Tessera/real_time", "Spawn_PosixSpawn/real_time", ("wall", 1.1)),
    ("Spawn_Tessera/real_time", "Spawn_PosixSpawnAsOurs/real_time", None),
    ("Spawn_PosixSpawnAsOurs/real_time", "Spawn_PosixSpawn/real_time", None),
    ("Spawn_Tessera/real_time", "Spawn_BoostProcess/real_time", None),
    ("Spawn_Tessera/real_time", "Spawn_Poco/real_time", None),
    ("Read1MiB_Tessera/real_time", "Read1MiB_PosixSpawn/real_time", ("wall", 1.1)),
    ("Spawn256_Tessera/real_time", "Spawn256_PosixSpawn/real_time", ("wall", 1.1)),
    ("Spawn256_Tessera/real_time", "Spawn256_Poco/real_time", None),
]


def main(path):
    with open(path) as f:
        report = json.load(f)
    medians = {}
    cpu = {}
    for b in report["benchmarks"]:
        if b.get("aggregate_name") == "median":
            scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[b.get("time_unit", "ns")]
            medians[b["run_name"]] = b["real_time"] * scale
            cpu[b["run_name"]] = b["cpu_time"] * scale
    if not medians:
        sys.exit("no median aggregates: run with --benchmark_repetitions=5")
    print("| benchmark | median wall ns/op | median CPU ns/op |")
    print("|---|---:|---:|")
    for name in sorted(medians):
        print(f"| {name} | {medians[name]:.1f} | {cpu[name]:.1f} |")
    print()
    print("| ours | peer | ratio (wall) | ratio (CPU) | aim |")
    print("|---|---|---:|---:|---|")
    for ours, peer, aim in PAIRS:
        if ours not in medians or peer not in medians:
            continue
        ratio = medians[ours] / medians[peer]
        ratio_cpu = cpu[ours] / cpu[peer]
        verdict = ""
        if aim is not None:
            clock, limit = aim if isinstance(aim, tuple) else ("CPU", aim)
            value = ratio if clock == "wall" else ratio_cpu
            verdict = f"<= {limit} on {clock} " + ("met" if value <= limit else "MISSED")
        print(f"| {ours} | {peer} | {ratio:.2f} | {ratio_cpu:.2f} | {verdict} |")


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else "tessera_bench.json")
