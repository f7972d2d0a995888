// python/language/python_support.cpp: the language service's helpers that are written in Python.
#include "language/python_support.hpp"

#include "extension/gil.hpp"
#include "extension/interpreters.hpp"
#include "pyside/documentation.hpp"

namespace tala::python {

namespace {

// Parsing the code as it stands (the parser takes a top-level `return`; only the compiler
// refuses it) keeps every line number and every string literal exactly as written.
const char* const kSupportProgram = R"PY(
import ast
import keyword
import traceback
import types

_CODE = types.CodeType
_NO_ARGUMENTS = ast.arguments(posonlyargs=[], args=[], vararg=None, kwonlyargs=[], kw_defaults=[],
                              kwarg=None, defaults=[])
# The statements around the code have no place in its text: they take line 1.
_LINE_1 = dict(lineno=1, col_offset=0, end_lineno=1, end_col_offset=0)
_PASS = ast.Pass(**_LINE_1)
# Output names -> (the statements after the function, its global declaration). The nodes are
# only read by the compiler, so every program with the same output names shares them.
_TAILS = {}


def _tail(out_names):
    tail = _TAILS.get(out_names)
    if tail is None:
        for name in out_names:
            if not name.isidentifier() or keyword.iskeyword(name):
                raise SyntaxError(f"invalid output name: {name!r}")
        lines = ["tala_store_result( tala_outer() )"]
        lines += [f"tala_store_local({name!r},{name})" for name in out_names]
        statements = ast.parse("\n".join(lines)).body
        for statement in statements:
            for node in ast.walk(statement):
                if hasattr(node, 'lineno'):
                    node.lineno = node.end_lineno = 1
        declaration = ast.Global(names=list(out_names), **_LINE_1) if out_names else None
        tail = (statements, declaration)
        if len(_TAILS) < 1024:
            _TAILS[out_names] = tail
    return tail


def _is_future_import(statement):
    return isinstance(statement, ast.ImportFrom) and statement.module == '__future__'


def build_program(source, filename, out_names):
    statements, declaration = _tail(out_names)
    body = compile(source, filename, 'exec', ast.PyCF_ONLY_AST, dont_inherit=True).body
    # Future imports must open the module, so they move out of the function.
    head = []
    first = 1 if body and isinstance(body[0], ast.Expr) and isinstance(body[0].value, ast.Constant) \
        and isinstance(body[0].value.value, str) else 0
    while first < len(body) and _is_future_import(body[first]):
        head.append(body.pop(first))
    if not body:
        body.append(_PASS)
    if declaration is not None:
        body.insert(0, declaration)
    function = ast.FunctionDef('tala_outer', _NO_ARGUMENTS, body, [], None, None, [], **_LINE_1)
    return compile(ast.Module([*head, function, *statements], []), filename, 'exec', dont_inherit=True)


def _codes_of(program):
    codes = set()
    pending = [program]
    while pending:
        code = pending.pop()
        if code not in codes:
            codes.add(code)
            pending.extend(constant for constant in code.co_consts if isinstance(constant, _CODE))
    return codes


def _host_messages(summary, exception, seen):
    # An exception raised from a host error is made without arguments, so its own text is
    # empty: the report's last line gives the host error's message instead.
    if id(exception) in seen:
        return
    seen.add(id(exception))
    if getattr(summary, '_str', None) == '':
        carried = getattr(exception, 'tala', None)
        if carried is not None:
            try:
                summary._str = str(carried)
            except Exception:
                pass
    for inner, cause in ((summary.__cause__, exception.__cause__), (summary.__context__, exception.__context__)):
        if inner is not None and cause is not None:
            _host_messages(inner, cause, seen)
    for inner, part in zip(summary.exceptions or (), getattr(exception, 'exceptions', ())):
        _host_messages(inner, part, seen)


def _fill_lines(summary, exception, codes, lines, seen):
    # The frames of the program are in no file that linecache could read: their lines come
    # from the source, frame by frame (the summary's frames follow the traceback's).
    if id(exception) in seen:
        return
    seen.add(id(exception))
    entry = exception.__traceback__
    for frame in summary.stack:
        if entry is None:
            break
        if entry.tb_frame.f_code in codes and frame.lineno is not None and frame._lines is None:
            last = frame.end_lineno or frame.lineno
            frame._lines = '\n'.join(line.rstrip() for line in lines[frame.lineno - 1:last]) + '\n'
        entry = entry.tb_next
    for inner, cause in ((summary.__cause__, exception.__cause__), (summary.__context__, exception.__context__)):
        if inner is not None and cause is not None:
            _fill_lines(inner, cause, codes, lines, seen)
    for inner, part in zip(summary.exceptions or (), getattr(exception, 'exceptions', ())):
        _fill_lines(inner, part, codes, lines, seen)


class _LeftOut:
    # The default of an optional host parameter: the host is told nothing for it.
    __slots__ = ()

