# tests/host/scripts/no_result.py: a body without a return statement.
note = "nothing returned"
