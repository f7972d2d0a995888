# tests/host/interruption_process_test.py: Ctrl-C (SIGINT) and --timeout stop the host program's
# script wherever it waits: in Python code, in Python's waits in C (time.sleep, select, a socket
# read, Lock.acquire, a subprocess) and in a running SQL statement; its except and finally
# blocks run; a script that swallows the interruption still ends interrupted; the program ends
# as SIGINT ends it (status 130 in a shell) or with 124 after the timeout.
#
#     python3 interruption_process_test.py PATH_OF_TALA SCRIPT
import os
import signal
import subprocess
import sys
import time

PROGRAM, SCRIPT = sys.argv[1], sys.argv[2]
failures = []


def run(wait, stop, swallow=False):
    """Runs the script with WAIT=wait until it prints "started", stops it (with SIGINT, or
    with --timeout when stop is a number of seconds) and answers (status, stdout, stderr)."""
    environment = dict(os.environ, WAIT=wait)
    if swallow:
        environment["SWALLOW"] = "1"
    command = [PROGRAM, "--load", "sqlite", "run", SCRIPT]
    if stop != "sigint":
        command += ["--timeout", str(stop)]
    child = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=environment, text=True)
    first = child.stdout.readline()
    if first != "started\n":
        child.kill()
        return None, first, child.communicate()[1]
    if stop == "sigint":
        time.sleep(0.2)
        child.send_signal(signal.SIGINT)
    try:
        out, err = child.communicate(timeout=20)
    except subprocess.TimeoutExpired:
        child.kill()
        out, err = child.communicate()
        return "hung", out, err
    return child.returncode, first + out, err


def check(condition, what, outcome):
    if not condition:
        failures.append(f"{what}: status, stdout, stderr = {outcome!r}")


for wait in ("sleep", "select", "socket", "lock", "subprocess", "loop", "sql"):
    outcome = run(wait, "sigint")
    status, out, err = outcome
    check(status == -signal.SIGINT, f"Ctrl-C in a {wait} ends the program as SIGINT does", outcome)
    check(out == "started\ncleaned up\n", f"the finally block runs after Ctrl-C in a {wait}", outcome)
    check(err.rstrip().endswith("tala.python.Interrupted: The evaluation was interrupted."),
          f"the report of Ctrl-C in a {wait} ends with the interruption", outcome)

outcome = run("sleep", 0.3)
status, out, err = outcome
check(status == 124, "--timeout stops a sleep with 124", outcome)
check(out == "started\ncleaned up\n", "the finally block runs after --timeout", outcome)
check("Stopped after the timeout of 0.3 seconds." in err, "--timeout says it stopped the script", outcome)

outcome = run("loop", "sigint", swallow=True)
status, out, err = outcome
check(status == -signal.SIGINT, "a script that swallows Ctrl-C still ends as SIGINT ends it", outcome)
check(out == "started\nswallowed\ncleaned up\n", "... after its handlers ran, and its result is not printed", outcome)

outcome = run("sql", 0.3, swallow=True)
status, out, err = outcome
check(status == 124, "a script that swallows the timeout still ends with 124", outcome)
check(out == "started\nswallowed\ncleaned up\n", "... after its handlers ran, and its result is not printed", outcome)

if failures:
    print("\n".join(failures))
    sys.exit(1)
print("every wait was stopped as expected")
