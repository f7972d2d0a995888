import decimal
total = decimal.Decimal(str(price)) * quantity
summary = f"{customer}: {quantity} x {price} = {total}"
return total
