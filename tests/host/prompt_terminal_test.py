# tests/host/prompt_terminal_test.py: the host program's prompt and debugger driven through a
# pseudo-terminal, as a person types at them: Python 3.13's console (auto-indent, whole-block
# recall, a paste with a blank line, completion of host members, tracebacks with source lines,
# tables, Ctrl-C while typing and during a query, history kept as blocks are entered, exit), the
# basic console where Python falls back to it, PYTHONSTARTUP, and breakpoint() in a script.
#
#     python3 prompt_terminal_test.py PATH_OF_TALA SCRIPTS_FOLDER
import os
import pty
import re
import select
import sys
import tempfile
import time

PROGRAM, SCRIPTS = sys.argv[1], sys.argv[2]
UP = "\x1bOA"  # the up arrow, as a terminal in application-keypad mode sends it
failures = []


def check(condition, what, seen):
    if not condition:
        failures.append(f"{what}; the terminal showed: {seen!r}")


class Terminal:
    """The program on a pseudo-terminal of its own."""

    def __init__(self, arguments, term, home, environment=None):
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            os.environ.update(environment or {})
            os.environ["HOME"] = home
            os.environ["TERM"] = term
            os.execv(PROGRAM, [PROGRAM, *arguments])

    def read_until(self, marker, seconds=10.0):
        """What the terminal shows until `marker` appears (or the time is up), without the
        terminal's control sequences and carriage returns."""
        shown = ""
        deadline = time.time() + seconds
        while marker not in shown and time.time() < deadline:
            ready, _, _ = select.select([self.fd], [], [], 0.05)
            if ready:
                try:
                    raw = os.read(self.fd, 4096)
                except OSError:
                    break
                shown += re.sub(r"\x1b\[[0-9;?]*[A-Za-z]|\x1b[=>]", "", raw.decode(errors="replace")).replace("\r", "")
        return shown

    def type(self, keys, until, seconds=10.0):
        os.write(self.fd, keys.encode())
        return self.read_until(until, seconds)

    def status(self, seconds=10.0):
        deadline = time.time() + seconds
        while time.time() < deadline:
            self.read_until("\x00", 0.1)  # keep the terminal drained
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            if pid:
                return os.waitstatus_to_exitcode(status)
        os.kill(self.pid, 9)
        os.waitpid(self.pid, 0)
        return "hung"


def history_of(home):
    path = os.path.join(home, ".tala_history")
    return open(path, encoding="utf-8", newline="").read() if os.path.exists(path) else ""


# A fresh prompt, once a block ran (as it is typed, the console redraws its line after ">>> ").
PROMPT = "\n>>> "
MORE = "\n... "


# ---- Python 3.13's console ---------------------------------------------------------------------
home = tempfile.mkdtemp()
terminal = Terminal(["--load", "sqlite"], "xterm", home)
shown = terminal.read_until(PROMPT)
check("on the tala host" in shown and "warning" not in shown, "the banner is printed, and no warning", shown)

terminal.type("x = 41\r", PROMPT)
# Auto-indent: the body is typed without indentation.
terminal.type("def add(n):\r", MORE)
terminal.type("return n + x\r", MORE)
terminal.type("\r", PROMPT)
shown = terminal.type("add(1)\r", PROMPT)
check("\n42\n" in shown, "a block typed with auto-indent runs", shown)

# Up recalls the whole block, which runs again.
terminal.type("n = 1\r", PROMPT)
terminal.type("for i in range(2):\r", MORE)
terminal.type("n += 1\r", MORE)
terminal.type("\r", PROMPT)
terminal.type(UP, "n += 1", 5)
terminal.type("\r", MORE, 2)
terminal.type("\r", PROMPT)
shown = terminal.type("n\r", PROMPT)
check("\n5\n" in shown, "Up recalls the whole block and it runs again", shown)

# A paste of a function with a blank line inside it.
terminal.type("\x1b[200~def twice(k):\n    a = k + 1\n\n    return a * 2\n\x1b[201~", "return a * 2")
terminal.type("\r", PROMPT)
shown = terminal.type("twice(2)\r", PROMPT)
check("\n6\n" in shown, "a pasted function with a blank line runs", shown)

shown = terminal.type("tala.pyt\t", "tala.python")
check("tala.python" in shown, "Tab completes a member of a host module", shown)
shown = terminal.type("\x03", PROMPT)
check("KeyboardInterrupt" in shown, "Ctrl-C while typing drops the line", shown)

shown = terminal.type("1/0\r", PROMPT)
check('File "<python-input-' in shown and "    1/0\n" in shown and "~^~" in shown and "ZeroDivisionError" in shown,
      "a traceback shows the source line and the caret", shown)

