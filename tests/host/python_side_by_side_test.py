# tests/host/python_side_by_side_test.py: the host program runs scripts as CPython 3.13's own
# program does: the same exit status, the same output and the same report, case by case, for
# the two programs given the same script, arguments and standard input.
#
#     python3 python_side_by_side_test.py PATH_OF_TALA PATH_OF_PYTHON3.13 SCRIPTS_FOLDER
import os
import signal
import subprocess
import sys

TALA, PYTHON, SCRIPTS = sys.argv[1], sys.argv[2], sys.argv[3]
failures = []


def ran(command, stdin):
    done = subprocess.run(command, input=stdin, capture_output=True, text=True, timeout=60, cwd=SCRIPTS)
    return done.returncode, done.stdout, done.stderr


def without_program(report, program):
    # Both programs name themselves in front of some messages ("tala: can't open file ...").
    return report.replace(program + ":", "PROGRAM:").replace("tala:", "PROGRAM:")


def compare(what, python_arguments, tala_arguments, stdin="", whole_report=True):
    python = ran([PYTHON, *python_arguments], stdin)
    tala = ran([TALA, *tala_arguments], stdin)
    if python[0] != tala[0] or python[1] != tala[1]:
        failures.append(f"{what}: python3.13 gave {python!r}, tala gave {tala!r}")
        return
    python_report, tala_report = without_program(python[2], PYTHON), without_program(tala[2], PYTHON)
    if not whole_report:
        # Tracebacks name the script's frame <module> in Python and tala_outer in tala.
        python_report, tala_report = python_report.rstrip().split("\n")[-1], tala_report.rstrip().split("\n")[-1]
    if python_report != tala_report:
        failures.append(f"{what}: python3.13 reported {python[2]!r}, tala reported {tala[2]!r}")


compare("a script imports the module beside it and reads argparse arguments",
        ["greeter/greet.py", "--name", "Ada", "--times", "2"], ["run", "greeter/greet.py", "--", "--name", "Ada", "--times", "2"])
compare("argparse refuses a missing argument with status 2",
        ["greeter/greet.py"], ["run", "greeter/greet.py"])
compare("sys.argv, __file__, __name__ and sys.path[0]", ["where.py", "a", "b"], ["run", "where.py", "--", "a", "b"])
compare("the same through an absolute path", [os.path.join(SCRIPTS, "where.py")], ["run", os.path.join(SCRIPTS, "where.py")])
compare("a folder runs its __main__.py", ["app", "x"], ["run", "app", "--", "x"])
compare("a folder without __main__.py", ["greeter"], ["run", "greeter"])
compare("a file that does not exist", ["no_such_script.py"], ["run", "no_such_script.py"])
compare("a UTF-8 byte-order mark", ["byte_order_mark.py"], ["run", "byte_order_mark.py"])
compare("a coding cookie", ["latin1_cookie.py"], ["run", "latin1_cookie.py"])
compare("a cookie that names no encoding", ["unknown_cookie.py"], ["run", "unknown_cookie.py"])
compare("bytes that are not UTF-8 and no cookie", ["not_utf8.py"], ["run", "not_utf8.py"])
compare("a syntax error", ["syntax_error.py"], ["run", "syntax_error.py"])
code = "import sys; print(sys.argv, repr(sys.path[0]), __name__)"
compare("-c with arguments", ["-c", code, "a", "b"], ["-c", code, "a", "b"])
compare("standard input as the script", [], [], stdin=code + "\n")
compare("run - reads standard input", ["-", "q"], ["run", "-", "--", "q"], stdin=code + "\n")
compare("a KeyboardInterrupt ends the program as SIGINT does",
        ["-c", "raise KeyboardInterrupt"], ["-c", "raise KeyboardInterrupt"], whole_report=False)
compare("sys.exit with a status", ["-c", "import sys; sys.exit(3)"], ["-c", "import sys; sys.exit(3)"])
compare("sys.exit with a text", ["-c", "import sys; sys.exit('bye')"], ["-c", "import sys; sys.exit('bye')"])
compare("an exception", ["-c", "print('before'); 1/0"], ["-c", "print('before'); 1/0"], whole_report=False)

version = ran([PYTHON, "--version"], "")[1].split()[-1]
tala_version = ran([TALA, "--version"], "")
if tala_version[0] != 0 or not tala_version[1].startswith("tala ") or f"(Python {version})" not in tala_version[1]:
    failures.append(f"--version names the program and Python {version}: {tala_version!r}")

if failures:
    print("\n".join(failures))
    sys.exit(1)
print("tala ran every script as python3.13 does")
