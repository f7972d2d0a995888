# tests/host/typing/corpus/host_errors.py: host errors caught by their own exception types, with
# the host error and its properties on the exception.
#
#     tala --load sqlite run host_errors.py
import sqlite

db = sqlite.Database(":memory:")
db.executeScript("CREATE TABLE items (name TEXT NOT NULL UNIQUE)")
db.execute("INSERT INTO items (name) VALUES (?)", ["tea"])
try:
    db.execute("INSERT INTO items (name) VALUES (?)", ["tea"])
    raise AssertionError("the second insert should fail")
except sqlite.SqlError as error:
    code: int = error.code
    carried = error.tala
    message = str(error)
assert carried is not None
try:
    db.query("SELECT * FROM nowhere")
except RuntimeError as error:  # every host error is a RuntimeError too
    assert isinstance(error, sqlite.SqlError)
print(code, message)
return code  # type: ignore (the script's result: checkers allow return only in functions)
