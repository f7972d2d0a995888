def fib(limit):
    a, b = 0, 1
    while a < limit:
        yield a
        a, b = b, a + b

total = sum(fib(1000))
return list(fib(x * 10)), total
