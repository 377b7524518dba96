"""The second half of scripts/demo: a private broker, the daemon, and three jobs as a server would
send them."""

import argparse
import json
import pathlib
import queue
import shutil
import socket
import subprocess
import sys
import tempfile
import time

import msgpack
import paho.mqtt.client as mqtt

EXAMPLES = pathlib.Path(__file__).resolve().parent.parent / "examples"
DEADLINE = 30  # seconds for any one step

JOBS = [
    ("An answer in plain text", "greet", {"name": "dock 7"}),
    ("An answer in MessagePack: a map about this machine", "machine", None),
    ("A job that fails: the script misses an argument", "greet", {}),
]

BROKER_CONF = """\
listener {port} 127.0.0.1
allow_anonymous true
set_tcp_nodelay true
persistence false
log_type all
"""

SERVICE_PROPERTIES = """\
server_comms.host=127.0.0.1
server_comms.port={port}
script.search_dirs={scripts}
script.staging_dir={directory}/staging
log4cpp.rootCategory=INFO, FILE
log4cpp.appender.FILE=FileAppender
log4cpp.appender.FILE.fileName={directory}/pex-command.log
log4cpp.appender.FILE.layout=PatternLayout
log4cpp.appender.FILE.layout.ConversionPattern=%d %p %c: %m%n
"""

KEPT = """\
Both are still running. In a second terminal, watch the results:

    mosquitto_sub -h 127.0.0.1 -p {port} -q 2 -t 'out/cmd/#' -v

and send a job, then withdraw it:

    printf '\\202\\252lua_script\\245greet\\244args\\201\\244name\\242me' |
        mosquitto_pub -h 127.0.0.1 -p {port} -q 1 -t in/cmd/1 -s
    mosquitto_pub -h 127.0.0.1 -p {port} -q 1 -t in/cmd/1 -n

The daemon's log:      tail -f {directory}/pex-command.log
To stop both:          kill {daemon} {broker}
To clean up:           rm -r {directory}
"""


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def start(command, output):
    """Starts a process of its own session, so that Ctrl-C here does not reach it."""
    with output.open("wb") as file:
        return subprocess.Popen(command, stdout=file, stderr=file, start_new_session=True)


def wait_for(text, log, processes):
    """Waits until a log holds `text`; ends the demo if one of the processes has ended."""
    end = time.monotonic() + DEADLINE
    while text not in log.read_text(errors="replace"):
        if any(process.poll() is not None for process in processes) or time.monotonic() > end:
            sys.exit(f"Something did not start. Last lines of {log}:\n"
                     + "\n".join(log.read_text(errors="replace").splitlines()[-5:]))
        time.sleep(0.02)


class Server:
    """What a server does: one connection, requests out, results in."""

    def __init__(self, port):
        self.results = queue.Queue()
        subscribed = queue.Queue()
        self.client = mqtt.Client("demo-server")
        self.client.on_message = lambda client, data, message: self.results.put(message)
        self.client.on_subscribe = lambda *details: subscribed.put(True)
        self.client.connect("127.0.0.1", port)
        self.client.loop_start()
        self.client.subscribe("out/cmd/+", 2)
        subscribed.get(timeout=DEADLINE)

    def call(self, job_id, payload):
        """Publishes on the request topic and returns what comes back on the result topic."""
        self.client.publish("in/cmd/" + job_id, payload, qos=1)
        return self.results.get(timeout=DEADLINE)

    def close(self):
        self.client.disconnect()
        self.client.loop_stop()


def decoded(payload):
    """The answer as text: MessagePack as JSON where it is a whole map, else plain text."""
    try:
        value = msgpack.unpackb(payload)
    except ValueError:
        value = None
    if isinstance(value, dict):
        return json.dumps(value, indent=4, ensure_ascii=False)
    return payload.decode(errors="replace")


def show(label, text):
    lines = text.splitlines() or ["(nothing)"]
    print(f"   {label:<11}{lines[0]}")
    for line in lines[1:]:
        print(" " * 14 + line)


def run_job(server, log, number, title, script, args):
    job_id = f"demo-{number}"
    request = {"lua_script": script, "args": args}
    print(f"\n{number}. {title}")
    show("request", f"in/cmd/{job_id}")
    show("", json.dumps(request))
    result = server.call(job_id, msgpack.packb(request))
    show("result", f"{result.topic}, {len(result.payload)} bytes")
    show("", decoded(result.payload))
    errors = [line for line in log.read_text().splitlines() if " ERROR " in line]
    if errors:
        show("log", "\n".join(errors))
    end = server.call(job_id, b"")
    show("withdrawn", f"{end.topic}, {len(end.payload)} bytes: the broker keeps nothing of the job")


def main():
    parser = argparse.ArgumentParser(prog="scripts/demo")
    parser.add_argument("daemon", help=argparse.SUPPRESS)
    parser.add_argument("--keep", action="store_true", help="leave broker and daemon running")
    options = parser.parse_args()

    directory = pathlib.Path(tempfile.mkdtemp(prefix="pex-command-demo-"))
    (directory / "staging").mkdir()
    values = {"port": free_port(), "directory": directory, "scripts": EXAMPLES / "scripts"}
    conf = directory / "mosquitto.conf"
    conf.write_text(BROKER_CONF.format(**values))
    properties = directory / "pex-command.properties"
    properties.write_text(SERVICE_PROPERTIES.format(**values))

    processes = []
    try:
        broker_log = directory / "broker.log"
        mosquitto = shutil.which("mosquitto") or "/usr/sbin/mosquitto"
        processes.append(start([mosquitto, "-c", conf], broker_log))
        wait_for("running", broker_log, processes)
        print(f"A private broker runs on 127.0.0.1:{values['port']}")
        processes.append(start([options.daemon, properties], directory / "daemon.err"))
        wait_for("Sending SUBACK", broker_log, processes)
        print("The daemon has connected and waits for requests on in/cmd/+")
        server = Server(values["port"])
        for number, job in enumerate(JOBS, 1):
            run_job(server, directory / "pex-command.log", number, *job)
        server.close()
        print()
        if options.keep:
            broker, daemon = (process.pid for process in processes)
            print(KEPT.format(**values, broker=broker, daemon=daemon), end="")
            processes.clear()
            return
    finally:
        for process in reversed(processes):
            process.terminate()
            process.wait(timeout=DEADLINE)
        if not options.keep:
            shutil.rmtree(directory)
    print("Everything is stopped. `scripts/demo --keep` leaves it running for you to try.")


if __name__ == "__main__":
    main()
