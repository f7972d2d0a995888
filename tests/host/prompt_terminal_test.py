# tests/host/prompt_terminal_test.py: the host program's prompt driven through a pseudo-terminal,
# as a person types at it: blocks, a comprehension, completion, Ctrl-C while typing and while a
# line runs, a further line that works, history, Ctrl-D.
#
#     python3 prompt_terminal_test.py PATH_OF_TALA
import os
import pty
import select
import sys
import tempfile
import time

PROGRAM = sys.argv[1]
failures = []


def check(condition, what, seen):
    if not condition:
        failures.append(f"{what}; the terminal showed: {seen!r}")


home = tempfile.mkdtemp()
pid, terminal = pty.fork()
if pid == 0:
    os.environ["HOME"] = home
    os.environ["TERM"] = "dumb"
    os.execv(PROGRAM, [PROGRAM])


def read_until(marker, seconds=10.0):
    """What the terminal shows until `marker` appears (or the time is up)."""
    shown = b""
    deadline = time.time() + seconds
    while marker.encode() not in shown and time.time() < deadline:
        ready, _, _ = select.select([terminal], [], [], 0.05)
        if ready:
            try:
                shown += os.read(terminal, 4096)
            except OSError:
                break
    return shown.decode(errors="replace")


def type_keys(keys):
    os.write(terminal, keys.encode())


shown = read_until(">>> ")
check("on the tala host" in shown, "the banner is printed", shown)

type_keys("x = 5\r")
shown = read_until(">>> ")
check(shown.endswith(">>> "), "an assignment runs and a new prompt comes", shown)

type_keys("def add(n):\r")
shown = read_until("... ")
check(shown.endswith("... "), "a block continues on a '...' line", shown)
type_keys("    return n + x\r")
read_until("... ")
type_keys("\r")
shown = read_until(">>> ")
check(shown.endswith(">>> "), "an empty line ends the block", shown)

type_keys("[add(i) for i in range(3)]\r")
shown = read_until(">>> ")
check("[5, 6, 7]" in shown, "a comprehension sees the prompt's names", shown)

type_keys("tala.pyt\t")
shown = read_until("python")
check("tala.python" in shown, "Tab completes an attribute of a host module", shown)
type_keys("\x03")
shown = read_until(">>> ")
check("KeyboardInterrupt" in shown, "Ctrl-C while typing drops the line", shown)

type_keys("while True:\r")
read_until("... ")
type_keys("    pass\r")
read_until("... ")
type_keys("\r")
time.sleep(0.5)
started = time.time()
type_keys("\x03")
shown = read_until(">>> ")
check("KeyboardInterrupt" in shown, "Ctrl-C stops a running loop", shown)
check(time.time() - started < 5, "the loop stops promptly", shown)

type_keys("x * 2\r")
shown = read_until(">>> ")
check("10" in shown, "a further line works after the interruption", shown)

type_keys("\x04")
read_until("\n", 5)
_, status = os.waitpid(pid, 0)
check(os.waitstatus_to_exitcode(status) == 0, "Ctrl-D leaves with status 0", status)

history = os.path.join(home, ".tala_history")
lines = open(history).read() if os.path.exists(history) else ""
check("def add(n):" in lines and "x * 2" in lines, "the lines are kept in ~/.tala_history", lines)

if failures:
    print("\n".join(failures))
    sys.exit(1)
print("the prompt behaved as expected")
