import datetime
start = day
ends = [start + datetime.timedelta(days=n) for n in range(3)]
total = len(ends)
return [d.isoformat() for d in ends], start.weekday()
