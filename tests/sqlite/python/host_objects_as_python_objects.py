# tests/sqlite/python/host_objects_as_python_objects.py: host objects (the sqlite module's
# databases, rows and errors, host lists) as a Python programmer uses Python's own objects:
# exceptions, type tests, containers, the standard library's idioms, documentation.
#
# Run by the host program: tala --load sqlite run host_objects_as_python_objects.py
# It ends with status 1 and unittest's report on standard error when a test fails.
import collections.abc
import copy
import dataclasses
import decimal
import inspect
import io
import json
import logging
import pprint
import pydoc
import sys
import traceback
import unittest
import unittest.mock
import uuid


def new_database():
    db = sqlite.Database(":memory:")
    db.executeScript("CREATE TABLE products (id INTEGER PRIMARY KEY, name TEXT UNIQUE, price DECIMAL(10,2));"
                     "INSERT INTO products (name, price) VALUES ('Tea', 4.5), ('Cup', 12), ('Pot', 30.25);")
    return db


class Values(unittest.TestCase):
    def test_whole_floats_beyond_64_bits_stay_floats(self):
        db = new_database()
        for value in (1e20, -1e20, float('inf'), float('-inf'), 2.0 ** 63):
            row = db.query("SELECT ? AS v", [value])[0]
            self.assertEqual(row.v, value)
            self.assertIs(type(row.v), float)
        self.assertEqual(tala.python.evaluate_expr("x", {"x": 1e300}, None), 1e300)
        self.assertIs(type(db.query("SELECT ? AS v", [3.0])[0].v), int)

    def test_decimals_keep_every_digit_their_column_holds(self):
        db = new_database()
        db.execute("INSERT INTO products (name, price) VALUES ('Odd', 4.567)")
        prices = [row.price for row in db.query("SELECT price FROM products ORDER BY id")]
        self.assertEqual(prices, [decimal.Decimal("4.50"), decimal.Decimal("12.00"), decimal.Decimal("30.25"),
                                  decimal.Decimal("4.567")])

    def test_an_object_whose_integer_is_beyond_64_bits_is_no_number(self):
        db = new_database()
        with self.assertRaises(sqlite.SqlError) as caught:
            db.execute("INSERT INTO products (name) VALUES (?)", [uuid.uuid4()])
        self.assertEqual(str(caught.exception), "Parameter 1: a value of type 'UUID' cannot be bound.")
        with self.assertRaises(sqlite.SqlError) as caught:
            db.execute("INSERT INTO products (name) VALUES (:name)", {"name": uuid.uuid4()})
        self.assertEqual(str(caught.exception), "Parameter :name: a value of type 'UUID' cannot be bound.")
        with self.assertRaises(OverflowError):
            db.execute("INSERT INTO products (name) VALUES (?)", [2 ** 70])


