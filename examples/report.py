# examples/report.py: the orders report of the example shop: per customer the orders and their
# total in exact decimals, the shop's total as the result, a line for the host's log.
#
#     build/bin/tala --load sqlite run examples/report.py db=build/examples/shop.db --out top_customer
#
# Locals from the host: db, the path of the shop database. Results for the host: the total of
# all orders that were not cancelled, and in `top_customer` the name of the best customer.
import logging
from decimal import Decimal
db: str = globals()["db"]  # the path the host passes in, declared for type checkers
shop = sqlite.Database.open(db)
lines = shop.query("""
    SELECT c.name AS customer, o.id AS order_id, o.placed_at, l.qty, l.unit_price
    FROM orders o
    JOIN customers c ON c.id = o.customer_id
    JOIN order_lines l ON l.order_id = o.id
    WHERE o.status <> :excluded
    ORDER BY c.name, o.placed_at""", {"excluded": "cancelled"})
shop.close()

totals = {}
orders = {}
last_order = {}
for line in lines:
    # Rows read by column name; unit_price is a Decimal and placed_at a datetime.
    totals[line.customer] = totals.get(line.customer, Decimal("0.00")) + line.qty * line.unit_price
    orders.setdefault(line.customer, set()).add(line.order_id)
    last_order[line.customer] = line.placed_at.date()

print(f"{'customer':<16}{'orders':>7}{'total':>10}  last order")
for customer, total in sorted(totals.items(), key=lambda item: (-item[1], item[0])):
    print(f"{customer:<16}{len(orders[customer]):>7}{total:>10}  {last_order[customer]:%d %b %Y}")

grand_total = sum(totals.values(), Decimal("0.00"))
top_customer = max(totals, key=lambda customer: (totals[customer], customer))
logging.warning("orders report: %d customers, %d order lines, total %s", len(totals), len(lines), grand_total)
return grand_total  # type: ignore (the script's result: checkers allow return only in functions)
