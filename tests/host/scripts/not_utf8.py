# tests/host/scripts/not_utf8.py: Latin-1 bytes without a cookie.
print("café")
