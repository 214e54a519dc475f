// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The search: every word that is typed must be in the title or in the text of an entry. Titles count first.
"use strict";

const field = document.getElementById("site-search");
const found = document.getElementById("site-found");
const mostShown = 20;

function rank(entry, words) {
  const title = entry[0].toLowerCase();
  const text = entry[2].toLowerCase();
  if (!words.every((word) => title.includes(word) || text.includes(word))) {
    return 0;
  }
  const name = title.split("::").pop();
  return words.reduce((sum, word) => sum + (name === word ? 100 : title.includes(word) ? 10 : 1), 1);
}

// The part of a text around the first word.
function excerpt(text, words) {
  const at = Math.max(0, text.toLowerCase().indexOf(words[0]) - 40);
  return (at > 0 ? "..." : "") + text.slice(at, at + 140);
}

function show() {
  const words = field.value.toLowerCase().split(/\s+/).filter(Boolean);
  const ranked = words.length === 0 ? [] : searchIndex.map((entry) => [rank(entry, words), entry]);
  const best = ranked.filter(([points]) => points > 0).sort((left, right) => right[0] - left[0]).slice(0, mostShown);
  found.replaceChildren(...best.map(([, entry]) => {
    const link = document.createElement("a");
    link.href = siteRoot + entry[1];
    link.textContent = entry[0];
    const text = document.createElement("p");
    text.textContent = excerpt(entry[2], words);
    const item = document.createElement("li");
    item.append(link, text);
    return item;
  }));
  if (words.length > 0 && best.length === 0) {
    const none = document.createElement("li");
    none.textContent = "Nothing found.";
    found.append(none);
  }
  found.hidden = words.length === 0;
}

field.addEventListener("input", show);
field.form.addEventListener("submit", (event) => {
  event.preventDefault();
  found.querySelector("a")?.click();
});
document.addEventListener("keydown", (event) => {
  if (event.key === "Escape") {
    field.value = "";
    show();
  } else if (event.key === "/" && document.activeElement !== field) {
    event.preventDefault();
    field.focus();
  }
});
found.addEventListener("click", () => {
  found.hidden = true;
});

// A narrow window has no room for the menu beside the page.
if (window.innerWidth < 900) {
  document.querySelector(".menu").removeAttribute("open");
}
