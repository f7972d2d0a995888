# tests/host/typing/corpus/rows.py: the rows of a query, read by attribute, by column name and by
# position, as a mapping and as a sequence.
#
#     tala --load sqlite run rows.py db=shop.db
import sqlite
from decimal import Decimal

db: str = globals()["db"]  # the path the host passes in, declared for type checkers
shop = sqlite.Database.open(db)
products = shop.query("SELECT sku, name, price, stock FROM products WHERE sku LIKE ? ORDER BY id", ["TEA-%"])
first = products[0]

# One column, four ways: attribute, name, position from the start and from the end.
assert first.sku == first["sku"] == first[0] == "TEA-EB"
assert first[-1] == first.stock == 4
price: Decimal = first.price
assert price == Decimal("6.50")

# A row is a sequence of its values and a mapping from column name to value.
assert len(first) == 4
assert list(first) == ["TEA-EB", "English Breakfast tea, 250 g", Decimal("6.50"), 4]
assert dict(first) == {"sku": "TEA-EB", "name": "English Breakfast tea, 250 g", "price": Decimal("6.50"), "stock": 4}
assert "price" in first and "weight" not in first
assert list(first.keys()) == ["sku", "name", "price", "stock"]

# Rows in Python's own tools: sorting, comprehensions, min and max, a rule over the columns.
cheapest = min(products, key=lambda row: row.price)
low_stock = [row.sku for row in products if row.stock < 10]
in_stock_value = sum((row.price * row.stock for row in products), Decimal("0.00"))
rule = compile("stock < 10 and price < 7", "<rule>", "eval")
matching = [row.sku for row in products if eval(rule, {}, row)]
assert first == shop.query("SELECT sku, name, price, stock FROM products WHERE sku = :sku", {"sku": "TEA-EB"})[0]

print(first)
print(cheapest.sku, low_stock, in_stock_value, matching)
shop.close()
assert not shop.isOpen
return len(products)  # type: ignore (the script's result: checkers allow return only in functions)