    def __repr__(self):
        return '...'


_LEFT_OUT = _LeftOut()


def make_signature(parameters, result):
    # A host signature as inspect's: every parameter may be given by position or by name (a
    # call by name passes names only), optional ones default to `...`; Ellipsis stands for "no
    # annotation".
    import inspect
    Parameter = inspect.Parameter
    made = []
    for name, optional, annotation in parameters:
        if not name.isidentifier() or keyword.iskeyword(name):
            name += '_'
        made.append(Parameter(name, Parameter.POSITIONAL_OR_KEYWORD,
                              default=_LEFT_OUT if optional else Parameter.empty,
                              annotation=Parameter.empty if annotation is ... else annotation))
    return inspect.Signature(made, return_annotation=inspect.Signature.empty if result is ... else result)


def _indented(text, prefix):
    return [prefix + line if line else prefix.rstrip() for line in text.splitlines()]


def _host_page(description):
    kind, name, module, doc, signature, methods, statics, properties = description
    if kind == 'function':
        return f'function {name}', '\n'.join([f'{name}{signature}', *_indented(doc, '    ')]) + '\n'
    lines = [f'class {name}', f' |  {name}{signature}', ' |']
    if doc:
        lines += _indented(doc, ' |  ') + [' |']
    sections = [('Methods defined here', methods), ('Static methods defined here', statics)]
    for index, (heading, members) in enumerate(sections):
        if not members:
            continue
        lines += [f' |  {heading}:', ' |']
        for method, method_signature, method_doc in members:
            lines.append(f' |  {method}{method_signature}')
            lines += _indented(method_doc, ' |      ')
            lines.append(' |')
        lines.append(' |  ' + '-' * 70)
    if properties:
        lines += [' |  Properties defined here:', ' |']
        for prop, annotation, prop_doc, writable in properties:
            shown = '' if annotation is None else (f': {annotation.__name__}' if isinstance(annotation, type) else f': {annotation}')
            lines.append(f' |  {prop}{shown}' + ('' if writable else '  (read-only)'))
            lines += _indented(prop_doc, ' |      ')
            lines.append(' |')
    while lines and lines[-1] in (' |', ' |  ' + '-' * 70):
        lines.pop()
    what = f'class {name}' if kind == 'class' else f'{name} object'
    return what, '\n'.join(lines) + '\n'


def _patch_pydoc(pydoc):
    original = pydoc.render_doc
    if getattr(original, '_tala_host_pages', False):
        return

    def render_doc(thing, title='Python Library Documentation: %s', forceload=0, renderer=None):
        description = describe_host_value(thing)
        if description is None:
            return original(thing, title, forceload, renderer)
        what, text = _host_page(description)
        if description[2]:
            what += f' in module {description[2]}'
        if isinstance(renderer, pydoc.HTMLDoc):
            import html
            text = '<pre>' + html.escape(text) + '</pre>'
        return title % what + '\n\n' + text

    render_doc._tala_host_pages = True
    render_doc.__wrapped__ = original
    render_doc.__doc__ = original.__doc__
    pydoc.render_doc = render_doc


def _patch_json_encoder(encoder):
    # Host lists, maps, sets and rows encode as the lists and objects they hold, as Python's own
    # containers do; any other object is left to the encoder as before.
    JSONEncoder = encoder.JSONEncoder
    original = JSONEncoder.default
    if getattr(original, '_tala_host_values', False):
        return

