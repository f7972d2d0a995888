# tests/host/scripts/import_host_modules.py: every module that `tala --load sqlite modules` lists
# imports as the very object the script sees by name, and importlib treats it as a built-in module.
import importlib
import importlib.util
import sys

seen = {"tala": tala, "tala.python": tala.python, "python": python, "sqlite": sqlite}
for name, module in seen.items():
    assert importlib.import_module(name) is module, name
    assert sys.modules[name] is module, name
    assert importlib.reload(module) is module, name
    found = importlib.util.find_spec(name)
    assert found is not None and found.origin == "host" and found is module.__spec__, name
import sqlite as imported
from sqlite import Database
from tala.python import evaluate_expr
try:
    import nowhere_at_all
    missing = "imported"
except ModuleNotFoundError as error:
    missing = str(error)
return (imported is sqlite, Database == sqlite.Database, evaluate_expr("1 + 1", None, None), missing)
