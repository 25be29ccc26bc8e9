/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What is the same in every report: its style and its script. */
#ifndef QUILLET_COMPANION_REPORT_PAGE_H
#define QUILLET_COMPANION_REPORT_PAGE_H

namespace companion {

constexpr char reportStyle[] = R"css(
:root {
  color-scheme: light dark;
  --page: #f6f7f9; --card: #ffffff; --ink: #1a1e24; --soft: #555e69; --line: #d9dde3;
  --accent: #0b5fc0; --before: #9db9dc; --stay: #8a93a0; --good: #0b5a2b; --good-bg: #def3e5;
  --warn: #6f4300; --warn-bg: #fff0cf; --code: #eef1f5;
}
@media (prefers-color-scheme: dark) {
  :root {
    --page: #111418; --card: #191d23; --ink: #e8ebef; --soft: #a9b2bd; --line: #323942;
    --accent: #78b6ff; --before: #4a6488; --stay: #7f8894; --good: #97e6b4; --good-bg: #12301f;
    --warn: #ffd48f; --warn-bg: #3a2b0c; --code: #232932;
  }
}
* { box-sizing: border-box; }
body { margin: 0; background: var(--page); color: var(--ink); font: 16px/1.55 system-ui, "Segoe UI", sans-serif; }
main { max-width: 62rem; margin: 0 auto; padding: 2.5rem 1.25rem 4rem; }
h1 { font-size: 1.9rem; line-height: 1.2; letter-spacing: -.015em; margin: .3rem 0 .75rem; text-wrap: balance; }
h2 { font-size: 1.15rem; margin: 0 0 .35rem; }
h3 { font-size: 1rem; margin: 1.5rem 0 .4rem; }
p { margin: .35rem 0 .8rem; max-width: 44rem; }
.eyebrow, .note, .soft, footer { color: var(--soft); font-size: .875rem; }
.eyebrow { margin: 0; }
.lead { font-size: 1.08rem; }
section { background: var(--card); border: 1px solid var(--line); border-radius: 10px; padding: 1.25rem 1.4rem; margin-top: 1.1rem; }
.verdict { display: inline-block; font-weight: 600; font-size: .925rem; padding: .2rem .75rem; border-radius: 99px; }
.good { color: var(--good); background: var(--good-bg); }
.warn { color: var(--warn); background: var(--warn-bg); }
dl { display: grid; grid-template-columns: 9.5rem 1fr; gap: .35rem 1.2rem; margin: 0; }
dt { color: var(--soft); }
dd { margin: 0; min-width: 0; overflow-wrap: anywhere; }
code, pre, .mono { font-family: ui-monospace, "Cascadia Mono", Menlo, Consolas, "DejaVu Sans Mono", monospace; font-size: .86rem; }
code { background: var(--code); border-radius: 4px; padding: .1rem .35rem; overflow-wrap: anywhere; -webkit-box-decoration-break: clone; box-decoration-break: clone; }
.scroll { overflow-x: auto; }
table { border-collapse: collapse; width: 100%; font-size: .925rem; }
th { text-align: left; font-weight: 600; color: var(--soft); font-size: .82rem; }
th, td { padding: .42rem .9rem .42rem 0; border-bottom: 1px solid var(--line); vertical-align: top; }
tr:last-child td { border-bottom: 0; }
th:last-child, td:last-child { padding-right: 0; }
td.n, th.n { text-align: right; min-width: 4.2rem; font-variant-numeric: tabular-nums; white-space: nowrap; }
td.name { overflow-wrap: anywhere; min-width: 9rem; }
td.bars { width: 42%; min-width: 10rem; padding-top: .62rem; }
td.bars svg { display: block; width: 100%; height: 18px; }
.b { fill: var(--before); } .a { fill: var(--accent); } .s { fill: var(--stay); }
.key { display: flex; gap: 1.2rem; flex-wrap: wrap; margin: 0 0 .6rem; color: var(--soft); font-size: .85rem; }
.key svg { width: 12px; height: 12px; margin-right: .4rem; vertical-align: -1px; }
details { border-top: 1px solid var(--line); }
details:last-of-type { border-bottom: 1px solid var(--line); }
summary { cursor: pointer; padding: .5rem .2rem; overflow-wrap: anywhere; }
summary:hover { background: var(--code); }
summary b { font-weight: 600; } summary .n { color: var(--soft); font-variant-numeric: tabular-nums; }
:focus-visible { outline: 2px solid var(--accent); outline-offset: 2px; }
pre { margin: 0 0 .8rem; padding: .7rem .9rem; background: var(--code); border-radius: 6px; white-space: pre-wrap; overflow-wrap: anywhere; line-height: 1.5; max-height: 28rem; overflow-y: auto; unicode-bidi: isolate; }
ul { margin: .3rem 0; padding-left: 1.2rem; } li { margin: .3rem 0; overflow-wrap: anywhere; }
label { display: block; margin: .6rem 0 .3rem; font-weight: 600; font-size: .925rem; }
input { width: 100%; font: inherit; padding: .5rem .75rem; color: inherit; background: var(--page); border: 1px solid var(--soft); border-radius: 7px; }
footer { margin-top: 1.5rem; }
@media (max-width: 40rem) { dl { grid-template-columns: 1fr; gap: 0; } dd { margin-bottom: .6rem; } td.bars { min-width: 6rem; } }
@media print {
  :root { color-scheme: light; --page: #fff; --card: #fff; --ink: #000; --soft: #444; --line: #bbb; --accent: #0b5fc0;
    --before: #9db9dc; --stay: #777; --good: #0b5a2b; --good-bg: #fff; --warn: #6f4300; --warn-bg: #fff; --code: #fff; }
  @page { margin: 16mm 14mm; }
  body { font-size: 10.5pt; } main { max-width: none; padding: 0; } h1 { font-size: 18pt; }
  section { border: 0; border-top: 1px solid var(--line); border-radius: 0; padding: .7rem 0; }
  .verdict { border: 1px solid currentColor; } .filter { display: none; }
  pre { max-height: none; overflow: visible; padding: 0; } code { padding: 0; }
  h2, h3, summary, tr, li { break-inside: avoid; } h2, h3 { break-after: avoid; }
}
)css";

constexpr char reportScript[] = R"js(
'use strict';
const box = document.getElementById('filter'), said = document.getElementById('found');
const groups = Array.from(document.querySelectorAll('details.places'));
document.querySelector('.filter').hidden = false;
const linesOf = group => {
  if (!group.kept) {
    const text = group.querySelector('pre').textContent;
    const head = group.querySelector('summary').textContent.toLowerCase();
    group.kept = text.split('\n');
    group.low = group.kept.map(line => head + '\n' + line.toLowerCase());
    group.count = group.querySelector('.n').textContent;
  }
  return group.kept;
};
const filter = () => {
  const wanted = box.value.trim().toLowerCase();
  let all = 0;
  for (const group of groups) {
    const lines = linesOf(group);
    const kept = wanted ? lines.filter((line, i) => group.low[i].includes(wanted)) : lines;
    group.querySelector('pre').textContent = kept.join('\n');
    group.querySelector('.n').textContent = wanted ? kept.length.toLocaleString('en') + ' of ' + group.count : group.count;
    group.hidden = kept.length === 0;
    all += kept.length;
  }
  let shown = 0;
  for (const group of groups) {
    const size = group.hidden ? 0 : group.querySelector('pre').textContent.split('\n').length;
    group.open = wanted !== '' && !group.hidden && (shown += size) <= 400;
  }
  said.textContent = wanted ? all.toLocaleString('en') + ' found' : '';
};
let later = 0;
box.addEventListener('input', () => { clearTimeout(later); later = setTimeout(filter, 150); });
)js";

} /* namespace companion */

#endif
