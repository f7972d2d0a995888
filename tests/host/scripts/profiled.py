# tests/host/scripts/profiled.py: a script whose profile names its functions.
def fibonacci(n):
    return n if n < 2 else fibonacci(n - 1) + fibonacci(n - 2)


def report():
    print(fibonacci(15))


report()