class Exceptions(unittest.TestCase):
    def test_except_the_error_class_by_its_name(self):
        db = new_database()
        with self.assertRaises(sqlite.SqlError) as caught:
            db.query("SELECT * FROM nosuch")
        error = caught.exception
        self.assertIsInstance(error, RuntimeError)
        self.assertIsInstance(error, sqlite.SqlError)
        self.assertTrue(issubclass(sqlite.SqlError, RuntimeError))
        self.assertEqual(str(error), "no such table: nosuch")
        self.assertEqual(error.args, ("no such table: nosuch",))
        self.assertEqual(repr(error), "SqlError('no such table: nosuch')")

    def test_the_host_errors_properties_read_on_the_exception(self):
        db = new_database()
        try:
            db.execute("INSERT INTO products (name) VALUES ('Tea')")
        except sqlite.SqlError as error:
            self.assertEqual(error.code, 2067)
            self.assertEqual(error.codeName, "SQLITE_CONSTRAINT_UNIQUE")
            self.assertIn("code", dir(error))
            self.assertFalse(hasattr(error, "nothing"))
            with self.assertRaises(AttributeError):
                error.nothing
        else:
            self.fail("no error")

    def test_python_code_raises_the_error_class(self):
        with self.assertRaises(sqlite.SqlError) as caught:
            raise sqlite.SqlError("made by the script")
        self.assertEqual(str(caught.exception), "made by the script")
        self.assertIsNone(caught.exception.tala)

    def test_the_exception_type_goes_back_to_the_host_as_the_class(self):
        self.assertIs(tala.python.evaluate_expr("c", {"c": sqlite.SqlError}, None), sqlite.SqlError)

    def test_reports_show_the_message(self):
        db = new_database()
        stream = io.StringIO()
        try:
            db.query("SELEC 1")
        except sqlite.SqlError:
            traceback.print_exc(file=stream)
        self.assertIn('sqlite.SqlError: near "SELEC": syntax error', stream.getvalue())
        logger = logging.getLogger("tala.tests.reports")
        logger.propagate = False
        handler = logging.StreamHandler(io.StringIO())
        logger.addHandler(handler)
        try:
            db.query("SELEC 1")
        except sqlite.SqlError:
            logger.exception("failed")
        self.assertIn('syntax error', handler.stream.getvalue())

    def test_missing_members_are_attribute_errors(self):
        db = new_database()
        self.assertFalse(hasattr(db, "nothing"))
        self.assertEqual(getattr(db, "nothing", "default"), "default")
        self.assertTrue(hasattr(db, "query"))
        with self.assertRaises(AttributeError) as caught:
            db.nothing
        self.assertIsInstance(caught.exception, RuntimeError)
        self.assertIsInstance(caught.exception, tala.MissingMemberError)

    def test_read_only_attributes_are_attribute_errors(self):
        db = new_database()
        with self.assertRaises(AttributeError) as caught:
            db.path = "elsewhere"
        self.assertEqual(str(caught.exception), "Read-only attribute: path.")
        self.assertIsInstance(caught.exception, tala.ReadOnlyError)

    def test_wrong_arguments_are_type_errors_that_name_function_and_parameter(self):
        db = new_database()
        cases = [
            (lambda: db.query(), "query() missing 1 required argument: 'sql'"),
            (lambda: db.query("SELECT 1", None, 3), "query() takes from 1 to 2 arguments but 3 were given"),
            (lambda: db.query(5), "query() argument 'sql' must be String, not Integer"),
            (lambda: db.query(sql="SELECT 1", nothing=1), "query() got an unexpected keyword argument 'nothing'"),
            (lambda: db.close(1), "close() takes no arguments but 1 was given"),
        ]
        for call, message in cases:
            with self.subTest(message=message):
                with self.assertRaises(TypeError) as caught:
                    call()
                self.assertEqual(str(caught.exception), message)
                self.assertIsInstance(caught.exception, RuntimeError)

    def test_positions_out_of_range_are_index_errors(self):
        db = new_database()
        with self.assertRaises(IndexError):
            db.tables[5]
        self.assertIsInstance(IndexError, type)
        with self.assertRaises(tala.OutOfRangeError):
            db.tables[-7]


class Types(unittest.TestCase):
    def test_isinstance_and_issubclass_follow_the_host_classes(self):
        db = new_database()
        rows = db.query("SELECT * FROM products")
        self.assertIsInstance(db, sqlite.Database)
        self.assertNotIsInstance(db, sqlite.Row)
        self.assertIsInstance(rows[0], sqlite.Row)
        self.assertNotIsInstance(5, sqlite.Database)
        self.assertTrue(issubclass(sqlite.Database, sqlite.Database))
        self.assertFalse(issubclass(sqlite.Row, sqlite.Database))

    def test_type_names_are_the_host_class_names(self):
        db = new_database()
        self.assertEqual(type(db).__name__, "Database")
        self.assertEqual(type(db).__qualname__, "Database")
        self.assertEqual(type(db).__module__, "sqlite")
        self.assertEqual(type(db.query("SELECT 1 AS a")[0]).__name__, "Row")

    def test_containers_register_with_collections_abc(self):
        db = new_database()
        rows = db.query("SELECT * FROM products")
        self.assertIsInstance(rows, collections.abc.MutableSequence)
        self.assertIsInstance(db.tables, collections.abc.Sequence)
        self.assertIsInstance(rows[0], collections.abc.Mapping)
        self.assertNotIsInstance(rows[0], collections.abc.MutableMapping)
        self.assertNotIsInstance(db, collections.abc.Sequence)
        match rows:
            case [first, *rest]:
                self.assertEqual((first.name, len(rest)), ("Tea", 2))
            case _:
                self.fail("a host list is no sequence for match")


