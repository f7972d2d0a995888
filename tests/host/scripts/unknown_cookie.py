# coding: no-such-encoding
# tests/host/scripts/unknown_cookie.py: a cookie that names no encoding.
print(1)
