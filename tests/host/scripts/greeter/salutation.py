# tests/host/scripts/greeter/salutation.py: the module greet.py imports from its own folder.
def greeting(name):
    return f"Hello, {name}!"
