squares = [n * n for n in range(10) if n % 2]
pairs = {str(n): n for n in squares}
return sum(squares), sorted(pairs), len(items)
