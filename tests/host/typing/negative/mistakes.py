# tests/host/typing/negative/mistakes.py: mistakes that the type checker must report, each on the
# line that says which report it makes; no other line may have an error.
import sqlite

no_path = sqlite.Database()  # expect: reportCallIssue
db = sqlite.Database(":memory:")
db.query()  # expect: reportCallIssue
db.query(42)  # expect: reportArgumentType
db.execute("SELECT ?", [1], "extra")  # expect: reportCallIssue
db.querry("SELECT 1")  # expect: reportAttributeAccessIssue
print(db.tabels)  # expect: reportAttributeAccessIssue
db.path = "elsewhere.db"  # expect: reportAttributeAccessIssue
changed: str = db.execute("DELETE FROM items")  # expect: reportAssignmentType
sqlite.Database.open(3)  # expect: reportArgumentType
rows = db.query("SELECT 1 AS one")
print(rows.first)  # expect: reportAttributeAccessIssue
try:
    db.query("SELECT 1")
except sqlite.Database:  # expect: reportGeneralTypeIssues
    pass
try:
    db.query("SELECT 1")
except sqlite.SqlError as error:
    print(error.codeName2)  # expect: reportAttributeAccessIssue
tala.get_loger()  # expect: reportAttributeAccessIssue
tala.LogRecord("info")  # expect: reportCallIssue
tala.python.evaluate_expr()  # expect: reportCallIssue
tala.python.python_import(["json"])  # expect: reportArgumentType
