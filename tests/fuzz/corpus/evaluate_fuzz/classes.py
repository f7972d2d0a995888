class Account:
    def __init__(self, owner, balance=0):
        self.owner = owner
        self.balance = balance
    def deposit(self, amount):
        if amount <= 0:
            raise ValueError("amount must be positive")
        self.balance += amount
        return self.balance
    def __repr__(self):
        return f"Account({self.owner!r}, {self.balance})"

account = Account(customer)
account.deposit(x)
try:
    account.deposit(-1)
except ValueError as error:
    summary = str(error)
return account
