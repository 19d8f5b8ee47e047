// This tab's half of the session (enter.js): without it the page's files can be seen, and nothing else.
export const secret = sessionStorage.getItem("tarvik") ?? "";
export const bearer = `Bearer ${secret}`;
