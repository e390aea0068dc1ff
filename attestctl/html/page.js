"use strict";
// Search over long tables. Without it every row is still on the page.
for (const form of document.querySelectorAll("form.search")) {
  const MOST = 300;
  const place = form.nextElementSibling;
  const field = form.querySelector("input");
  const mark = form.querySelector("select");
  const said = form.querySelector("output");
  const hits = document.createElement("table");
  hits.className = place.querySelector("table").className;
  hits.append(place.querySelector("thead").cloneNode(true), document.createElement("tbody"));
  hits.hidden = true;
  place.before(hits);
  form.hidden = false;
  let rows = null;
  let texts = null;

  const fits = (i, words, marks) =>
    words.every((word) => texts[i].includes(word)) &&
    (marks === "" || (marks === "new" ? !rows[i].querySelector("b.r") : rows[i].querySelector("b." + marks)));

  const search = () => {
    const words = field.value.toLowerCase().split(/\s+/).filter(Boolean);
    const marks = mark ? mark.value : "";
    const asked = words.length > 0 || marks !== "";
    hits.hidden = !asked;
    place.hidden = asked;
    said.textContent = "";
    hits.tBodies[0].replaceChildren();
    if (!asked) return;
    if (!rows) {
      rows = [...place.querySelectorAll("tbody > tr")];
      texts = rows.map((row) => row.textContent.toLowerCase());
    }
    let found = 0;
    const shown = [];
    for (let i = 0; i < rows.length; ++i)
      if (fits(i, words, marks) && ++found <= MOST) shown.push(rows[i].cloneNode(true));
    hits.tBodies[0].append(...shown);
    said.textContent = found.toLocaleString("en") + " of " + rows.length.toLocaleString("en") + " rows" +
      (found > MOST ? ", the first " + MOST + " are shown" : "");
  };

  let waiting = 0;
  form.addEventListener("input", () => {
    clearTimeout(waiting);
    waiting = setTimeout(search, 120);
  });
  form.addEventListener("submit", (event) => event.preventDefault());
}
