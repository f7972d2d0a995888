# tests/host/typing/corpus/statements.py: a database of the script's own: a schema, inserts by
# position and by name, many rows at once, a transaction undone, and what the connection says.
#
#     tala --load sqlite run statements.py
import sqlite
from sqlite import Database

db = Database(":memory:")
db.executeScript("""
    CREATE TABLE items (id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, price DECIMAL(10,2));
    CREATE TABLE notes (text TEXT);
""")
assert list(db.tables) == ["items", "notes"]

inserted = db.execute("INSERT INTO items (name, price) VALUES (?, ?)", ["tea", "4.50"])
last: int = db.lastInsertRowId
db.execute("INSERT INTO items (name, price) VALUES (:name, :price)", {"name": "coffee", "price": "9.90"})
changed = db.executeMany("INSERT INTO notes (text) VALUES (?)", [["first"], ["second"], ["third"]])
assert (inserted, last, changed) == (1, 1, 3)

# A transaction of the script's own, undone.
db.execute("BEGIN")
db.execute("DELETE FROM notes")
assert db.query("SELECT count(*) AS n FROM notes")[0].n == 0
db.execute("ROLLBACK")

# A failing statement: a host error, which Python catches as a RuntimeError.
try:
    db.execute("INSERT INTO items (name) VALUES ('tea')")
    failed = False
except RuntimeError:
    failed = True
assert failed

count: int = db.query("SELECT count(*) AS n FROM notes")[0].n
names = [row.name for row in db.query("SELECT name FROM items ORDER BY name")]
print(db.path, db.isOpen, count, names)
db.close()
db.close()  # closing again does nothing
return count  # type: ignore (the script's result: checkers allow return only in functions)
