def risky(n):
    if n > 3:
        raise KeyError(n)
    return 10 // (n - 2)

results = []
for n in range(6):
    try:
        results.append(risky(n))
    except ZeroDivisionError:
        results.append("zero")
    except KeyError as missing:
        results.append(f"missing {missing}")
    finally:
        total = len(results)
return results
