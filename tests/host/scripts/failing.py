# tests/host/scripts/failing.py: a body that raises.
raise ValueError("the order has no lines")
