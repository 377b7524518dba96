"""What Python makes of the service: each message on in/python/ID is a request in MessagePack; the
named script runs in a process of its own, and its output goes to out/python/ID, retained.
Usage: paho_subprocess.py HOST PORT SCRIPTS
"""

import signal
import socket
import subprocess
import sys

import msgpack
import paho.mqtt.client as mqtt

HOST, PORT, SCRIPTS = sys.argv[1], int(sys.argv[2]), sys.argv[3]


def on_message(client, userdata, message):
    script = msgpack.unpackb(message.payload)["lua_script"]
    job = subprocess.run(["lua5.2", f"{SCRIPTS}/{script}.lua"], stdin=subprocess.DEVNULL,
                         stdout=subprocess.PIPE, check=False)
    client.publish(message.topic.replace("in/", "out/", 1), job.stdout, qos=2, retain=True)


def without_delays(client, userdata, sock):
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)


signal.signal(signal.SIGTERM, lambda *call: sys.exit())
# paho 2 wants to be told which callbacks it is to call; paho 1 knows one kind.
kinds = getattr(mqtt, "CallbackAPIVersion", None)
client = mqtt.Client(kinds.VERSION2) if kinds else mqtt.Client()
client.on_socket_open = without_delays
client.on_connect = lambda client, *rest: client.subscribe("in/python/+", 1)
client.on_message = on_message
client.connect(HOST, PORT)
client.loop_forever()
