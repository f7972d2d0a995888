# tests/host/scripts/byte_order_mark.py: a UTF-8 script that begins with a byte-order mark.
print("café with a mark")
