-- examples/shop.sql: a small shop: customers, products, orders and their lines.
--
-- The build makes it into <build folder>/examples/shop.db (build/examples/shop.db for the default
-- preset), anew whenever this file changes. Any SQLite tool reads it too:
--     sqlite3 shop.db < examples/shop.sql
--
-- Prices are DECIMAL(10,2) and dates DATE or DATETIME, so that scripts get exact decimals and
-- dates from the sqlite module; discontinued is BOOLEAN, so they get True and False.

PRAGMA foreign_keys = ON;
BEGIN;

CREATE TABLE customers (
    id      INTEGER PRIMARY KEY,
    name    TEXT NOT NULL,
    email   TEXT NOT NULL UNIQUE,
    country TEXT NOT NULL,
    since   DATE NOT NULL
);

CREATE TABLE products (
    id            INTEGER PRIMARY KEY,
    sku           TEXT NOT NULL UNIQUE,
    name          TEXT NOT NULL,
    price         DECIMAL(10,2) NOT NULL,
    cost          DECIMAL(10,2) NOT NULL,
    stock         INTEGER NOT NULL,
    reorder_level INTEGER NOT NULL,
    reorder_qty   INTEGER NOT NULL,
    supplier      TEXT NOT NULL,
    discontinued  BOOLEAN NOT NULL DEFAULT 0
);

CREATE TABLE orders (
    id          INTEGER PRIMARY KEY,
    customer_id INTEGER NOT NULL REFERENCES customers (id),
    placed_at   DATETIME NOT NULL,
    status      TEXT NOT NULL CHECK (status IN ('open', 'shipped', 'cancelled'))
);

CREATE TABLE order_lines (
    order_id   INTEGER NOT NULL REFERENCES orders (id),
    product_id INTEGER NOT NULL REFERENCES products (id),
    qty        INTEGER NOT NULL CHECK (qty > 0),
    unit_price DECIMAL(10,2) NOT NULL,
    PRIMARY KEY (order_id, product_id)
);

INSERT INTO customers (id, name, email, country, since) VALUES
    (1, 'Ada Lovelace',   'ada@example.org',     'GB', '2021-03-14'),
    (2, 'Blaise Pascal',  'blaise@example.org',  'FR', '2022-06-19'),
    (3, 'Emmy Noether',   'emmy@example.org',    'DE', '2020-01-23'),
    (4, 'Alan Turing',    'alan@example.org',    'GB', '2023-06-23'),
    (5, 'Grace Hopper',   'grace@example.org',   'US', '2019-12-09');

INSERT INTO products (id, sku, name, price, cost, stock, reorder_level, reorder_qty, supplier, discontinued) VALUES
    (1,  'TEA-EB',  'English Breakfast tea, 250 g', '6.50',  '3.10', 4,  10, 40, 'Leafwise',    0),
    (2,  'TEA-GR',  'Sencha green tea, 100 g',      '8.90',  '4.45', 25, 8,  24, 'Leafwise',    0),
    (3,  'COF-ES',  'Espresso beans, 1 kg',         '21.00', '11.60', 6, 6,  20, 'Roastery 12', 0),
    (4,  'COF-FI',  'Filter coffee, 500 g',         '11.40', '5.95', 30, 10, 30, 'Roastery 12', 0),
    (5,  'CUP-ES',  'Espresso cups, set of 4',      '18.00', '7.20', 2,  5,  12, 'Porcelain & Co', 0),
    (6,  'MUG-XL',  'Mug, 450 ml',                  '9.95',  '3.80', 14, 6,  24, 'Porcelain & Co', 0),
    (7,  'POT-GL',  'Glass teapot, 1 l',            '27.50', '12.10', 1, 3,  6,  'Porcelain & Co', 0),
    (8,  'FIL-PA',  'Paper filters, 100',           '3.20',  '1.05', 0,  20, 100, 'Roastery 12', 0),
    (9,  'TEA-CH',  'Chai blend, 200 g',            '7.75',  '3.70', 2,  8,  24, 'Leafwise',    1),
    (10, 'GRD-HD',  'Hand grinder',                 '64.00', '38.40', 3, 2,  4,  'Roastery 12', 0);

INSERT INTO orders (id, customer_id, placed_at, status) VALUES
    (1,  1, '2024-01-08 09:12:00', 'shipped'),
    (2,  3, '2024-01-15 14:40:31', 'shipped'),
    (3,  2, '2024-02-02 08:05:10', 'shipped'),
    (4,  1, '2024-02-14 19:22:45', 'shipped'),
    (5,  5, '2024-02-29 12:30:15', 'shipped'),
    (6,  4, '2024-03-03 10:00:00', 'cancelled'),
    (7,  3, '2024-03-11 16:18:02', 'shipped'),
    (8,  2, '2024-03-20 07:55:49', 'open'),
    (9,  5, '2024-03-21 21:09:30', 'open'),
    (10, 1, '2024-03-22 11:11:11', 'open');

INSERT INTO order_lines (order_id, product_id, qty, unit_price) VALUES
    (1, 1, 2, '6.50'),  (1, 6, 2, '9.95'),
    (2, 3, 1, '21.00'), (2, 5, 1, '18.00'), (2, 8, 2, '3.20'),
    (3, 2, 3, '8.90'),
    (4, 1, 4, '6.50'),  (4, 7, 1, '27.50'),
    (5, 4, 2, '11.40'), (5, 10, 1, '64.00'), (5, 8, 1, '3.20'),
    (6, 6, 6, '9.95'),
    (7, 3, 2, '19.95'), (7, 9, 3, '7.75'),
    (8, 2, 1, '8.90'),  (8, 5, 2, '18.00'),
    (9, 4, 3, '11.40'),
    (10, 1, 1, '6.50'), (10, 2, 2, '8.90'), (10, 6, 1, '9.95');

COMMIT;
