// Finds the words of the address's "q" in the sections of all pages: sections.js has them as
// [address, page, heading, text].
"use strict";
const query = new URLSearchParams(location.search).get("q") || "";
const words = query.toLowerCase().split(/[^\p{L}\p{N}]+/u).filter(Boolean);

function search() {
    lunr.tokenizer.separator = /[^\p{L}\p{N}]+/u; // com.norvane.qor is three words, and so is set_policy-file
    const index = lunr(function () {
        this.field("page", { boost: 2 });
        this.field("heading", { boost: 4 });
        this.field("text");
        sections.forEach(([, page, heading, text], id) => this.add({ id, page, heading, text }));
    });
    return index.query(all => {
        for (const word of words) {
            all.term(lunr.tokenizer(word), { boost: 10 });
            all.term(word, { usePipeline: false, wildcard: 3 }); // SetPolicy has "policy" inside
        }
    });
}

function excerpt(text) { // around the first word that stands there as it was typed
    const places = words.map(word => text.toLowerCase().indexOf(word)).filter(place => place >= 0);
    const start = places.length && Math.min(...places) > 80 ? text.indexOf(" ", Math.min(...places) - 80) : 0;
    const end = start + 220 < text.length ? text.lastIndexOf(" ", start + 220) : text.length;
    return (start ? "…" : "") + text.slice(start, end) + (end < text.length ? " …" : "");
}

function show(id) {
    const [address, page, heading, text] = sections[id];
    const item = document.createElement("li"), link = document.createElement("a");
    link.href = address;
    link.textContent = heading && heading !== page ? page + ": " + heading : page;
    item.append(link, document.createElement("br"), excerpt(text));
    document.getElementById("results").append(item);
}

const results = words.length ? search() : [];
results.slice(0, 40).forEach(result => show(result.ref));
document.querySelector("input[name=q]").value = query;
document.getElementById("found").textContent = words.length
    ? `${results.length || "No"} section${results.length === 1 ? "" : "s"} with “${query}”`
    : "Type a word into the field above.";
