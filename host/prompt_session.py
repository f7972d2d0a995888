# host/prompt_session.py: the prompt's session, in Python: Python 3.13's own console (or the basic one where Python falls back to it) reading blocks, running them in one namespace, showing results and errors as Python's prompt does, lists of rows as tables.
#
# The host program evaluates this text with `return make_session(session_history,
# session_interactive)` after it, then drives the session: read() for each block, run(block) to
# run it, each an evaluation of its own, so that Ctrl-C stops the one that runs and the names stay.

# What the host gives every evaluation (its modules, the builtins): the user's namespace starts
# with these, and none of this file's own names.
HOST_GLOBALS = {name: value for name, value in globals().items()
                if name not in ('self', 'session_history', 'session_interactive')}

import _colorize
import builtins
import code
import linecache
import os
import rlcompleter
import sys
import tokenize
import traceback

def is_host_value(thing):
    """Whether `thing` is the Python face of a host value (every such type derives from one
    named ">TalaObject")."""
    return any(base.__name__ == ">TalaObject" for base in type(thing).__mro__)


class HostCompleter(rlcompleter.Completer):
    """Completes names as Python's prompt does, and the members of host values."""

    def attr_matches(self, text):
        expression, _, prefix = text.rpartition('.')
        try:
            thing = eval(expression, self.namespace)
        except Exception:
            return []
        names = getattr(thing, '__dir__', None)
        if not isinstance(names, list):
            # Not a host value: Python's own rules.
            return super().attr_matches(text)
        return sorted({f"{expression}.{name}" for name in names
                       if isinstance(name, str) and name.startswith(prefix) and not name.startswith('_')})


# ---- Results: lists of rows as tables ---------------------------------------------------------

def is_row(item):
    if isinstance(item, dict):
        return True
    if not is_host_value(item):
        return False
    try:
        return callable(item.keys)
    except Exception:  # a host value without such a member
        return False


def rows_of(value):
    """The items of a list of rows (host rows or maps, or dicts) that all have the same keys, or
    None for any other value."""
    if isinstance(value, (list, tuple)):
        items = value
    elif is_host_value(value) and not is_row(value) and hasattr(value, '__len__'):
        try:
            items = list(value)
        except Exception:
            return None
    else:
        return None
    if not items or not all(is_row(item) for item in items):
        return None
    keys = list(items[0].keys())
    if not keys or any(list(item.keys()) != keys for item in items):
        return None
    return keys, items


def cell_text(value):
    # As sqlite3 shows a NULL: an empty cell.
    return '' if value is None else str(value)


def table_text(keys, items):
    """Columns aligned as `sqlite3 -column` aligns them: a header, a rule, one line a row."""
    header = [str(key) for key in keys]
    cells = [[cell_text(item[key]) for key in keys] for item in items]
    widths = [max(len(text) for text in column) for column in zip(header, *cells)]
    lines = [header, ['-' * width for width in widths], *cells]
    return '\n'.join('  '.join(text.ljust(width) for text, width in zip(line, widths)).rstrip() for line in lines)


def displayhook(value):
    if value is None:
        return
    try:
        table = rows_of(value)
    except Exception:
        table = None
    if table is None:
        sys.__displayhook__(value)
        return
    builtins._ = None
    print(table_text(*table))
    builtins._ = value


# ---- Errors -----------------------------------------------------------------------------------

def show_host_messages(report, error, seen):
    """An exception raised from a host error whose text is empty shows the host error's message."""
    if id(error) in seen:
        return
    seen.add(id(error))
    carried = getattr(error, 'tala', None)
    if carried is not None and getattr(report, '_str', None) == '':
        try:
            report._str = str(carried)
        except Exception:
            pass
    for inner, cause in ((report.__cause__, error.__cause__), (report.__context__, error.__context__)):
        if inner is not None and cause is not None:
            show_host_messages(inner, cause, seen)
    # The members of an exception group, each reported in the group's report.
    for inner, member in zip(getattr(report, 'exceptions', None) or (), getattr(error, 'exceptions', None) or ()):
        show_host_messages(inner, member, seen)


def exception_text(kind, error, frames, colorize=False):
    """Python's report of an exception; the host's interruption shows as the KeyboardInterrupt it is."""
    if kind.__module__ == 'tala.python' and kind.__qualname__ == 'Interrupted':
        kind, error = KeyboardInterrupt, KeyboardInterrupt().with_traceback(frames)
    report = traceback.TracebackException(kind, error, frames, limit=traceback.BUILTIN_EXCEPTION_LIMIT)
    show_host_messages(report, error, set())
    try:
        return ''.join(report.format(colorize=colorize))
    except TypeError:
        return ''.join(report.format())


class HostErrors:
    """How a console of this session shows an exception."""

    def _excepthook(self, kind, error, frames):
        self.write(exception_text(kind, error, frames, _colorize.can_colorize()))


class BasicConsole(HostErrors, code.InteractiveConsole):
    pass


# ---- The session ------------------------------------------------------------------------------

class Session:
    def __init__(self, namespace, history):
        self.namespace = namespace
        self.history = history
        self.count = 0
        sys.displayhook = displayhook
        if not hasattr(sys, 'ps1'):
            sys.ps1 = '>>> '
        if not hasattr(sys, 'ps2'):
            sys.ps2 = '... '

    def remember(self, block):
        """Adds an entered block to the history file at once, so that nothing is lost if the
        program ends."""
        if not self.history or not block.strip():
            return
        try:
            with open(self.history, 'a', encoding='utf-8') as file:
                file.write(block.replace('\n', '\r\n') + '\n')
        except OSError:
            pass

    def load_history(self, line_editing):
        """The blocks of earlier sessions, for Up to recall."""
        if not self.history or not os.path.exists(self.history):
            return
        try:
            line_editing.read_history_file(self.history)
        except Exception:  # an unreadable file is no history
            pass

    def source_name(self, block):
        """The name a block's code gets, registered so that tracebacks show its lines."""
        name = f"<python-input-{self.count}>"
        self.count += 1
        linecache._register_code(name, block, "<stdin>")
        return name