    def default(self, o):
        if is_host_value(o):
            import collections.abc
            if isinstance(o, collections.abc.Mapping):
                return dict(o)
            if isinstance(o, (collections.abc.Sequence, collections.abc.Set)):
                return list(o)
        return original(self, o)

    default._tala_host_values = True
    default.__wrapped__ = original
    default.__doc__ = original.__doc__
    JSONEncoder.default = default


# Standard modules that learn about host values when they are imported.
_PATCHES = {'pydoc': _patch_pydoc, 'json.encoder': _patch_json_encoder}


class _StandardModuleHook:
    # Waits for the imports of the modules in _PATCHES, so that help(), pydoc and json know host
    # values; it leaves the search for every module to the finders after it.
    @classmethod
    def find_spec(cls, name, path=None, target=None):
        patch = _PATCHES.get(name)
        if patch is None:
            return None
        import importlib.machinery
        found = importlib.machinery.PathFinder.find_spec(name, path)
        if found is None or found.loader is None:
            return found
        loader = found.loader

        class Loader:
            def create_module(self, description):
                return loader.create_module(description)

            def exec_module(self, module):
                loader.exec_module(module)
                patch(module)

            def __getattr__(self, attribute):
                return getattr(loader, attribute)

        found.loader = Loader()
        return found


def install_standard_module_patches():
    import sys
    for name, patch in _PATCHES.items():
        if name in sys.modules:
            patch(sys.modules[name])
    if _StandardModuleHook not in sys.meta_path:
        sys.meta_path.insert(0, _StandardModuleHook)


def format_exception(exception, program, source, generated_top):
    summary = traceback.TracebackException.from_exception(exception, lookup_lines=False)
    _host_messages(summary, exception, set())
    if program is not None:
        _fill_lines(summary, exception, _codes_of(program), source.splitlines(), set())
        entry = exception.__traceback__
        if generated_top and entry is not None and entry.tb_frame.f_code is program and summary.stack:
            # The statements around the code are no code of the user's.
            del summary.stack[0]
    return ''.join(summary.format())
)PY";

// The namespace of the helpers, made once per interpreter and kept.
PyObject* supportNamespace() {
    InterpreterState& here = state();
    return keptHere(here.supportNamespace, here.supportLooked, []() -> PyObject* {
        PyObjectPtr globals = PyObjectPtr::steal(PyDict_New());
        PyObjectPtr name = PyObjectPtr::steal(PyUnicode_FromString("tala_python_support"));
        PyObjectPtr describe = PyObjectPtr::steal(PyCFunction_New(describeHostValueFunction(), nullptr));
        PyObjectPtr isHost = PyObjectPtr::steal(PyCFunction_New(isHostValueFunction(), nullptr));
        if (!globals || !name || !describe || !isHost ||
            PyDict_SetItemString(globals.get(), "__builtins__", PyEval_GetBuiltins()) < 0 ||
            PyDict_SetItemString(globals.get(), "__name__", name.get()) < 0 ||
            PyDict_SetItemString(globals.get(), "describe_host_value", describe.get()) < 0 ||
            PyDict_SetItemString(globals.get(), "is_host_value", isHost.get()) < 0) {
            PyErr_Clear();
            return nullptr;
        }
        PyObjectPtr code = PyObjectPtr::steal(Py_CompileString(kSupportProgram, "<tala python support>", Py_file_input));
        PyObjectPtr ran = code ? PyObjectPtr::steal(PyEval_EvalCode(code.get(), globals.get(), globals.get())) : PyObjectPtr();
        if (!ran) {
            PyErr_Clear();
            return nullptr;
        }
        return globals.release();
    });
}

}  // namespace

PyObject* supportFunction(const char* name) {
    PyObject* namespace_ = supportNamespace();
    if (namespace_ == nullptr) return nullptr;
    return PyDict_GetItemString(namespace_, name);
}

}  // namespace tala::python
