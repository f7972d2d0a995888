# tests/host/typing/corpus/host_modules.py: the host modules a script uses: imported or by name,
# the host's logger, Python's logging, and the functions of tala.python.
#
#     tala run host_modules.py
import logging
import tala.python
from tala.python import evaluate_expr

# The host's logger directly, and Python's logging, which reaches it too.
tala.get_logger().log(tala.LogRecord(30, "corpus: straight to the host"))
logging.getLogger("corpus").warning("corpus: through Python's logging")

# Python code of the host's own, evaluated from the script.
product = evaluate_expr("x * y", {"x": 6, "y": 7}, None)
ran = tala.python.evaluate("return [name.upper() for name in names]", {"names": ["a", "b"]}, None, None)
dumps = tala.python.python_import("json.dumps")
text = dumps({"product": product})

# The Python modules the host knows, through the module python.
price = python.decimal.Decimal("1.10") * 3

# Imported modules are the very ones the script sees by name.
import sqlite
assert sqlite is globals()["sqlite"]
print(product, ran, text, price, tala.python is globals()["tala"].python)
return price  # type: ignore (the script's result: checkers allow return only in functions)
