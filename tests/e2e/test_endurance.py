"""Many jobs of every kind in one daemon. Also runs under a wrapper such as valgrind.

For memory errors and leaks to count, let the wrapper end with a status of its own:

    PEX_DEADLINE_FACTOR=10 \\
    PEX_COMMAND_WRAPPER="valgrind -q --leak-check=full --error-exitcode=99" \\
    /usr/bin/pytest tests/e2e/test_endurance.py
"""

import os
import pathlib

import msgpack
import pytest

from harness import WRAPPER, failure, request, wait_until

LOAD_FAILURE = failure("Dock command service error. Failed to load command script.")
RUN_FAILURE = failure(
    "Dock command service error. Command script failure, please consult pex-command logs.")

# One round: (payload, expected result), each on a job id of its own.
ROUND = [
    (request("echo", b"x" * 1000), b"x" * 1000),
    (request("count", {"list": list(range(100)), "nested": [[[{"a": [1.5, None, True]}]]]}),
     b"2"),
    (request("large", 20000), b"y" * 20000),
    (request("silent"), b""),
    (request("syntax"), LOAD_FAILURE),
    (request("runtime", ["args"] * 10), RUN_FAILURE),
    (request("missing"), failure('Cannot run job. Script not found "missing.lua"')),
    (b"\xc1", failure("parse error")),
    (b"\x82\xa4", failure("insufficient bytes")),
    (b"\x81\x01\x02", failure("std::bad_cast")),
    (b"", b""),
]
ROUNDS = 10 if WRAPPER else 600
WARM_UP_ROUNDS = 2 if WRAPPER else 50


@pytest.fixture
def all_scripts(scripts):
    scripts.add("echo", "return args")
    scripts.add("count", "local n = 0 for _ in pairs(args) do n = n + 1 end return n")
    scripts.add("large", "return ('y'):rep(args)")
    scripts.add("silent", "leftover = {} for i = 1, 1000 do leftover[i] = {} end")
    scripts.add("syntax", "return return")
    scripts.add("runtime", "local t = {} for i = 1, 100 do t[i] = ('z'):rep(i) end error(t)")


def run_round(server):
    for job_id, (payload, _) in enumerate(ROUND):
        server.publish(str(job_id), payload)
    results = [(message.topic, message.payload) for message in server.results(len(ROUND))]
    assert results == [(f"out/cmd/{job_id}", expected)
                       for job_id, (_, expected) in enumerate(ROUND)]


def kilobytes_of_memory(service, kind="VmRSS"):
    """What is resident now, or the most that ever was ("VmHWM"); see proc(5)."""
    status = pathlib.Path(f"/proc/{service.pid}/status").read_text()
    return next(int(line.split()[1]) for line in status.splitlines() if line.startswith(kind + ":"))


def descriptors(service):
    return len(os.listdir(f"/proc/{service.pid}/fd"))


def is_instrumented(service):
    """Whether the memory of the process says nothing of the daemon's own."""
    return bool(WRAPPER) or "libasan" in pathlib.Path(f"/proc/{service.pid}/maps").read_text()


def test_thousands_of_jobs_leave_memory_and_descriptors_where_they_were(new_service, server,
                                                                        all_scripts):
    # At INFO, since a slow build would spend most of its time on the trace.
    service = new_service({"log4cpp.rootCategory": "INFO, FILE"}).start_up()
    for _ in range(WARM_UP_ROUNDS):
        run_round(server)
    kilobytes, open_files = kilobytes_of_memory(service), descriptors(service)
    for _ in range(ROUNDS):
        run_round(server)
    assert descriptors(service) == open_files
    if not is_instrumented(service):
        # A job that leaked its Lua state, or just its request, would take much more.
        assert kilobytes_of_memory(service) - kilobytes < 512
    server.expect_no_more()


def test_broker_that_comes_and_goes_leaves_descriptors_where_they_were(service, broker):
    open_files = descriptors(service)
    for _ in range(3 if WRAPPER else 6):
        mark = broker.mark()
        broker.kill()
        broker.start()
        service.wait_until_subscribed(mark)
        assert descriptors(service) == open_files


# The C library's thresholds at their first values. Left to itself, it raises them with each large
# block that is freed, and keeps so much more for the next one. See mallopt(3).
GIVES_MEMORY_BACK = {"MALLOC_MMAP_THRESHOLD_": "131072", "MALLOC_TRIM_THRESHOLD_": "131072"}


def test_deep_and_wide_arguments_leave_no_memory_behind(new_service, server, all_scripts):
    service = new_service({"log4cpp.rootCategory": "INFO, FILE"}, env=GIVES_MEMORY_BACK).start_up()
    deep = 100000
    wide = msgpack.packb(list(range(1000)) * (5 if WRAPPER else 100))
    payloads = [b"\x82\xaalua_script\xa6silent\xa4args" + args
                for args in [b"\x91" * deep + b"\xc0", b"\x81\x01" * deep + b"\xc0", wide]]

    def run_all():
        for payload in payloads:
            server.publish("7", payload)
            assert server.result().payload == b""

    for _ in range(1 if WRAPPER else 3):
        run_all()
    kilobytes = kilobytes_of_memory(service)
    for _ in range(1 if WRAPPER else 6):
        run_all()
    if not is_instrumented(service):
        # The last result's memory is free once the broker has acknowledged it, not before.
        wait_until(lambda: kilobytes_of_memory(service) - kilobytes < 8192,
                   "the memory to be given back")


DEEP = b"\x92" + 999_000 * b"\x91" + b"\x90"  # the rest of the room goes into its second element


@pytest.mark.parametrize("start, unit", [
    (b"\xdd", b"\x90"),      # an array of empty arrays
    (b"\xdd", b"\x80"),      # an array of empty maps
    (b"\xdd", b"\x91\x01"),  # an array of arrays of one number
    (b"\xdf", b"\x90\x90"),  # a map whose keys and values are empty arrays
    (DEEP + b"\xdd", b"\x90"),
], ids=["arrays", "maps", "filled", "keys", "deep"])
def test_request_of_1_mib_takes_less_than_160_mib(new_service, server, all_scripts, start, unit):
    service = new_service({"log4cpp.rootCategory": "INFO, FILE"}).start_up()
    if is_instrumented(service):
        pytest.skip("its memory is not the daemon's own")
    before = b"\x82\xaalua_script\xa6silent\xa4args" + start
    count = ((1 << 20) - len(before) - 4) // len(unit)
    kilobytes = kilobytes_of_memory(service)
    server.publish("7", before + count.to_bytes(4, "big") + count * unit)
    assert server.result().payload == b""
    assert kilobytes_of_memory(service, "VmHWM") - kilobytes < 160 * 1024
