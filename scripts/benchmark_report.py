"""What scripts/bench and scripts/compare-benchmarks share: running a benchmark program."""

import json
import subprocess
import sys
import tempfile


def report_of(program, arguments):
    """The rows of its report. As the library writes lines of its own to both streams, the report goes into a file, and
    what the program says as an error is shown only if it fails.
    """
    with tempfile.NamedTemporaryFile() as out:
        done = subprocess.run([program, f"--benchmark_out={out.name}", "--benchmark_out_format=json", *arguments],
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        if done.returncode != 0:
            sys.stderr.write(done.stderr)
        done.check_returncode()
        return json.load(out)["benchmarks"]
