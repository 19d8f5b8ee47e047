// Installing packages, from a file that is chosen or dropped, and removing them.

import { byId, element, setText } from "./dom.js";
import { bearer } from "./session.js";

/** Makes the page take packages; gives what takes that back. */
export function offerInstallation(host) {
  const picker = element("input", { type: "file", accept: ".zip,application/zip", multiple: true, class: "unseen", tabindex: "-1", "aria-label": "Package archives" });
  const button = element("button", { type: "button", class: "control", title: "A zip archive with manifest.xml at its top; it may be dropped on the list as well", click: () => picker.click() }, "Install package…");
  picker.addEventListener("change", () => {
    install(host, [...picker.files]);
    picker.value = ""; // the same file may be chosen again
  });
  byId("behavior-controls").append(picker, button);

  const area = byId("behaviors");
  const ending = new AbortController();
  const listen = (type, handler) => area.addEventListener(type, handler, { signal: ending.signal });
  const holdsFiles = ({ dataTransfer }) => dataTransfer.types.includes("Files");
  listen("dragover", (event) => {
    if (!holdsFiles(event)) return;
    event.preventDefault();
    event.dataTransfer.dropEffect = "copy";
    area.classList.add("dropping");
  });
  listen("dragleave", ({ relatedTarget }) => area.contains(relatedTarget) || area.classList.remove("dropping"));
  listen("drop", (event) => {
    area.classList.remove("dropping");
    if (!holdsFiles(event)) return;
    event.preventDefault();
    install(host, [...event.dataTransfer.files]);
  });
  return () => ending.abort();
}

/** One after the other, in their order. */
async function install(host, files) {
  for (const file of files) {
    const text = element("span");
    const progress = element("progress", { max: "1", value: "0", "aria-label": `Upload of ${file.name}` });
    const close = element("button", { type: "button", "aria-label": "Dismiss", click: () => line.remove() }, "✕");
    const line = element("p", { class: "upload" }, text, progress);
    byId("upload").append(line);
    setText(text, `Sending ${file.name}…`);
    try {
      const answer = await send(file, (share) => {
        progress.value = share;
        if (share === 1) setText(text, `Installing ${file.name}…`);
      });
      setText(text, installedText(answer));
      if (!answer.faults?.length) setTimeout(() => line.remove(), 8000);
    } catch (error) {
      line.classList.add("error");
      setText(text, `${file.name} is not installed: ${error.message}`);
    }
    progress.remove();
    line.append(close);
    host.catalogue.refresh("packages");
  }
}

/** What an admin should know of a package: what it may call that not every behavior may. */
export function mayText(may) {
  if (!may.length) return "";
  return may.includes("*") ? "May call everything." : `May call ${may.join(", ")}.`;
}

function installedText({ uuid, replaced, stopped = [], may = [], faults = [] }) {
  const former = replaced === null || replaced === undefined ? "" : ` in the place of ${replaced ? `its version ${replaced}` : "the former one"}`;
  return [`Installed the package ${uuid}${former}.`, stopped.length ? `This stopped ${stopped.join(", ")}.` : "", mayText(may),
    ...faults.map(({ file, line, text }) => `${file}:${line}: ${text}.`)].filter(Boolean).join(" ");
}

/** A request of its own, since a page learns how far a fetch has come only on its way back. */
function send(file, tell) {
  return new Promise((resolve, reject) => {
    const request = new XMLHttpRequest();
    request.upload.onprogress = ({ loaded, total }) => tell(total ? loaded / total : 1);
    request.onload = () => {
      if (request.status !== 201) return reject(new Error(request.responseText.trim() || `the host answers ${request.status}`));
      resolve(JSON.parse(request.responseText));
    };
    request.onerror = () => reject(new Error("it could not be sent. Is it a zip archive that can be read, and not too large for this host?"));
    request.open("POST", "packages");
    request.setRequestHeader("Authorization", bearer);
    request.setRequestHeader("Content-Type", "application/zip");
    request.send(file);
  });
}

export function removeButton(host, { uuid, title, behaviors }) {
  const error = element("span", { class: "error", role: "alert" });
  const remove = async () => {
    setText(error, "");
    const count = behaviors.length === 1 ? "its behavior" : `its ${behaviors.length} behaviors`;
    const question = title && title !== uuid ? `Remove the package ${title} (${uuid})?` : `Remove the package ${uuid}?`;
    if (!(await confirm(question, `This stops ${count} and deletes the package's files on the host.`))) return;
    await host.connection.call("PackageManager.remove", uuid).catch(({ message }) => setText(error, message));
    host.catalogue.refresh("packages", "states", "defaults");
  };
  return element("span", {}, error, element("button", { type: "button", class: "control quiet", "aria-label": `Remove the package ${uuid}`, click: remove }, "Remove"));
}

function confirm(question, detail) {
  const dialog = byId("confirm");
  setText(byId("confirm-question"), question);
  setText(byId("confirm-detail"), detail);
  dialog.returnValue = "no"; // what Escape means
  dialog.showModal();
  return new Promise((resolve) => dialog.addEventListener("close", () => resolve(dialog.returnValue === "yes"), { once: true }));
}
