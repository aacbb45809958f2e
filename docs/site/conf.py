"""How Sphinx makes the site. scripts/docs puts the pages of the tree together and calls it; see there."""
import logging
import os
import pathlib
import re
import sys

import sphinx.util.logging

HERE = pathlib.Path(__file__).resolve().parent  # where scripts/docs put it: beside the pages
BUILT = pathlib.Path(os.environ["MLNN_SITE_BUILD"])  # the build with the Python module and the tool

sys.path.insert(0, str(BUILT / "python"))
# The notebook's kernel is a process of its own.
os.environ["PYTHONPATH"] = str(BUILT / "python")
os.environ["PYDEVD_DISABLE_FILE_VALIDATION"] = "1"  # nobody debugs it

logger = sphinx.util.logging.getLogger("site")

project = "mlnn"
author = "the mlnn developers"
copyright = author  # (Sphinx asks for the name)
cmake = (HERE / "CMakeLists.txt").read_text(encoding="utf-8")
version = release = re.search(r"project\(mlnn\s+VERSION\s+([0-9.]+)", cmake).group(1)

extensions = ["breathe", "myst_parser", "nbsphinx", "sphinx.ext.autodoc", "sphinx.ext.imgmath"]
root_doc = "index"
source_suffix = {".rst": "restructuredtext", ".md": "markdown"}
include_patterns = ["index.rst", "site/*.rst", "reference/*.rst", "reference/**/*.rst", "**/*.md", "*.md", "examples/notebook/*.ipynb"]
exclude_patterns = [".*", "tests/golden/*.md"]
highlight_language = "none"
pygments_style, pygments_dark_style = "xcode", "github-dark"  # whose colours stand out from the ground
default_role = "code"
nitpicky = False  # types of C++ signatures are those of Eigen and the standard library

myst_heading_anchors = 4
nbsphinx_execute = "always"
nbsphinx_timeout = 300
nbsphinx_requirejs_path = ""  # no widgets, so nothing to fetch
html_math_renderer = "imgmath"  # no page has formulas; the usual one would be fetched
html_sourcelink_suffix = ""

breathe_projects = {"mlnn": str(HERE.parent / "xml")}
breathe_default_project = "mlnn"
breathe_domain_by_file_pattern = {"c/*.h": "c"}
cpp_id_attributes = ["MLNN_EXPORT"]
c_id_attributes = ["MLNN_API"]

autodoc_member_order = "bysource"
autodoc_typehints = "signature"
autodoc_default_options = {"members": True, "undoc-members": True, "show-inheritance": True}

html_theme = "furo"
html_title = f"mlnn {release}"
templates_path = ["site/templates"]
html_static_path = ["site/static"]
html_css_files = ["site.css"]
html_js_files = ["site.js"]
html_copy_source = False
html_show_sourcelink = False
html_show_sphinx = False


def says_something_new(record):
    """Whether a warning tells more than that many headers have something in the namespace, or that in C a
    struct may be called as its tag."""
    return not re.search(r"'\.\. cpp:type:: mlnn'|^Duplicate C declaration", record.getMessage())


for domain in "c", "cpp":
    logging.getLogger(f"sphinx.sphinx.domains.{domain}").addFilter(says_something_new)


def must_be_described(_app, kind, name, _value, _options, lines):
    """Has a public name of the module without a description fail, as Doxygen does for C++ and C."""
    if kind in {"module", "class", "exception", "function", "method", "property"} and not any(lines):
        logger.warning("%s %s is not documented", kind, name)


def give_captions_a_level(_app, _page, _template, context, _doctree):
    """Has titles of parts of the menu be headings for screen readers, too, which want to know of what level."""
    for part in {"furo_navigation_tree", "body"} & context.keys():
        context[part] = context[part].replace('role="heading"', 'role="heading" aria-level="2"')


def setup(app):
    app.connect("html-page-context", give_captions_a_level, priority=900)  # after the theme
    app.connect("autodoc-process-docstring", must_be_described)
