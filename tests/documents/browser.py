#!/usr/bin/python3
"""Looks at a set of HTML pages in Chromium, as a reader does who has no network: browser.py PAGES

At three widths nothing is wider than the window, and in both colour schemes all text stands out from its
ground (4.5 to 1, as WCAG's level AA asks); each page has a language and is marked in the
navigation, whose search finds words; the console stays empty.
"""

import pathlib
import re
import sys

from selenium import webdriver
from selenium.common.exceptions import TimeoutException
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import WebDriverWait

LOOKS = ((360, "light"), (800, "dark"), (1400, "light"))
LOOK = """
const faults = new Set(), fills = new Map(), root = document.documentElement;
function channels(colour) {
    return colour.match(/[\\d.]+/g).map(Number);
}
function brightness(colour) {
    const [r, g, b] = channels(colour).map(c => c / 255).map(
        c => c <= 0.03928 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4);
    return 0.2126 * r + 0.7152 * g + 0.0722 * b;
}
function contrast(one, other) {
    const [dark, bright] = [brightness(one), brightness(other)].sort((a, b) => a - b);
    return (bright + 0.05) / (dark + 0.05);
}
function ground(element) {
    for (; element; element = element.parentElement) {
        const colour = getComputedStyle(element).backgroundColor;
        if (channels(colour)[3] !== 0) return colour;
    }
    return "rgb(255, 255, 255)";
}
function grounds(element) { // of a drawing's text: any of its shapes
    const svg = element.ownerSVGElement;
    if (!svg) return [ground(element)];
    if (!fills.has(svg)) {
        const shapes = [...svg.querySelectorAll("rect, :not(marker) > polygon")];
        fills.set(svg, new Set(shapes.map(shape => getComputedStyle(shape).fill)));
        fills.get(svg).delete("none");
    }
    return [ground(svg), ...fills.get(svg)];
}
function stands_out(element) {
    const style = getComputedStyle(element);
    const colour = element.ownerSVGElement ? style.fill : style.color;
    return grounds(element).every(other => contrast(colour, other) >= 4.5);
}
if (root.scrollWidth > innerWidth) faults.add("is " + root.scrollWidth + " wide");
const texts = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT), seen = new Set();
while (texts.nextNode()) {
    const element = texts.currentNode.parentElement, text = texts.currentNode.data.trim();
    if (!text || seen.has(element) || !element.checkVisibility()) continue;
    seen.add(element);
    if (!stands_out(element)) faults.add("does not stand out: " + element.tagName + " " + element.className);
}
for (const link of document.querySelectorAll("a[href]:not([aria-hidden])")) {
    const wide = [...link.getClientRects()].some(part => part.width > 0);
    if (link.checkVisibility() && !wide) faults.add("shows nothing for " + link.href);
}
const input = document.querySelector("input");
if (contrast(getComputedStyle(input, "::placeholder").color, ground(input)) < 4.5) faults.add("pale: Search");
if (!root.lang) faults.add("has no language");
const marked = [...document.querySelectorAll("nav[aria-label=Pages] [aria-current]")].map(a => a.href);
const here = location.href.replace(/(reference\\/).*/, "$1index.html");
if (marked.join() !== here && !here.endsWith("/search.html")) faults.add("the navigation marks " + (marked.join() || "nothing"));
if (seen.size < 15) faults.add("is almost empty");
return [...faults];
"""


def start():
    options = webdriver.ChromeOptions()
    for option in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage"):
        options.add_argument(option)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(options=options)


def look(browser, page):
    browser.get(page.as_uri())
    for width, scheme in LOOKS:
        browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": 800, "deviceScaleFactor": 1, "mobile": False})
        browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": scheme}]})
        for fault in browser.execute_script(LOOK):
            yield "%s, %d, %s: %s" % (page.name, width, scheme, fault)
    for line in browser.get_log("browser"):
        yield "%s: %s" % (page.name, line["message"])


def search(browser, start_page, word, wanted):
    """What is wrong with the search for a word, whose first result is to be on the wanted page."""
    browser.get(start_page.as_uri())
    browser.find_element(By.NAME, "q").send_keys(word, Keys.ENTER)
    try:
        WebDriverWait(browser, 20).until(lambda _: word in browser.find_element(By.ID, "found").text)
    except TimeoutException:
        return ["%s: no answer, %s" % (word, browser.get_log("browser"))]
    links = browser.find_elements(By.CSS_SELECTOR, "#results a")
    if wanted is None:
        return ["%s: is found" % word] if links else []
    if not links:
        return ["%s: is not found" % word]
    links[0].click()
    place = browser.current_url.rpartition("/")[2]
    there = browser.execute_script("return !location.hash || !!document.querySelector(':target')")
    if not place.startswith(wanted) or not there or word.lower() not in browser.page_source.lower():
        return ["%s: is first found at %s" % (word, place)]
    return ["%s: %s" % (word, line["message"]) for line in browser.get_log("browser")]


def largest_of_each_kind(pages):
    def kind(page):
        return re.sub(r"_1_1\w+|^\w+(?=_8h)|_\w{32}", "", page.name)
    return list({kind(page): page for page in sorted(pages, key=lambda page: page.stat().st_size)}.values())


def main():
    top = pathlib.Path(sys.argv[1]).resolve()
    guides, reference = sorted(top.glob("*.html")), largest_of_each_kind((top / "reference").glob("*.html"))
    browser = start()
    try:
        faults = [fault for page in guides + reference for fault in look(browser, page)]
        for word, wanted in (("watchdog", "qord.8.html"), ("AddStateCallback", "class"), ("xyzzy", None)):
            faults += search(browser, reference[0], word, wanted)
    finally:
        browser.quit()
    print("\n".join(faults) or "%d pages" % len(guides + reference))
    sys.exit(1 if faults or len(guides) < 10 or len(reference) < 10 else 0)


if __name__ == "__main__":
    main()
