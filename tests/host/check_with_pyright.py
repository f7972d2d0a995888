"""tests/host/check_with_pyright.py: the stub package that `tala stubs --all --out` writes, checked by pyright.

    check_with_pyright.py package PYRIGHT_FOLDER TALA PYTHON
        The package of every registered module (the sqlite module loaded) must give pyright 0 errors
        and 0 warnings, and `pyright --verifytypes --ignoreexternal` must find every symbol that each
        top-level package declares typed and documented; the figures of each are printed.

    check_with_pyright.py corpus PYRIGHT_FOLDER TALA CORPUS NEGATIVE EXAMPLES
        Opens the package folder as a person would (its own pyrightconfig.json) with scripts in it:
        the scripts of CORPUS and EXAMPLES must check with 0 errors and 0 warnings; in the scripts
        of NEGATIVE every line marked "# expect: RULE" must have an error of that rule, and no
        other line an error or a warning.

PYRIGHT_FOLDER is where scripts/install_pyright.sh installed pyright; PYTHON is the interpreter
pyright asks for its search paths.
"""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

EXPECT = re.compile(r"#\s*expect:\s*(\w+)")


def fail(message):
    print(f"FAILED: {message}", file=sys.stderr)
    sys.exit(1)


def pyright_program(folder):
    program = os.path.join(folder, "node_modules", ".bin", "pyright")
    if not os.access(program, os.X_OK):
        fail(f"pyright is not installed in {folder} (the test command installs it with scripts/install_pyright.sh).")
    return program


def write_package(tala, folder):
    done = subprocess.run([tala, "--load", "sqlite", "stubs", "--all", "--out", folder], capture_output=True, text=True)
    if done.returncode != 0:
        fail(f"tala stubs --all --out failed ({done.returncode}): {done.stderr}")


def run_pyright(program, arguments, environment=None):
    done = subprocess.run([program, "--outputjson", *arguments], capture_output=True, text=True, env=environment)
    try:
        return json.loads(done.stdout)
    except json.JSONDecodeError:
        fail(f"pyright printed no report (exit status {done.returncode}): {done.stdout}{done.stderr}")


def describe(diagnostic):
    line = diagnostic.get("range", {}).get("start", {}).get("line", -1) + 1
    return f"{diagnostic.get('file')}:{line}: {diagnostic['severity']}: {diagnostic['message']} ({diagnostic.get('rule', '')})"


def check_package(pyright_folder, tala, python):
    program = pyright_program(pyright_folder)
    work = tempfile.mkdtemp()
    try:
        stubs = os.path.join(work, "stubs")
        write_package(tala, stubs)
        report = run_pyright(program, ["--project", os.path.join(stubs, "pyrightconfig.json")])
        summary = report["summary"]
        for diagnostic in report["generalDiagnostics"]:
            print(describe(diagnostic))
        print(f"stub package: {summary['filesAnalyzed']} files, {summary['errorCount']} errors, "
              f"{summary['warningCount']} warnings")
        if summary["errorCount"] or summary["warningCount"]:
            fail("pyright does not pass the stub package cleanly.")
        environment = dict(os.environ, PYTHONPATH=stubs)
        for package in sorted(name for name in os.listdir(stubs) if os.path.isdir(os.path.join(stubs, name))):
            # What the package itself declares: the package "python" re-exports Python's own
            # modules, whose typeshed stubs leave some types unknown and most functions undocumented.
            completeness = run_pyright(program, ["--pythonpath", python, "--verifytypes", package, "--ignoreexternal"],
                                       environment)["typeCompleteness"]
            counts = completeness["exportedSymbolCounts"]
            print(f"verifytypes {package}: completeness {completeness['completenessScore'] * 100:.1f}%, "
                  f"{counts['withKnownType']} symbols known, {counts['withAmbiguousType']} ambiguous, "
                  f"{counts['withUnknownType']} unknown; without docstring: "
                  f"{completeness['missingFunctionDocStringCount']} functions, "
                  f"{completeness['missingClassDocStringCount']} classes")
            if (counts["withUnknownType"] or counts["withAmbiguousType"] or completeness["missingFunctionDocStringCount"]
                    or completeness["missingClassDocStringCount"]):
                fail(f"the package {package} is not completely typed and documented.")
    finally:
        shutil.rmtree(work)


def copy_scripts(source, target):
    os.makedirs(target, exist_ok=True)
    names = sorted(name for name in os.listdir(source) if name.endswith(".py"))
    for name in names:
        shutil.copy(os.path.join(source, name), target)
    return names


def expected_errors(path):
    expected = {}
    with open(path, encoding="utf-8") as file:
        for number, line in enumerate(file, start=1):
            mark = EXPECT.search(line)
            if mark:
                expected[number] = mark.group(1)
    return expected


def check_corpus(pyright_folder, tala, corpus, negative, examples):
    program = pyright_program(pyright_folder)
    work = tempfile.mkdtemp()
    try:
        project = os.path.join(work, "project")
        write_package(tala, project)
        scripts = copy_scripts(corpus, os.path.join(project, "scripts")) + copy_scripts(examples, os.path.join(project, "scripts"))
        mistakes = copy_scripts(negative, os.path.join(project, "negative"))
        report = run_pyright(program, ["--project", os.path.join(project, "pyrightconfig.json")])
        negative_folder = os.path.join(os.path.realpath(project), "negative") + os.sep
        clean, reported = [], {}
        for diagnostic in report["generalDiagnostics"]:
            path = os.path.realpath(diagnostic.get("file", ""))
            if path.startswith(negative_folder) and diagnostic["severity"] == "error":
                line = diagnostic["range"]["start"]["line"] + 1
                reported.setdefault((os.path.basename(path), line), set()).add(diagnostic.get("rule", ""))
            elif diagnostic["severity"] in ("error", "warning"):
                clean.append(describe(diagnostic))
        for text in clean:
            print(text)
        print(f"corpus: {len(scripts)} scripts and the stub package, {len(clean)} errors and warnings")
        if clean:
            fail("pyright reports errors or warnings in correct code.")
        expected = {}
        for name in mistakes:
            for line, rule in expected_errors(os.path.join(negative, name)).items():
                expected[(name, line)] = rule
        missed = [f"{name}:{line}: no {rule}" for (name, line), rule in sorted(expected.items())
                  if rule not in reported.get((name, line), set())]
        unexpected = [f"{name}:{line}: {sorted(rules)}" for (name, line), rules in sorted(reported.items())
                      if (name, line) not in expected]
        found = len(expected) - len(missed)
        print(f"negative corpus: {len(expected)} marked mistakes, {found} reported as marked, "
              f"{len(unexpected)} errors on unmarked lines")
        for text in missed + unexpected:
            print(text)
        if missed or unexpected:
            fail("pyright's errors in the negative corpus are not the marked ones.")
    finally:
        shutil.rmtree(work)


def main(arguments):
    if len(arguments) == 4 and arguments[0] == "package":
        check_package(*arguments[1:])
    elif len(arguments) == 6 and arguments[0] == "corpus":
        check_corpus(*arguments[1:])
    else:
        fail("usage: check_with_pyright.py package PYRIGHT_FOLDER TALA PYTHON | "
             "corpus PYRIGHT_FOLDER TALA CORPUS NEGATIVE EXAMPLES")


if __name__ == "__main__":
    main(sys.argv[1:])