class FancySession(Session):
    """Python 3.13's console: colour, multi-line editing, whole-block history, bracketed paste,
    auto-indent, exit and quit without parentheses."""

    def __init__(self, namespace, history):
        super().__init__(namespace, history)
        from _pyrepl import readline as pyrepl_readline
        from _pyrepl import simple_interact
        from _pyrepl.console import InteractiveColoredConsole

        class Console(HostErrors, InteractiveColoredConsole):
            pass

        self.console = Console(namespace, filename="<stdin>")
        self.interact = simple_interact
        self.readline = pyrepl_readline
        pyrepl_readline._setup(namespace)
        pyrepl_readline._wrapper.config.readline_completer = HostCompleter(namespace).complete
        self.more_lines = lambda text: simple_interact._more_lines(self.console, text)
        self.load_history(pyrepl_readline)

    def read(self):
        """The next block; None at the end (Ctrl-D); "" after a command of the prompt's own."""
        try:
            block = self.readline.multiline_input(self.more_lines, sys.ps1, sys.ps2)
        except EOFError:
            return None
        command = self.interact.REPL_COMMANDS.get(block.strip())
        if command is None or block.strip() in self.namespace:
            self.remember(block)
            return block
        reader = self.interact._get_reader()
        reader.history.pop()
        if callable(command):
            command()
        else:
            reader.prepare()
            reader.refresh()
            reader.do_cmd((command, [block]))
            reader.restore()
        return ""

    def run(self, block):
        name = self.source_name(block)
        self.console.push(self.interact._strip_final_indent(block), filename=name, _symbol="single")

    def stopped_while_reading(self):
        reader = self.interact._get_reader()
        if reader.input_trans is reader.isearch_trans:
            reader.do_cmd(("isearch-end", [""]))
        reader.pos = len(reader.get_unicode())
        reader.dirty = True
        reader.refresh()
        reader.in_bracketed_paste = False
        self.console.write("\nKeyboardInterrupt\n")
        self.console.resetbuffer()


class BasicSession(Session):
    """Python's basic console: lines read by input() (with GNU readline where Python has it),
    blocks continued on "..." lines until an empty line."""

    def __init__(self, namespace, history):
        super().__init__(namespace, history)
        self.console = BasicConsole(namespace, filename="<stdin>")
        self.lines = []
        try:
            import readline
        except ImportError:
            self.line_editing = None
        else:
            self.line_editing = readline
            readline.set_completer(HostCompleter(namespace).complete)
            readline.parse_and_bind('tab: complete')
            self.load_history(readline)

    def read(self):
        self.lines = []
        while True:
            try:
                line = input(sys.ps2 if self.lines else sys.ps1)
            except EOFError:
                if self.lines:
                    return '\n'.join(self.lines)
                print()
                return None
            if not self.lines and not line.strip():
                continue
            self.lines.append(line)
            self.remember(line)
            if not self.needs_more():
                return '\n'.join(self.lines)

    def needs_more(self):
        try:
            return self.console.compile('\n'.join(self.lines), "<stdin>", "single") is None
        except (OverflowError, SyntaxError, ValueError):
            return False

    def run(self, block):
        name = self.source_name(block)
        self.console.resetbuffer()
        source = block
        try:
            compiled = self.console.compile(source, name, "single")
        except (OverflowError, SyntaxError, ValueError):
            self.console.showsyntaxerror(name, source=source)
            return
        if compiled is not None:
            self.console.runcode(compiled)

    def push(self, line):
        """One line from a pipe: runs the block once it is complete."""
        return self.console.push(line)

    def stopped_while_reading(self):
        self.lines = []
        self.console.resetbuffer()
        self.console.write("\nKeyboardInterrupt\n")

    def remember(self, line):
        if self.line_editing is None or not self.history or not line.strip():
            return
        try:
            open(self.history, 'a').close()  # readline appends only to a file that exists
            self.line_editing.append_history_file(1, self.history)
        except OSError:
            pass


def fancy_console_or_why_not():
    """Whether Python's own console can run here, as Python decides it: None when it can, else
    the warning Python prints before it falls back ("" for none)."""
    if os.getenv('PYTHON_BASIC_REPL'):
        return ""
    try:
        if not os.isatty(sys.stdin.fileno()):
            return ""
        from _pyrepl.simple_interact import check
        problem = check()
    except Exception as error:
        return f"warning: can't use pyrepl: {error}"
    return f"warning: can't use pyrepl: {problem}" if problem else None


def run_startup_file(namespace):
    """The file PYTHONSTARTUP names runs in the prompt's namespace first, as at Python's prompt."""
    path = os.getenv("PYTHONSTARTUP")
    if not path:
        return
    try:
        with tokenize.open(path) as file:
            exec(compile(file.read(), path, "exec"), namespace)
    except Exception:
        traceback.print_exc()


def make_session(history, interactive):
    namespace = dict(HOST_GLOBALS)
    namespace['__name__'] = '__main__'
    namespace['__builtins__'] = builtins
    if not interactive:
        return BasicSession(namespace, None)
    run_startup_file(namespace)
    why_not = fancy_console_or_why_not()
    if why_not is None:
        return FancySession(namespace, history)
    if why_not:
        print(why_not, file=sys.stderr)
    return BasicSession(namespace, history)

