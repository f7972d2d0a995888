logger = tala.get_logger()
inner = tala.python.evaluate_expr("x * 2", {"x": x}, None)
nested = tala.python.evaluate("return [a + 1 for a in values]", {"values": [1, 2, 3]}, None, None)
return inner, nested, type(items).__name__
