# examples/restock.py: the restock rule of the example shop, evaluated for each product: which
# products to reorder, how many, and what the supplier order costs.
#
#     build/bin/tala --load sqlite run examples/restock.py db=build/examples/shop.db --out reorders
#     build/bin/tala --load sqlite run examples/restock.py db=build/examples/shop.db rule="stock < 5"
#
# Locals from the host: db, the path of the shop database, and optionally rule, a Python
# expression over a product's columns that says whether to reorder it. Results for the host: the
# cost of the supplier orders, and in `reorders` the SKUs to reorder.
import logging
from decimal import Decimal

db: str = globals()["db"]  # the path the host passes in, declared for type checkers
condition: str = globals().get("rule", "not discontinued and stock <= reorder_level")
check = compile(condition, "<rule>", "eval")

shop = sqlite.Database.open(db)
products = shop.query("SELECT sku, name, price, cost, stock, reorder_level, reorder_qty, supplier, discontinued "
                      "FROM products ORDER BY supplier, sku")
shop.close()

reorders = []
total = Decimal("0.00")
for product in products:
    # The rule sees the row's columns as names: a Row is a mapping from column name to value.
    if not eval(check, {}, product):
        continue
    quantity = max(product.reorder_qty, product.reorder_level * 2 - product.stock)
    cost = quantity * product.cost
    total += cost
    reorders.append(product.sku)
    print(f"{product.supplier:<15}{product.sku:<8}{product.name:<30}stock {product.stock:>2}  "
          f"order {quantity:>3} x {product.cost:>5} = {cost:>7}")

logging.info("restock: %d of %d products match %r", len(reorders), len(products), condition)
return total  # type: ignore (the script's result: checkers allow return only in functions)
