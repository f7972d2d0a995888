# tests/host/scripts/app/parts.py: a module of the folder app/.
NAME = "app"
