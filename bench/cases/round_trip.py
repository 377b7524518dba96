"""From a request's publishing to its result's arrival, one job at a time."""

from rig import Broker, Echo, Service, load, request

TITLE = "Round trip"

# What is compared: a name, the broker's transport, the priority of the service's log, the goal for
# the median's ratio and that for the 99th percentile's.
SETTINGS = [
    ("TCP, no delays", "tcp", "ERROR", 1.3, 1.5),
    ("TCP, no delays, log at INFO", "tcp", "INFO", 1.4, None),
    ("TCP, no delays, log at DEBUG", "tcp", "DEBUG", None, None),
    ("TCP, broker at its defaults", "tcp-default", "ERROR", None, None),
    ("Unix socket", "unix", "ERROR", None, None),
]


def run(bench):
    blocks, count = bench.pick((11, 1500), (3, 100))
    for name, transport, priority, median_goal, p99_goal in SETTINGS:
        folder = bench.folder()
        with Broker(folder / "broker", transport) as broker, \
                Service(folder / "service", broker, priority) as service, \
                Echo(folder / "echo", broker) as echo:
            services, echoes = [], []
            for target in (service, echo):
                load(target, request(), count)  # warms both up
            for block in range(blocks):
                bench.progress(f"{name}, block {block + 1} of {blocks}")
                services.append(load(service, request(), count))
                echoes.append(load(echo, request(), count))

        def compare(label, value, goal=None):
            bench.compare(f"{name}: {label}", "µs", [value(o) for o in services],
                          [value(o) for o in echoes], at_most=goal)

        compare("median", lambda o: o.median, median_goal)
        compare("90 %", lambda o: o.percentile(90))
        compare("99 %", lambda o: o.percentile(99), p99_goal)
