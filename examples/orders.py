# examples/orders.py: a script the host runs per batch of orders.
#
# Host values come in as locals (prices, quantity, customer); Python does the work; the result
# and the out-local `summary` go back to the host; a logging line reaches the host logger.
import logging
from decimal import Decimal

# The values the host passes in, declared for type checkers.
price: float = globals()["price"]
quantity: int = globals()["quantity"]
customer: str = globals()["customer"]

unit = Decimal(str(price))
total = unit * quantity
discount = Decimal("0.10") if quantity >= 10 else Decimal("0")
total = (total * (1 - discount)).quantize(Decimal("0.01"))

summary = f"{customer}: {quantity} x {unit} = {total}"
logging.warning("order for %s totals %s", customer, total)
return total  # type: ignore (the script's result: checkers allow return only in functions)
