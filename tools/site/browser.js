// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Looks at every page of the site as a phone shows it, and reports to the server what is wrong. It runs in a page of
// the same server, with each page in a frame.
"use strict";

const phone = 360;
const enoughContrast = 4.5;  // WCAG 2, level AA
const breaches = [];
let looked = 0;

function channels(colour) {
  const numbers = colour.match(/[\d.]+/g).map(Number);
  return { rgb: numbers.slice(0, 3), alpha: numbers.length > 3 ? numbers[3] : 1 };
}

function luminance(rgb) {
  const [red, green, blue] = rgb.map((value) => {
    const part = value / 255;
    return part <= 0.04045 ? part / 12.92 : ((part + 0.055) / 1.055) ** 2.4;
  });
  return 0.2126 * red + 0.7152 * green + 0.0722 * blue;
}

function contrast(left, right) {
  const [darker, lighter] = [luminance(left), luminance(right)].sort((a, b) => a - b);
  return (lighter + 0.05) / (darker + 0.05);
}

// The ground that an element's text stands on: the first parent's that is not transparent.
function groundOf(view, element) {
  for (let each = element; each !== null; each = each.parentElement) {
    const ground = channels(view.getComputedStyle(each).backgroundColor);
    if (ground.alpha === 1) {
      return ground.rgb;
    }
  }
  return [255, 255, 255];
}

function name(element) {
  return `<${element.tagName.toLowerCase()}> "${element.textContent.trim().slice(0, 40)}"`;
}

function hasOwnText(element) {
  return [...element.childNodes].some((node) => node.nodeType === Node.TEXT_NODE && node.data.trim() !== "");
}

function lookAtText(page, view) {
  for (const element of view.document.querySelectorAll("body *")) {
    if (element.getClientRects().length === 0 || !hasOwnText(element)) {
      continue;
    }
    looked += 1;
    const found = contrast(channels(view.getComputedStyle(element).color).rgb, groundOf(view, element));
    if (found < enoughContrast) {
      breaches.push(`${page}: contrast ${found.toFixed(2)}: ${name(element)}`);
    }
  }
}

function lookAtWidth(page, view) {
  const root = view.document.documentElement;
  if (root.scrollWidth <= phone) {
    return;
  }
  const wide = [...view.document.querySelectorAll("body *")].filter(
    (element) => element.getBoundingClientRect().right > phone + 1);
  breaches.push(`${page}: ${root.scrollWidth} pixels wide: ${wide.slice(0, 3).map(name).join(", ")}`);
}

function lookAtGround(page, view) {
  const dark = luminance(groundOf(view, view.document.body)) < 0.2;
  if (dark !== wantsDark) {
    breaches.push(`${page}: the ground is ${dark ? "dark" : "light"}`);
  }
}

async function load(frame, page) {
  await new Promise((resolve) => {
    frame.onload = resolve;
    frame.src = page;
  });
  frame.contentWindow.onerror = (message) => breaches.push(`${page}: ${message}`);
  return frame.contentWindow;
}

// Types a word into the search, and follows the first link that is found.
async function lookAtSearch(frame, word, wanted) {
  const view = await load(frame, "/index.html");
  const field = view.document.getElementById("site-search");
  field.value = word;
  field.dispatchEvent(new view.Event("input"));
  const link = view.document.querySelector("#site-found a");
  if (link === null || !link.href.endsWith(wanted)) {
    breaches.push(`the search for "${word}" finds ${link === null ? "nothing" : link.href} first, not ${wanted}`);
    return;
  }
  lookAtText(`the search for "${word}"`, view);
  lookAtWidth(`the search for "${word}"`, view);
  const led = await load(frame, link.href);
  const place = decodeURIComponent(wanted.split("#")[1]);
  if (led.document.getElementById(place) === null) {
    breaches.push(`the search for "${word}" leads to a page without ${place}`);
  }
}

async function lookAtAll() {
  const frame = document.createElement("iframe");
  frame.width = phone;
  frame.height = 740;
  frame.style.border = "0";
  document.body.append(frame);
  for (const page of pages) {
    const view = await load(frame, page);
    view.document.querySelector(".menu").setAttribute("open", "");
    lookAtGround(page, view);
    lookAtText(page, view);
    lookAtWidth(page, view);
  }
  for (const [word, wanted] of searches) {
    await lookAtSearch(frame, word, wanted);
  }
}

lookAtAll().catch((error) => breaches.push(`this check failed: ${error}`)).finally(() => {
  fetch("/result", { method: "POST", body: JSON.stringify({ breaches, looked, dark: wantsDark }) });
});
