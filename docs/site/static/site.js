// What scrolls can be reached by keys, to scroll it.
function reachWhatScrolls() {
  for (const part of document.querySelectorAll('article :is(pre, table, .output_area)')) {
    if (part.scrollWidth > part.clientWidth) part.tabIndex = 0;
    else part.removeAttribute('tabindex');
  }
}
addEventListener('load', reachWhatScrolls);
addEventListener('resize', reachWhatScrolls);
