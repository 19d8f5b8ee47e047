// Keeps this tab's half of a session, and takes the address that began it out of the tab's history.
sessionStorage.setItem("tarvik", document.querySelector('meta[name="tarvik-secret"]').content);
location.replace("/");
