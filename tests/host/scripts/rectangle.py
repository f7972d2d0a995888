# tests/host/scripts/rectangle.py: a body with a result and two out-locals.
area = width * height
perimeter = 2 * (width + height)
return area
