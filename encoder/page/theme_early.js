// SPDX-License-Identifier: Apache-2.0
// Runs before the first paint, so that a page with a chosen theme does not flash in the other one.
(() => {
  try {
    const theme = localStorage.getItem("theme");
    if (theme === "light" || theme === "dark") document.documentElement.dataset.theme = theme;
  } catch {
    // Without storage the page follows the system.
  }
})();
