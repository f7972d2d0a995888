counts = {}
for word in "the quick brown fox jumps over the lazy dog the end".split():
    counts[word] = counts.get(word, 0) + 1
table_sum = sum(table.values()) if hasattr(table, 'values') else 0
summary = ", ".join(f"{k}={v}" for k, v in sorted(counts.items()))
return counts, table_sum