class Containers(unittest.TestCase):
    def test_slices_of_host_sequences(self):
        db = new_database()
        rows = db.query("SELECT name FROM products ORDER BY id")
        names = [row.name for row in rows]
        for piece in (slice(1, 3), slice(None, None, -1), slice(0, 3, 2), slice(5, 9), slice(-2, None)):
            with self.subTest(piece=piece):
                self.assertEqual([row.name for row in rows[piece]], names[piece])
        self.assertEqual(rows[-1].name, "Pot")

    def test_slice_assignment_and_deletion_of_a_mutable_host_list(self):
        db = new_database()
        tables = db.tables  # a host list of its own, changed here only
        tables[0:1] = ["a", "b", "c"]
        self.assertEqual(tables, ["a", "b", "c"])
        tables[::2] = ["x", "y"]
        self.assertEqual(tables, ["x", "b", "y"])
        del tables[::2]
        self.assertEqual(tables, ["b"])
        tables[1:] = ["c", "d"]
        del tables[:1]
        self.assertEqual(tables, ["c", "d"])
        with self.assertRaises(ValueError):
            tables[::2] = ["only", "two", "three"]

    def test_host_sequences_and_maps_equal_pythons_with_the_same_items(self):
        db = new_database()
        self.assertTrue(db.tables == ["products"])
        self.assertTrue(["products"] == db.tables)
        self.assertTrue(db.tables == ("products",))
        self.assertFalse(db.tables == ["other"])
        self.assertTrue(db.tables != ["other"])
        row = db.query("SELECT 1 AS a, 'x' AS b")[0]
        self.assertTrue(row.toMap() == {"a": 1, "b": "x"})
        self.assertTrue({"a": 1, "b": "x"} == row.toMap())
        self.assertFalse(row.toMap() == {"a": 1, "b": "y"})
        self.assertFalse(row.toMap() == {"a": 1})

    def test_conversions_to_pythons_containers(self):
        db = new_database()
        rows = db.query("SELECT id, name FROM products ORDER BY id")
        self.assertEqual(list(rows[0]), [1, "Tea"])
        self.assertEqual(dict(rows[0]), {"id": 1, "name": "Tea"})
        self.assertEqual(sorted(row.name for row in rows), ["Cup", "Pot", "Tea"])
        self.assertEqual(json.loads(json.dumps(list(rows))), [{"id": 1, "name": "Tea"}, {"id": 2, "name": "Cup"},
                                                              {"id": 3, "name": "Pot"}])
        self.assertEqual(json.dumps(dict(rows[0])), '{"id": 1, "name": "Tea"}')
        self.assertEqual(json.dumps(db.tables), '["products"]')
        with self.assertRaises(TypeError):
            json.dumps(db)


