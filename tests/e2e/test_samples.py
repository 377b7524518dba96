"""The programs in the documents, as a reader would copy them."""

import re
import subprocess

from harness import DEADLINE, REPOSITORY, own_environment


def test_server_in_python_runs_as_documented(service, broker, scripts, tmp_path):
    scripts.add("greet", 'return "Hello, " .. args.name .. "!"')
    text = (REPOSITORY / "docs/protocol.md").read_text()
    program, output = re.search(r"```python\n(.*?)```\n\nIt prints\n\n((?:    .*\n?)+)", text,
                                re.DOTALL).groups()
    assert '"127.0.0.1", 1883' in program
    (tmp_path / "server.py").write_text(
        program.replace('"127.0.0.1", 1883', f'"{broker.host}", {broker.port}'))
    done = subprocess.run(["/usr/bin/python3", tmp_path / "server.py"], capture_output=True,
                          text=True, timeout=DEADLINE, env=own_environment())
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == re.sub("(?m)^    ", "", output)