terminal.type("db = sqlite.Database.open(':memory:')\r", PROMPT)
shown = terminal.type("db.query(\"SELECT 1 AS id, 'Tea' AS name\")\r", PROMPT)
check("id  name\n--  ----\n1   Tea\n" in shown, "a list of rows prints as a table", shown)

terminal.type("db.query('WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c) SELECT count(*) FROM c')\r",
              "FROM c')\n", 5)
time.sleep(0.5)
started = time.time()
shown = terminal.type("\x03", PROMPT)
check("KeyboardInterrupt" in shown, "Ctrl-C stops a running query", shown)
check(time.time() - started < 5, "the query stops promptly", shown)
shown = terminal.type("x + 1\r", PROMPT)
check("\n42\n" in shown, "the names defined before the query are still there", shown)

lines = history_of(home)
check("def add(n):\r\n    return n + x" in lines and "db.query(" in lines, "history is written as blocks are entered", lines)
terminal.type("exit\r", "\x00", 2)
check(terminal.status() == 0, "exit without parentheses leaves with status 0", "")

# ---- The basic console, where Python falls back to it ------------------------------------------
home = tempfile.mkdtemp()
terminal = Terminal([], "dumb", home)
shown = terminal.read_until(">>> ")
check("on the tala host" in shown and "warning: can't use pyrepl" in shown, "TERM=dumb gives the basic console, with Python's warning", shown)
terminal.type("x = 5\r", ">>> ")
shown = terminal.type("def add(n):\r", "... ")
check(shown.endswith("... "), "a block continues on a '...' line", shown)
terminal.type("    return n + x\r", "... ")
shown = terminal.type("\r", ">>> ")
shown = terminal.type("[add(i) for i in range(3)]\r", ">>> ")
check("[5, 6, 7]" in shown, "a comprehension sees the prompt's names", shown)
shown = terminal.type("tala.pyt\t", "python")
check("tala.python" in shown, "Tab completes an attribute of a host module", shown)
shown = terminal.type("\x03", ">>> ")
check("KeyboardInterrupt" in shown, "Ctrl-C while typing drops the line", shown)
terminal.type("while True:\r", "... ")
terminal.type("    pass\r", "... ")
terminal.type("\r", "\n")
time.sleep(0.5)
started = time.time()
shown = terminal.type("\x03", ">>> ")
check("KeyboardInterrupt" in shown, "Ctrl-C stops a running loop", shown)
check(time.time() - started < 5, "the loop stops promptly", shown)
shown = terminal.type("x * 2\r", ">>> ")
check("10" in shown, "a further line works after the interruption", shown)
lines = history_of(home)
check("def add(n):" in lines and "x * 2" in lines, "the lines are kept in ~/.tala_history as they are entered", lines)
terminal.type("\x04", "\n", 5)
check(terminal.status() == 0, "Ctrl-D leaves with status 0", "")

home = tempfile.mkdtemp()
startup = os.path.join(home, "startup.py")
with open(startup, "w") as file:
    file.write("greeting = 'set up by PYTHONSTARTUP'\n")
terminal = Terminal([], "xterm", home, {"PYTHON_BASIC_REPL": "1", "PYTHONSTARTUP": startup})
shown = terminal.read_until(">>> ")
check("warning" not in shown, "PYTHON_BASIC_REPL gives the basic console without a warning", shown)
shown = terminal.type("greeting\r", ">>> ")
check("'set up by PYTHONSTARTUP'" in shown, "the file PYTHONSTARTUP names runs first", shown)
shown = terminal.type("exit\r", ">>> ")
check("Use exit() or Ctrl-D (i.e. EOF) to exit" in shown, "the basic console shows exit as Python's does", shown)
terminal.type("exit()\r", "\x00", 2)
check(terminal.status() == 0, "exit() leaves the basic console", "")

# ---- breakpoint() in a script ------------------------------------------------------------------
terminal = Terminal(["run", os.path.join(SCRIPTS, "debugged.py")], "dumb", tempfile.mkdtemp())
shown = terminal.read_until("(Pdb) ")
check("debugged.py(3)" in shown, "breakpoint() opens pdb in the script", shown)
shown = terminal.type("p x\r", "(Pdb) ")
check("\n42\n" in shown, "pdb shows the script's names", shown)
shown = terminal.type("p tala.python\r", "(Pdb) ")
check("tala.python" in shown and "Error" not in shown, "pdb sees the host modules", shown)
shown = terminal.type("c\r", "after 43")
check("after 43" in shown, "continuing returns to the script", shown)
check(terminal.status() == 0, "the script ends with status 0", "")

if failures:
    print("\n".join(failures))
    sys.exit(1)
print("the prompt and the debugger behaved as expected")
