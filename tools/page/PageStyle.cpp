#include "tools/page/PageStyle.h"

namespace mlnn {
namespace {

// Colours of text have a contrast of at least 4.5 to what is behind them.
constexpr char kRules[] = R"(
:root { color-scheme: light dark;
  --paper: #ffffff; --ink: #1c2430; --muted: #566070; --line: #d5dae1; --panel: #f5f7f9;
  --accent: #0b5cad; --shape: #d4e4f5; --good: #1b6e3c; --bad: #b02a1a; --warm: #fff6e0; }
@media screen and (prefers-color-scheme: dark) { :root {
  --paper: #10151c; --ink: #e4e9ef; --muted: #a0abb8; --line: #333d49; --panel: #181f28;
  --accent: #74b4f5; --shape: #1f3c5c; --good: #6fce92; --bad: #ff9b8c; --warm: #2c2614; } }
* { box-sizing: border-box; }
html { background: var(--paper); color: var(--ink);
  font: 16px/1.55 system-ui, -apple-system, "Segoe UI", "Noto Sans", "DejaVu Sans", sans-serif; }
body { margin: 0 auto; max-width: 62rem; padding: 2rem 1.25rem 4rem; }
h1, h2, h3 { line-height: 1.25; overflow-wrap: anywhere; }
h1 { font-size: 1.75rem; margin: 0 0 .25rem; }
h2 { font-size: 1.3rem; margin: 3rem 0 .75rem; padding-top: .75rem; border-top: 1px solid var(--line); }
h3 { font-size: 1.05rem; margin: 2rem 0 .5rem; }
p { margin: .5rem 0; max-width: 46rem; }
a { color: var(--accent); }
code { font: .875em ui-monospace, "DejaVu Sans Mono", monospace; overflow-wrap: anywhere; }
.skip { position: absolute; left: -100vw; }
.skip:focus { left: 1rem; top: .5rem; background: var(--paper); padding: .25rem .5rem; }
.lead { color: var(--muted); margin-bottom: 1.25rem; }
p.remark { color: var(--muted); font-size: .9rem; }
nav ul { display: flex; flex-wrap: wrap; gap: .25rem 1.1rem; list-style: none; margin: 1.25rem 0 0; padding: 0; }
.scroll { overflow-x: auto; margin: .75rem 0 1.75rem; }
.scroll:focus-visible, a:focus-visible { outline: 2px solid var(--accent); outline-offset: 2px; }
table { border-collapse: collapse; font-variant-numeric: tabular-nums; font-size: .9rem; }
caption { text-align: left; color: var(--muted); padding-bottom: .35rem; }
th, td { padding: .3rem .75rem; border-bottom: 1px solid var(--line); text-align: left; vertical-align: top;
  font-weight: normal; overflow-wrap: anywhere; }
th { overflow-wrap: break-word; }
th:first-child, td:first-child { padding-left: 0; }
thead th { color: var(--muted); font-size: .8rem; border-bottom-color: var(--muted); vertical-align: bottom;
  overflow-wrap: normal; }
.number { text-align: right; white-space: nowrap; }
.facts th { color: var(--muted); width: 11rem; }
.texts td { font: .8rem/1.5 ui-monospace, "DejaVu Sans Mono", monospace; }
.good { color: var(--good); } .bad { color: var(--bad); }
ul.found { padding: .6rem 1rem .6rem 2rem; background: var(--warm); border-left: 3px solid var(--bad); margin: .75rem 0; }
figure { margin: 1rem 0; overflow-x: auto; }
figcaption { color: var(--muted); font-size: .85rem; max-width: 46rem; overflow-wrap: anywhere; }
svg { max-width: 100%; height: auto; }
svg text { fill: var(--ink); font: 12px system-ui, -apple-system, "Segoe UI", "Noto Sans", "DejaVu Sans", sans-serif; }
svg .muted, svg .remark, svg .name, svg .label { fill: var(--muted); }
svg .title { font-weight: 600; font-size: 13px; }
svg .marked { fill: var(--accent); font-weight: 700; }
svg .grid { stroke: var(--line); } svg .axis { stroke: var(--muted); }
svg .line { stroke: var(--accent); stroke-width: 1.8; fill: none; }
svg .point, svg .bar { fill: var(--accent); }
svg .shape { fill: var(--shape); stroke: var(--accent); }
svg .frame { fill: none; stroke: var(--line); }
svg .arrow { stroke: var(--muted); fill: none; }
.cells image { image-rendering: pixelated; }
.beside { display: flex; flex-wrap: wrap; gap: 0 1.5rem; align-items: flex-start; }
.beside figure { max-width: 30rem; }
.confusion td, .confusion thead th { text-align: center; min-width: 2.2rem; padding: .25rem; border: 1px solid var(--line); }
.confusion .r1 { background: rgba(32, 110, 214, .12); } .confusion .r2 { background: rgba(32, 110, 214, .25); }
.confusion .w1 { background: rgba(224, 98, 12, .15); } .confusion .w2 { background: rgba(224, 98, 12, .3); }
footer { margin-top: 3rem; color: var(--muted); font-size: .85rem; border-top: 1px solid var(--line); padding-top: .75rem; }
@media print { :root { color-scheme: light; } html { font-size: 10.5pt; } body { max-width: none; padding: 0; } nav, .skip { display: none; }
  h2, h3 { break-after: avoid; } figure, tr, ul.found { break-inside: avoid; } .scroll { overflow: visible; } }
)";

// The rules' SHA-256 in base64: a style of any other text does nothing. PageStyleTest says what it
// should be.
constexpr char kPolicy[] =
    "default-src 'none'; img-src data:; "
    "style-src 'sha256-QHRt27bqArVlw2hHD+YP85tQapnRyLDXDAlUEG/X/AE='; "
    "base-uri 'none'; form-action 'none'";

}  // namespace

void writeStyle(Markup& page) {
  page.empty("meta", {{"charset", "utf-8"}});
  page.empty("meta", {{"http-equiv", "Content-Security-Policy"}, {"content", kPolicy}});
  page.empty("meta", {{"name", "viewport"}, {"content", "width=device-width, initial-scale=1"}});
  page.empty("meta", {{"name", "referrer"}, {"content", "no-referrer"}});
  page.style(kRules);
}

}  // namespace mlnn