class StandardLibrary(unittest.TestCase):
    def test_copy(self):
        db = new_database()
        self.assertIs(copy.copy(db), db)
        self.assertIs(copy.deepcopy(db), db)
        tables = db.tables
        copied = copy.copy(tables)
        self.assertEqual(copied, tables)
        copied.append("more")
        self.assertEqual(len(tables), 1)
        self.assertEqual(copy.deepcopy({"t": tables}), {"t": ["products"]})

    def test_pprint(self):
        db = new_database()
        self.assertEqual(pprint.pformat(db.tables), "['products']")
        self.assertIn("Database(", pprint.pformat({"db": db}))

    def test_mock_autospec(self):
        db = new_database()
        mocked = unittest.mock.create_autospec(db)
        mocked.query("SELECT 1")
        mocked.query.assert_called_once_with("SELECT 1")
        with self.assertRaises(TypeError):
            mocked.query()

    def test_attribute_copy_with_defaults_as_dataclasses_replace_does(self):
        @dataclasses.dataclass
        class Settings:
            path: str = ""
            isOpen: bool = False
            timeout: int = 5

        db = new_database()
        made = Settings(**{field.name: getattr(db, field.name, field.default) for field in dataclasses.fields(Settings)})
        self.assertEqual(made, Settings(":memory:", True, 5))

    def test_inspect_signature(self):
        db = new_database()
        self.assertEqual(str(inspect.signature(db.query)), "(sql: str, parameters=...) -> 'List[Row]'")
        self.assertEqual(list(inspect.signature(db.execute).parameters), ["sql", "parameters"])
        self.assertEqual(str(inspect.signature(sqlite.Database)), "(path: str)")
        self.assertEqual(str(inspect.signature(sqlite.Database.open)), "(path: str) -> 'Database'")
        self.assertEqual(inspect.signature(db.query).parameters["parameters"].kind,
                         inspect.Parameter.POSITIONAL_OR_KEYWORD)

    def test_help_shows_the_host_documentation(self):
        db = new_database()
        page = pydoc.render_doc(sqlite.Database)
        self.assertTrue(page.startswith("Python Library Documentation: class Database in module sqlite\n"), page)
        self.assertIn("A connection to an SQLite database file", page)
        self.assertIn("query(self, sql: str, parameters=...) -> 'List[Row]'", page)
        self.assertIn("Runs one statement and gives its rows", page)
        self.assertIn("open(path: str) -> 'Database'", page)
        self.assertIn("isOpen: bool", page)
        self.assertNotIn("__getattribute__", page)
        self.assertIn("Database(path: str)", page)
        instance = pydoc.render_doc(db)
        self.assertTrue(instance.startswith("Python Library Documentation: Database object in module sqlite\n"))
        self.assertLess(instance.index("A connection to an SQLite"), 400)
        method = pydoc.render_doc(db.query)
        self.assertIn("query(sql: str, parameters=...) -> 'List[Row]'", method)
        self.assertIn("Runs one statement", method)
        stream = io.StringIO()
        saved, sys.stdout = sys.stdout, stream
        try:
            help(db.query)
        finally:
            sys.stdout = saved
        self.assertIn("Runs one statement", stream.getvalue())
        # Python's own objects keep Python's pages.
        self.assertIn("Return the number of items", pydoc.render_doc(len))


class Transactions(unittest.TestCase):
    def count(self, db):
        return db.query("SELECT count(*) AS n FROM products")[0].n

    def test_a_block_that_succeeds_commits(self):
        db = new_database()
        self.assertFalse(db.inTransaction)
        with db as same:
            self.assertIs(same, db)
            self.assertTrue(db.inTransaction)
            db.execute("INSERT INTO products (name) VALUES ('Mug')")
        self.assertFalse(db.inTransaction)
        self.assertEqual(self.count(db), 4)

    def test_a_block_that_raises_rolls_back_and_the_exception_goes_on(self):
        db = new_database()
        with self.assertRaises(ZeroDivisionError):
            with db:
                db.execute("INSERT INTO products (name) VALUES ('Mug')")
                1 / 0
        self.assertFalse(db.inTransaction)
        self.assertEqual(self.count(db), 3)

    def test_a_failing_statement_in_a_block_undoes_the_block(self):
        db = new_database()
        with self.assertRaises(sqlite.SqlError):
            with db:
                db.execute("INSERT INTO products (name) VALUES ('Mug')")
                db.execute("INSERT INTO products (name) VALUES ('Tea')")
        self.assertEqual(self.count(db), 3)

    def test_a_block_inside_an_explicit_transaction_changes_nothing(self):
        db = new_database()
        db.execute("BEGIN")
        with db:
            db.execute("INSERT INTO products (name) VALUES ('Mug')")
        self.assertTrue(db.inTransaction)
        db.execute("ROLLBACK")
        self.assertEqual(self.count(db), 3)

    def test_nested_blocks_commit_once_at_the_outer_end(self):
        db = new_database()
        with db:
            with db:
                db.execute("INSERT INTO products (name) VALUES ('Mug')")
            self.assertTrue(db.inTransaction)
        self.assertFalse(db.inTransaction)
        self.assertEqual(self.count(db), 4)

    def test_a_closed_database_refuses_a_block(self):
        db = new_database()
        db.close()
        with self.assertRaises(sqlite.SqlError) as caught:
            with db:
                pass
        self.assertEqual(str(caught.exception), "The database is closed.")


cases = [Values, Exceptions, Types, Containers, StandardLibrary, Transactions]
suite = unittest.TestSuite(unittest.defaultTestLoader.loadTestsFromTestCase(case) for case in cases)
result = unittest.TextTestRunner(stream=sys.stderr, verbosity=1).run(suite)
if not result.wasSuccessful() or result.testsRun == 0:
    raise SystemExit(1)
