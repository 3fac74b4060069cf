// Hover and keyboard. Everything that the page says is there without it: the pictures then show their titles as the
// browser does.
"use strict";
(() => {
  const root = document.documentElement;
  const tip = document.createElement("div");
  tip.className = "tip";
  tip.setAttribute("role", "status");
  tip.hidden = true;
  document.body.append(tip);

  // The browser would show titles beside ours.
  for (const title of document.querySelectorAll("svg.plot title")) {
    title.parentNode.dataset.tip = title.textContent;
    title.remove();
  }

  const show = (text, x, y) => {
    if (tip.textContent !== text)
      tip.textContent = text;
    tip.hidden = false;
    const box = tip.getBoundingClientRect();
    const left = x + 14 + box.width > root.clientWidth ? x - 14 - box.width : x + 14;
    const top = y + 14 + box.height > root.clientHeight ? y - 14 - box.height : y + 14;
    tip.style.left = Math.max(4, left) + "px";
    tip.style.top = Math.max(4, top) + "px";
  };
  const hide = () => { tip.hidden = true; };

  document.addEventListener("pointermove", (event) => {
    const owner = event.target.closest ? event.target.closest("[data-tip]") : null;
    if (owner)
      show(owner.dataset.tip, event.clientX, event.clientY);
    else
      hide();
  });
  document.addEventListener("pointerleave", hide);
  document.addEventListener("scroll", hide, true);

  // To the row of the same backup.
  const go = (element) => {
    const owner = element.closest("[data-to]");
    if (owner)
      location.hash = owner.dataset.to;
  };
  document.addEventListener("click", (event) => {
    if (event.target.closest && event.target.closest("svg.plot"))
      go(event.target);
  });

  // A picture is one stop of the tab key. In it the arrow keys move over the columns, and up and down in one.
  const attend = (plot) => {
    const stops = [...plot.querySelectorAll(".column, .marks > .mark")];
    if (stops.length === 0)
      return;
    // Marks of a timeline lie in layers.
    const sequence = (stop) => Number(stop.dataset.to.split("-").pop());
    stops.sort((a, b) => sequence(a) - sequence(b));
    let column = stops.length - 1;
    let cell = -1; // the column itself, above its cells
    let at = null;
    const move = () => {
      if (at)
        at.classList.remove("at");
      const cells = stops[column].querySelectorAll(".heat");
      cell = Math.min(cell, cells.length - 1);
      at = cell < 0 ? stops[column] : cells[cell];
      at.classList.add("at");
      // At once, or the tip would go with the scrolling.
      at.scrollIntoView({block: "nearest", inline: "nearest"});
      const box = at.getBoundingClientRect();
      requestAnimationFrame(() => show(at.dataset.tip, box.right - 6, Math.min(box.bottom, box.top + 90)));
    };
    plot.tabIndex = 0;
    plot.setAttribute("role", "application");
    plot.setAttribute("aria-roledescription", "picture, arrow keys move in it");
    plot.addEventListener("focus", () => {
      if (plot.matches(":focus-visible"))
        move();
    });
    plot.addEventListener("blur", () => {
      if (at)
        at.classList.remove("at");
      hide();
    });
    plot.addEventListener("keydown", (event) => {
      switch (event.key) {
      case "ArrowLeft": column = Math.max(0, column - 1); break;
      case "ArrowRight": column = Math.min(stops.length - 1, column + 1); break;
      case "ArrowUp": cell = Math.max(-1, cell - 1); break;
      case "ArrowDown": ++cell; break;
      case "Home": column = 0; break;
      case "End": column = stops.length - 1; break;
      case "Enter": go(at || stops[column]); return;
      case "Escape": hide(); return;
      default: return;
      }
      event.preventDefault();
      move();
    });
  };
  document.querySelectorAll("svg.plot").forEach(attend);

  root.dataset.cells = document.querySelectorAll("svg.plot .heat").length;
  root.dataset.ready = "yes";
})();
